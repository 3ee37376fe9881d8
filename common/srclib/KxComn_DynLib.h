// The owner of one loaded module.
#pragma once

#include <string>

namespace KxCommon
{

/// Holds a module from Load until Unload or destruction. Not copyable.
class DynLib
{
public:
    DynLib() noexcept = default;
    ~DynLib() { Unload(); }
    DynLib(const DynLib&) = delete;
    DynLib& operator=(const DynLib&) = delete;

    /// Loads a module by its absolute path; a bare name is looked for in the safe default directories only (not the
    /// current one, not PATH). Releases what was loaded before. False for any other path (what it denotes would depend
    /// on the current folder), and when the system refuses.
    bool Load(const std::string& path) noexcept;
    void Unload() noexcept;
    [[nodiscard]] bool IsLoaded() const noexcept { return m_Module != nullptr; }

    /// A function of the module, null when the module has none of that name.
    template <class Function>
    [[nodiscard]] Function* Find(const char* name) const noexcept
    {
        return reinterpret_cast<Function*>(Address(name));
    }

private:
    void* Address(const char* name) const noexcept;

    void* m_Module = nullptr; // an HMODULE; this header serves the platform-free core too
};

} // namespace KxCommon
