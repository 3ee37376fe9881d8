#include <cstring>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Settings.h"
#include "common/trace/KxComn_DebugLog.h"
#include "rules/HashDll.h"
#include "tests/standins/HashStandIn.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

bool IsClient()
{
    HANDLE token = nullptr;
    const bool isClient = ::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, &token) != FALSE;
    return KxCommon::UniqueKernelObject(token) && isClient;
}

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
    constexpr const wchar_t* kNoLibrary = L"!!! <Hash> CHashDll::Init load library error - HashDll.cpp(";
    constexpr const wchar_t* kNoFunction = L"!!! <Hash> CHashDll::Init GetProcAddress error - HashDll.cpp(";
    const TempDir broken;
    WriteBytes(broken / "KxHash.dll", "MZ no library");
    const TempDir bare;
    const HashStandIn bareLibrary(bare.Path(), "no-function");
    const std::wstring folder = m_Dir.Path().native();
    const HashStandIn library(m_Dir.Path()); // loaded by now, so that a bare name would find it
    const std::tuple<DWORD, std::wstring, const wchar_t*> rows[] = {
        // type and text of InstallPath; the line that is traced when it does not load
        {REG_NONE, L"", kNoLibrary}, // none
        {REG_SZ, folder, nullptr},
        {REG_SZ, folder + L"\\", nullptr},
        {REG_SZ, L"", kNoLibrary},
        {REG_EXPAND_SZ, folder, kNoLibrary},
        {REG_SZ, L".", kNoLibrary},
        {REG_SZ, L"\\", kNoLibrary}, // the root of some drive
        {REG_SZ, folder + L"\\none", kNoLibrary},
        {REG_SZ, folder + L"\\\x0E01", kNoLibrary}, // not in the code page
        {REG_SZ, broken.Path().native(), kNoLibrary},
        {REG_SZ, bare.Path().native(), kNoFunction},
    };
    for (const auto& [type, path, line] : rows)
    {
        SCOPED_TRACE(testing::PrintToString(path));
        if (type != REG_NONE)
            m_Registry.Set(L"InstallPath", type, path.c_str(), (path.size() + 1) * 2);
        const size_t before = m_Trace->Lines.size();
        CHashDll hash;
        EXPECT_EQ(hash.Init(), line == nullptr);
        EXPECT_EQ(hash.IsReady(), line == nullptr);
        ASSERT_EQ(m_Trace->Lines.size() - before, line == nullptr ? 0u : 1u);
        EXPECT_TRUE(line == nullptr || m_Trace->Lines.back().Text.find(line) != std::wstring::npos);
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
            library->SetHash(0x5C);
            CHashDll hash;
            ASSERT_TRUE(hash.Init());
            EXPECT_EQ(hash.GetHashValue(name, value), status);
            EXPECT_EQ(library->Paths.back(), path);
            EXPECT_EQ(std::string(value, value + 20), std::string(20, '\x5C')) << "what it wrote stays";
            EXPECT_EQ(record[sizeof record - 1], 0xAA);
        }
    }
    EXPECT_EQ(library->Paths.size(), 9u);

    // Even on an impersonating thread the library is called with the rights of the process.
    static bool s_IsClient = true;
    library->OnCall = [](const wchar_t*) { s_IsClient = IsClient(); };
    ASSERT_TRUE(::ImpersonateSelf(SecurityImpersonation));
    {
        CHashDll hash;
        EXPECT_TRUE(hash.Init() && hash.GetHashValue(name, value) == -1);
    }
    EXPECT_TRUE(!s_IsClient && IsClient());
    ::RevertToSelf();
    EXPECT_TRUE(library.Release()) << "released after every hash";
}

TEST(Settings, AreReadWithTheRightTypeAlone)
{
    using namespace std::string_literals;
    const std::tuple<DWORD, std::string, uint32_t> rows[] = {
        {REG_NONE, "", 1800000},             // none
        {REG_DWORD, "\x5F\xEA\0\0"s, 60000}, // not below a minute
        {REG_DWORD, "\x61\xEA\0\0"s, 60001},
        {REG_DWORD, "\xFF\xFF\xFF\xFF", 0xFFFFFFFF},
        {REG_DWORD, "\x10\x27", 1800000},
        {REG_DWORD, "\x10\x27\0\0\0\0\0\0"s, 1800000},
        {REG_BINARY, "\x10\x27\0\0"s, 1800000},
    };
    const RegistryGuard registry;
    for (const auto& [type, bytes, expected] : rows)
    {
        if (type != REG_NONE)
            registry.Set(L"RuleWriteInterval", type, bytes.data(), bytes.size());
        EXPECT_EQ(KxCommon::Settings::WriteInterval(), expected) << type << ' ' << bytes.size();
    }
    EXPECT_EQ(KxCommon::Settings::InstallPath(), L"");
    registry.Set(L"InstallPath", REG_SZ, L"C:\\\x65E5", 8); // no terminator
    EXPECT_EQ(KxCommon::Settings::InstallPath(), L"C:\\\x65E5");
}

} // namespace
