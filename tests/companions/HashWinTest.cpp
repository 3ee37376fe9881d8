#include "companions/hash/KxHash.h"

#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"
#include "tests/standins/StandIn.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

constexpr char kAbc[] = "a9993e364706816aba3e25717850c26c9cd0d89d"; // three bytes, "abc"

class Hash : public testing::Test
{
protected:
    // The hash in hexadecimal, or the status if there is none; the bytes must then be unchanged.
    std::string Of(const std::filesystem::path& file)
    {
        std::string hash(22, '#');
        const int32_t status = m_GetHashValue(file.c_str(), reinterpret_cast<uint8_t*>(hash.data()) + 1);
        EXPECT_TRUE(hash.starts_with('#') && hash.ends_with('#'));
        EXPECT_TRUE(status == 0 || hash == std::string(22, '#'));
        std::string text;
        for (const char byte : hash.substr(1, 20))
            text += {"0123456789abcdef"[byte >> 4 & 15], "0123456789abcdef"[byte & 15]};
        return status == 0 ? text : std::to_string(status);
    }
    TempDir m_Dir;
    LoadedLibrary m_Library{TestFolder() / L"KxHash.dll"};
    decltype(&kxCfwGetHashValue) m_GetHashValue = m_Library.Find("kxCfwGetHashValue");
};

TEST_F(Hash, GivesThePublishedValues)
{
    const std::pair<std::string, const char*> rows[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", kAbc},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        {std::string(3 * 1024 * 1024 + 1, '\0'), "2742f09dd969e64d4f424f031d65ce7f497095d0"}, // sha1sum
    };
    for (const auto& [bytes, expected] : rows)
    {
        WriteBytes(m_Dir / L"app.exe", bytes);
        EXPECT_EQ(Of(m_Dir / L"app.exe"), expected) << bytes.size();
    }
}

// The hash of a file of three bytes through each of its paths, or the Windows error of a path that is not a file.
TEST_F(Hash, TakesAnyPathToAFileAndNothingElse)
{
    const std::wstring d(60, L'd');
    const std::filesystem::path deep = m_Dir / d / d / d / d / d / d;
    const std::wstring prefixed = L"\\\\?\\" + (deep / L"app.exe").native();
    std::filesystem::create_directories(L"\\\\?\\" + deep.native());
    for (const std::filesystem::path& file : {std::filesystem::path(prefixed), m_Dir / L"\u65e5\u672c \u00fc.exe",
                                              m_Dir / L"open.exe", m_Dir / L"held.exe"})
        WriteBytes(file, "abc");
    const KxCommon::UniqueFile writer = OpenExisting(m_Dir / L"open.exe", FILE_SHARE_READ, GENERIC_WRITE | DELETE);
    const KxCommon::UniqueFile holder = OpenExisting(m_Dir / L"held.exe", 0);
    const KxCommon::UniqueFile pipe(::CreateNamedPipeW(L"\\\\.\\pipe\\kx-hash-test", PIPE_ACCESS_DUPLEX,
                                                       PIPE_TYPE_BYTE | PIPE_WAIT, 1, 512, 512, 0, nullptr));
    ASSERT_TRUE(writer && holder && pipe);
    WriteBytes(m_Dir / L"huge.exe", "");
    std::filesystem::resize_file(m_Dir / L"huge.exe", uint64_t{1} << 32);
    const std::pair<std::filesystem::path, const char*> rows[] = {
        {m_Dir / L"\u65e5\u672c \u00fc.exe", kAbc},
        {m_Dir / L"open.exe", kAbc},
        {prefixed, kAbc},
        {deep / L"app.exe", kAbc},
        {deep / L".." / d / L".\\app.exe", kAbc},
        {m_Dir / L"missing.exe", "2"},
        {m_Dir / L"missing" / L"app.exe", "3"},
        {deep / L"missing" / d, "3"},
        {m_Dir.Path(), "5"},
        {m_Dir / L"held.exe", "32"},
        {L"\\\\.\\pipe\\kx-hash-test", "222"}, // would wait for ever
        {L"\\\\.\\C:", "222"},
        {m_Dir / L"huge.exe", "223"}, // would take a minute
        {L"\\\\server\\share\\app.exe", "65"},
        {L"//server/share/app.exe", "65"},
        {L"\\\\?\\unc\\server\\share\\app.exe", "65"},
        {L"\\\\?\\GLOBALROOT\\Device\\Mup\\server\\share\\app.exe", "222"},
    };
    for (const auto& [path, expected] : rows)
        EXPECT_EQ(Of(path), expected) << path;
    const RegistryGuard registry;
    registry.SetNumber(L"HashNetworkFiles", 1);
    EXPECT_NE(Of(L"\\\\server\\share\\app.exe"), "65") << "let in and not found";
    uint8_t hash[20];
    EXPECT_EQ(m_GetHashValue(nullptr, hash), 87);
    EXPECT_EQ(m_GetHashValue(L"app.exe", nullptr), 87);
}

