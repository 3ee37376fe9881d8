// An empty directory of a test's own, removed with everything in it. Windows.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

class TempDir
{
public:
    TempDir()
    {
        static int s_Count = 0;
        m_Path = std::filesystem::temp_directory_path() /
                 (L"kx-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++s_Count));
        std::filesystem::create_directories(m_Path);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(L"\\\\?\\" + m_Path.native(), ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::filesystem::path& Path() const { return m_Path; }
    [[nodiscard]] std::filesystem::path operator/(const std::filesystem::path& name) const { return m_Path / name; }

private:
    std::filesystem::path m_Path;
};

inline void WriteBytes(const std::filesystem::path& file, std::string_view bytes)
{
    std::ofstream(file, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Empty when there is no such file.
[[nodiscard]] inline std::string ReadBytes(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}
