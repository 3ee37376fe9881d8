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
    ~Companion() { ::FreeLibrary(m_Module); }
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    template <class Function>
    [[nodiscard]] Function* Find(const char* name) const
    {
        void* const address = reinterpret_cast<void*>(::GetProcAddress(m_Module, name));
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function*>(address);
    }

private:
    HMODULE m_Module;
};
