// The built companion libraries, loaded as their host does it: at run time, from a file.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Windows.h"

/// The directory of the test program, where the libraries are built too.
[[nodiscard]] inline std::filesystem::path BinFolder()
{
    wchar_t path[1024] = L"";
    ::GetModuleFileNameW(nullptr, path, 1024);
    return std::filesystem::path(path).parent_path();
}

class Companion
{
public:
    explicit Companion(const std::filesystem::path& file) : m_Module(::LoadLibraryW(file.c_str()))
    {
        EXPECT_NE(m_Module, nullptr) << file << ": error " << ::GetLastError();
    }
    /// Loads a copy of the file in another folder, where it looks for its settings.
    Companion(const std::filesystem::path& file, const std::filesystem::path& folder)
        : Companion((std::filesystem::copy_file(file, folder / file.filename()), folder / file.filename()))
    {
    }
    ~Companion() { ::FreeLibrary(m_Module); }
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    struct Address
    {
        void* Value;
        template <class Function>
        operator Function*() const
        {
            return reinterpret_cast<Function*>(Value);
        }
    };
    /// Whatever function it is assigned to.
    [[nodiscard]] Address Find(const char* name) const
    {
        void* const address = reinterpret_cast<void*>(::GetProcAddress(m_Module, name));
        EXPECT_NE(address, nullptr) << name;
        return {address};
    }

private:
    HMODULE m_Module;
};
