// CEncryptStream: encrypted records and typed fields over bytes. A record is a plain 4-byte length and that many bytes
// of AES-128-CBC ciphertext; docs/format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/srclib/KxComn_String.h"

/// The memory in which a stream gathers bytes. Code that reads or writes many files lends one to each stream in turn:
/// touching new memory for the first time costs more than all calls for a file of a quarter of a megabyte.
class CStreamBuffer
{
public:
    [[nodiscard]] uint8_t* Bytes() noexcept { return m_Bytes.get(); }
    [[nodiscard]] size_t Capacity() const noexcept { return m_Capacity; }
    /// Makes it at least that large and preserves the first used bytes. Strong guarantee.
    void Grow(size_t capacity, size_t used);

private:
    std::unique_ptr<uint8_t[]> m_Bytes;
    size_t m_Capacity = 0;
};

/// The low-level operations return false and throw only std::bad_alloc; the typed ones throw Exception by value. A
/// stream is read or written, not both. Bytes are gathered in memory and given to the derived class in large pieces, so
/// a failure to write may show only at a later write, or at Finish. Lengths found in the data are compared with the
/// bytes that are left before anything is allocated for them.
class CEncryptStream
{
public:
    enum Exception
    {
        ReadError = 0,
        WriteError = 1
    };

    /// A lent buffer must outlive the stream and serve no other one meanwhile.
    explicit CEncryptStream(CStreamBuffer* lent = nullptr) noexcept : m_Buffer(lent != nullptr ? *lent : m_Own) {}
    CEncryptStream(const CEncryptStream&) = delete;
    CEncryptStream& operator=(const CEncryptStream&) = delete;
    virtual ~CEncryptStream() = default;

    /// Plain: up to size bytes; fewer at the end of the data is success, as with ReadFile, and the rest of the buffer
    /// stays as it was. Encrypted: one record whose plaintext is exactly size bytes long.
    [[nodiscard]] bool Read(void* buffer, uint32_t size, bool encrypted);
    [[nodiscard]] bool Write(const void* buffer, uint32_t size, bool encrypted);
    /// Writes count encrypted records of the same size, several in flight in the cipher at a time.
    [[nodiscard]] bool WriteRecords(const void* const records[], size_t count, uint32_t size);
    /// Hands over the last bytes. A written stream is complete only when this has returned true.
    [[nodiscard]] bool Finish();

    // One record each (strings and arrays two: length or count, then content). They throw ReadError or WriteError and
    // return the stream.
    CEncryptStream& ReadU8(uint8_t& value);
    CEncryptStream& ReadU16(uint16_t& value);
    CEncryptStream& ReadU32(uint32_t& value);
    CEncryptStream& ReadString(std::string& text);           // up to its first NUL
    CEncryptStream& ReadString(KxCommon::WideString& text);  // up to its first NUL; an odd last byte is dropped
    CEncryptStream& ReadArray(std::vector<uint16_t>& array); // appends
    CEncryptStream& WriteU8(uint8_t value);
    CEncryptStream& WriteU16(uint16_t value);
    CEncryptStream& WriteU32(uint32_t value);
    CEncryptStream& WriteVersion(); // FileFormat::kVersion, the only version that is written
    CEncryptStream& WriteString(std::string_view text);
    CEncryptStream& WriteString(KxCommon::WideStringView text);
    CEncryptStream& WriteArray(const std::vector<uint16_t>& array);

protected:
    /// Reads up to size bytes; *got is 0 at the end. False: the system failed.
    virtual bool ReadBytes(void* out, uint32_t size, uint32_t* got) = 0;
    /// Writes all of them or fails.
    virtual bool WriteBytes(const void* in, uint32_t size) = 0;
    /// Bytes after what ReadBytes has handed out.
    virtual uint64_t RemainingBytes() = 0;

    /// Discards what was gathered: for a derived class that opens or closes its file. An unusable stream refuses every
    /// operation until the next call.
    void ResetBuffer(bool usable = true) noexcept;

private:
    enum class Mode
    {
        Fresh,
        Reading,
        Writing,
        Unusable
    };

    bool Enter(Mode mode) noexcept;
    uint64_t Left();
    bool HasRecord(uint64_t size);
    bool Fill(size_t needed);
    bool Gather(size_t size);
    bool MakeRoom(size_t size);
    bool HandOver(size_t size);
    bool ReadPlain(void* buffer, uint32_t size);
    bool ReadRecord(void* buffer, uint32_t size);
    bool WritePlain(const void* buffer, uint32_t size);

    // Reading: [m_Position, m_End) is what was fetched and not yet read. Writing: [0, m_End) is still to be handed
    // over.
    CStreamBuffer m_Own;
    CStreamBuffer& m_Buffer; // m_Own, or the lent one
    size_t m_Position = 0;
    size_t m_End = 0;
    Mode m_Mode = Mode::Fresh;
    bool m_IsCareful = false; // reading: a large piece could not be read
};
