// Settings in the registry or in an INI file, behind one interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/srclib/KxComn_Exception.h"

namespace KxCommon::Storage
{

inline constexpr uint32_t kRegistry = 0;
inline constexpr uint32_t kIniFile = 1;
inline constexpr uint32_t kRegistryAlso = 4;

/// Where settings live.
struct Key
{
    uint32_t Kind;        // kRegistry, kRegistryAlso or kIniFile
    const char* Location; // INI: the folder of the file; registry: the parent key below HKEY_LOCAL_MACHINE
    const char* Name;     // INI: the file's name; registry: not used
};

/// In which view of the registry a key is opened; INI files ignore it. Any other value means kSystemView.
inline constexpr uint32_t kSystemView = 0;
inline constexpr uint32_t kView32 = 1;
inline constexpr uint32_t kView64 = 2;

class Exception final : public KxCommon::Exception::Base
{
public:
    /// @param code  the failing call's error, or ERROR_INVALID_DATA (13) for a value of the wrong type or size
    Exception(uint32_t code, const char* source) noexcept : KxCommon::Exception::Base(code, source) {}
};

/// One key or section: open, read or write by name, close. All failures are thrown as Storage::Exception by pointer.
/// The order of the operations is fixed: with MSVC the destructor has slot 0 and OpenForReading slot 1. GCC gives the
/// destructor two slots, so each operation has the next slot there; since the strings are the compiler's own as well,
/// objects of this class are used only by modules built with the same compiler. An operation that a storage does not
/// support does nothing and returns zero, false or an empty text, as these here do.
class Base
{
public:
    virtual ~Base() = default;
    virtual bool OpenForReading(const Key& where, const char* name, uint32_t view);
    virtual bool OpenForWriting(const Key& where, const char* name, uint32_t view);
    virtual bool OpenForDeleting(const Key& where, const char* name, uint32_t view);
    virtual bool OpenForEnumerating(const Key& where, const char* name, uint32_t view);
    virtual bool Close();
    /// Makes what was written reach the disk.
    virtual bool Flush();
    virtual bool Reserved7();
    /// @return the size of the value; throws ERROR_MORE_DATA if it exceeds size
    virtual uint32_t ReadBinary(const char* name, void* data, uint32_t size);
    virtual uint32_t Reserved9(const char* name);
    /// The registry throws for a missing value and ignores the default; an INI file returns it.
    virtual std::string ReadString(const char* name, const char* defaultText);
    virtual bool Reserved11(const char* name);
    virtual uint32_t ReadNumber(const char* name, uint32_t defaultNumber);
    virtual bool WriteBinary(const char* name, const void* data, uint32_t size);
    virtual bool WriteString(const char* name, const char* text);
    virtual bool WriteNumber(const char* name, uint32_t number);
    /// The name at an index, counted from 0; false if there are no more.
    virtual bool EnumerateKeys(uint32_t index, std::string& name);
    virtual bool EnumerateValues(uint32_t index, std::string& name);

    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;

protected:
    Base() = default;
};

/// The storage of a descriptor's kind; null for an unknown kind.
[[nodiscard]] std::unique_ptr<Base> Create(uint32_t kind);

} // namespace KxCommon::Storage
