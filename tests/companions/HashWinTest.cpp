#include "companions/hash/KxHash.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"

#include "tests/companions/Companion.h"
#include "tests/support/TempDir.h"

namespace
{

class Hash : public testing::Test
{
protected:
    // The hash in hexadecimal, or the status when there is none; the bytes must then be as they were.
    std::string Of(const std::filesystem::path& file)
    {
        uint8_t hash[22];
        std::fill(std::begin(hash), std::end(hash), uint8_t{0xa5});
        const int32_t status = m_GetHashValue(file.c_str(), hash + 1);
        std::string text;
        for (const uint8_t byte : hash)
        {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", byte);
            text += digits;
        }
        const std::string kGuard = "a5";
        EXPECT_EQ(text.substr(0, 2) + text.substr(42), kGuard + kGuard);
        if (status == 0)
            return text.substr(2, 40);
        EXPECT_EQ(text.find_first_not_of(kGuard), std::string::npos) << "touched though status is " << status;
        return "error " + std::to_string(status);
    }

    TempDir m_Dir;
    Companion m_Library{BinFolder() / L"KxHash.dll"};
    decltype(&kxCfwGetHashValue) m_GetHashValue = m_Library.Find("kxCfwGetHashValue");
};

TEST_F(Hash, GivesThePublishedValues)
{
    const struct
    {
        const char* name;
        std::string bytes;
        const char* expected;
    } cases[] = {
        {"no bytes", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"three bytes", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"two blocks", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {"a million bytes", std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        {"many pieces and a byte", std::string(3 * 1024 * 1024 + 1, '\0'), // sha1sum
         "2742f09dd969e64d4f424f031d65ce7f497095d0"},
    };
    for (const auto& c : cases)
    {
        WriteBytes(m_Dir / L"app.exe", c.bytes);
        EXPECT_EQ(Of(m_Dir / L"app.exe"), c.expected) << c.name;
    }
}

TEST_F(Hash, FindsFilesByUnusualPaths)
{
    std::filesystem::path deep = m_Dir.Path();
    for (int i = 0; i < 6; ++i)
        deep /= std::wstring(60, L'd');
    std::filesystem::create_directories(L"\\\\?\\" + deep.native());
    const std::filesystem::path unicode = m_Dir / L"\u65e5\u672c \u00fc.exe";
    const std::filesystem::path prefixed = L"\\\\?\\" + (deep / L"app.exe").native();
    WriteBytes(unicode, "abc");
    WriteBytes(prefixed, "abc");
    for (const auto& path : {unicode, prefixed, deep / L"app.exe", deep / L".." / deep.filename() / L".\\app.exe"})
        EXPECT_EQ(Of(path), "a9993e364706816aba3e25717850c26c9cd0d89d") << path;
}

TEST_F(Hash, SharesTheFileWithEverybody)
{
    WriteBytes(m_Dir / L"app.exe", "abc");
    const KxCommon::UniqueFile writer(::CreateFileW((m_Dir / L"app.exe").c_str(), GENERIC_WRITE | DELETE,
                                                    FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(writer);
    EXPECT_EQ(Of(m_Dir / L"app.exe"), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(Hash, ReportsTheErrorAndLeavesTheBytesAlone)
{
    WriteBytes(m_Dir / L"held.exe", "abc");
    const KxCommon::UniqueFile holder(
        ::CreateFileW((m_Dir / L"held.exe").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    const KxCommon::UniqueFile pipe(::CreateNamedPipeW(L"\\\\.\\pipe\\kx-hash-test", PIPE_ACCESS_DUPLEX,
                                                       PIPE_TYPE_BYTE | PIPE_WAIT, 1, 512, 512, 0, nullptr));
    ASSERT_TRUE(holder && pipe);
    const struct
    {
        std::filesystem::path path;
        const char* expected;
    } cases[] = {
        {m_Dir / L"missing.exe", "error 2"},
        {m_Dir / L"missing" / L"app.exe", "error 3"},
        {m_Dir / (std::wstring(200, L'x') + L"\\" + std::wstring(200, L'x')), "error 3"},
        {m_Dir.Path(), "error 5"},
        {m_Dir / L"held.exe", "error 32"},
        {L"\\\\.\\pipe\\kx-hash-test", "error 222"}, // would wait for ever
        {L"\\\\.\\C:", "error 222"},                 // a volume, which Wine, unlike Windows, does not call a disk file
    };
    for (const auto& c : cases)
        EXPECT_EQ(Of(c.path), c.expected) << c.path;

    uint8_t hash[20];
    EXPECT_EQ(m_GetHashValue(nullptr, hash), 87);
    EXPECT_EQ(m_GetHashValue(L"app.exe", nullptr), 87);
}

} // namespace