// Another program writes all the time; the call ends all the same, without the hash of a mixture.
TEST_F(Hash, GivesUpOnAFileThatChanges)
{
    WriteBytes(m_Dir / L"app.exe", "");
    std::filesystem::resize_file(m_Dir / L"app.exe", 48 << 20);
    for (const DWORD access : {FILE_APPEND_DATA, FILE_WRITE_DATA}) // longer, and of the same length
    {
        const KxCommon::UniqueFile file = OpenExisting(m_Dir / L"app.exe", kShareAll, access | SYNCHRONIZE);
        ASSERT_TRUE(file);
        const std::jthread writer(
            [&](const std::stop_token& stop)
            {
                for (DWORD written = 0; !stop.stop_requested(); ::Sleep(1))
                    ::WriteFile(file.get(), "x", 1, &written, nullptr);
            });
        EXPECT_EQ(Of(m_Dir / L"app.exe"), "1237") << access;
    }
}

// A file is read once as long as it stays as it is, and never again taken for what it was.
TEST_F(Hash, RemembersOneVersionOfAFile)
{
    enum
    {
        BeingWritten,
        Written,
        WrittenWithOldTimes,
        ReplacedWithOldTimes,
        Ways
    };
    const auto file = [this](int way) { return m_Dir / std::to_wstring(way); };
    for (int way = 0; way < Ways; ++way)
        WriteBytes(file(way), "abc");
    ::Sleep(3100); // what has just been changed is not remembered: it could change again at the same time
    for (int way = 0; way < Ways; ++way)
    {
        EXPECT_EQ(Of(file(way)), kAbc) << way;
        EXPECT_EQ(Of(file(way)), kAbc) << way;
        const std::filesystem::path target = way == ReplacedWithOldTimes ? m_Dir / "other" : file(way);
        FILETIME times[3];
        EXPECT_TRUE(::GetFileTime(OpenExisting(file(way), kShareAll).get(), &times[0], &times[1], &times[2]));
        KxCommon::UniqueFile writer(
            ::CreateFileW(target.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_ALWAYS, 0, nullptr));
        DWORD written = 0;
        EXPECT_TRUE(::WriteFile(writer.get(), "abd", 3, &written, nullptr));
        // To the last digit, which std::filesystem does not keep.
        EXPECT_TRUE(way < WrittenWithOldTimes || ::SetFileTime(writer.get(), &times[0], &times[1], &times[2]));
        if (way != BeingWritten)
            writer.reset();
        if (target != file(way))
            std::filesystem::rename(target, file(way));
        EXPECT_EQ(Of(file(way)), "cb4cc28df0fdbe0ecf9d9662e294b118092a5735") << way;
    }
    EXPECT_FALSE(m_Library.Release()) << "what is remembered would be lost";
}

} // namespace
