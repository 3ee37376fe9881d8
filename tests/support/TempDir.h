// An empty directory of a test's own, removed with everything in it, and its files. Windows.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Handle.h"

class TempDir
{
public:
    TempDir()
    {
        static int s_Count = 0;
        m_Path = std::filesystem::temp_directory_path() /
                 (L"kx-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++s_Count));
        Remove(L"\\\\?\\" + m_Path.native()); // an earlier process of that number may have been killed
        std::filesystem::create_directories(m_Path);
    }
    ~TempDir() { Remove(L"\\\\?\\" + m_Path.native()); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::filesystem::path& Path() const { return m_Path; }
    [[nodiscard]] std::filesystem::path operator/(const std::filesystem::path& name) const { return m_Path / name; }

private:
    // std::filesystem::remove_all stops at paths beyond 260 characters, prefixed or not.
    static void Remove(const std::wstring& folder)
    {
        WIN32_FIND_DATAW found;
        const HANDLE find = ::FindFirstFileW((folder + L"\\*").c_str(), &found);
        for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = ::FindNextFileW(find, &found))
        {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                Remove(folder + L"\\" + name);
            else
                ::DeleteFileW((folder + L"\\" + name).c_str());
        }
        ::FindClose(find);
        ::RemoveDirectoryW(folder.c_str());
    }

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

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

[[nodiscard]] inline KxCommon::UniqueFile OpenExisting(const std::filesystem::path& file, DWORD share,
                                                       DWORD access = GENERIC_READ)
{
    return KxCommon::UniqueFile(::CreateFileW(file.c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr));
}
