#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugLog.h"
#include "common/srclib/KxComn_Settings.h"
#include "rules/HashDll.h"
#include "tests/standins/HashStandIn.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

class HashDllTest : public testing::Test
{
protected:
    HashDllTest()
    {
        const std::string location = m_Dir.Path().string();
        KxCommon::g_DebugLog.Initialize("Hash", {KxCommon::Storage::kIniFile, location.c_str(), "none.ini"}, 1);
        m_Trace->HasConfig = true;
        m_Trace->Enable = 1;
        m_Trace->Level = 0xFFFFFFFF;
    }
    ~HashDllTest() override { KxCommon::g_DebugLog.Uninitialize(); }

    RegistryGuard m_Registry;
    TempDir m_Dir;
    TraceStandIn m_Trace{m_Dir.Path()};
};

TEST_F(HashDllTest, LoadsFromTheInstallPathAlone)
{
    struct Row
    {
        const char* Name;
        DWORD Type; // REG_NONE: no value
        std::wstring InstallPath;
        const wchar_t* Line; // null: it loads
    };
    constexpr const wchar_t* kNoLibrary = L"!!! <Hash> CHashDll::Init load library error - HashDll.cpp(";
    constexpr const wchar_t* kNoFunction = L"!!! <Hash> CHashDll::Init GetProcAddress error - HashDll.cpp(";
    const TempDir broken;
    WriteBytes(broken / "KxHash.dll", "MZ no library");
    const TempDir bare;
    const HashStandIn bareLibrary(bare.Path(), "no-function");
    const std::wstring folder = m_Dir.Path().native();
    const HashStandIn library(m_Dir.Path()); // loaded by now, so that a bare name would find it
    const Row rows[] = {
        {"as it should be", REG_SZ, folder, nullptr},
        {"with a separator", REG_SZ, folder + L"\\", nullptr},
        {"missing", REG_NONE, L"", kNoLibrary},
        {"empty", REG_SZ, L"", kNoLibrary},
        {"another type", REG_EXPAND_SZ, folder, kNoLibrary},
        {"relative", REG_SZ, L".", kNoLibrary},
        {"the root of some drive", REG_SZ, L"\\", kNoLibrary},
        {"no such folder", REG_SZ, folder + L"\\none", kNoLibrary},
        {"not in the code page", REG_SZ, folder + L"\\\x0E01", kNoLibrary},
        {"no library", REG_SZ, broken.Path().native(), kNoLibrary},
        {"no function", REG_SZ, bare.Path().native(), kNoFunction},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.Name);
        m_Registry.Set(L"InstallPath", row.Type, row.InstallPath.c_str(), (row.InstallPath.size() + 1) * 2);
        const size_t before = m_Trace->Lines.size();
        CHashDll hash;
        EXPECT_EQ(hash.Init(), row.Line == nullptr);
        EXPECT_EQ(hash.IsReady(), row.Line == nullptr);
        ASSERT_EQ(m_Trace->Lines.size() - before, row.Line == nullptr ? 0u : 1u);
        EXPECT_TRUE(row.Line == nullptr || m_Trace->Lines.back().Text.find(row.Line) != std::wstring::npos);
    }
}

TEST_F(HashDllTest, HashesWhatARecordHolds)
{
    m_Registry.SetText(L"InstallPath", m_Dir.Path().native());
    HashStandIn library(m_Dir.Path());
    const std::wstring full(261, L'x'); // fills its field to the last unit
    unsigned char record[1 + 261 * 2 + 20 + 1];
    unsigned char* const name = record + 1; // an odd address
    unsigned char* const value = name + 522;
    for (const std::wstring& path : {std::wstring(L"C:\\Program Files\\\x65E5.exe"), full, std::wstring()})
    {
        for (const int32_t status : {0, 5, -1})
        {
            std::memset(record, 0xAA, sizeof record);
            std::memcpy(name, path.c_str(), std::min<size_t>(path.size() + 1, 261) * 2);
            library->Status = status;
            library.SetHash(0x5C);
            CHashDll hash;
            ASSERT_TRUE(hash.Init());
            EXPECT_EQ(hash.GetHashValue(name, value), status);
            EXPECT_EQ(library->Paths.back(), path);
            EXPECT_EQ(std::string(value, value + 20), std::string(20, '\x5C')) << "what it wrote stays";
            EXPECT_EQ(record[sizeof record - 1], 0xAA);
        }
    }
    EXPECT_EQ(library->Paths.size(), 9u);
    EXPECT_TRUE(library.Release()) << "released after every hash";
}

TEST(Settings, WriteInterval)
{
    struct Row
    {
        const char* Name;
        DWORD Type; // REG_NONE: no value
        std::string Bytes;
        uint32_t Expected;
    };
    const Row rows[] = {
        {"missing", REG_NONE, "", 1800000},
        {"a number", REG_DWORD, std::string("\x10\x27\0\0", 4), 10000},
        {"zero", REG_DWORD, std::string(4, '\0'), 0},
        {"the largest", REG_DWORD, "\xFF\xFF\xFF\xFF", 0xFFFFFFFF},
        {"too short", REG_DWORD, "\x10\x27", 1800000},
        {"too long", REG_DWORD, std::string("\x10\x27\0\0\0\0\0\0", 8), 1800000},
        {"another type", REG_BINARY, std::string("\x10\x27\0\0", 4), 1800000},
        {"a text", REG_SZ, std::string("\x31\0\0\0", 4), 1800000},
    };
    const RegistryGuard registry;
    for (const Row& row : rows)
    {
        if (row.Type != REG_NONE)
            registry.Set(L"RuleWriteInterval", row.Type, row.Bytes.data(), row.Bytes.size());
        EXPECT_EQ(KxCommon::Settings::WriteInterval(), row.Expected) << row.Name;
    }
}

TEST(Settings, InstallPathMayLackItsTerminator)
{
    const RegistryGuard registry;
    EXPECT_EQ(KxCommon::Settings::InstallPath(), L"");
    registry.Set(L"InstallPath", REG_SZ, L"C:\\\x65E5", 8);
    EXPECT_EQ(KxCommon::Settings::InstallPath(), L"C:\\\x65E5");
    registry.Set(L"InstallPath", REG_SZ, L"C:\\x\0y", 12);
    EXPECT_EQ(KxCommon::Settings::InstallPath(), L"C:\\x");
}

} // namespace
