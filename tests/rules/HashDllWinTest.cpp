#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Settings.h"
#include "rules/HashDll.h"
#include "tests/standins/HashStandIn.h"
#include "tests/standins/TraceRecorder.h"
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
    RegistryGuard m_Registry;
    TempDir m_Dir;
    TraceRecorder m_Trace;
};

TEST_F(HashDllTest, LoadsFromTheInstallPathAlone)
{
    const std::vector<std::string> loads, noLibrary = {"!!! CHashDll::Init load library error"},
                                          noFunction = {"!!! CHashDll::Init GetProcAddress error"};
    const TempDir broken;
    WriteBytes(broken / "KxHash.dll", "MZ no library");
    const TempDir bare;
    const HashStandIn bareLibrary(bare.Path(), "kxCfwGetHashValue");
    const std::wstring folder = m_Dir.Path().native();
    const HashStandIn library(m_Dir.Path()); // loaded by now, so that a bare name would find it
    const std::tuple<DWORD, std::wstring, std::vector<std::string>> rows[] = {
        // type and text of InstallPath; what is traced
        {REG_NONE, L"", noLibrary}, // none
        {REG_SZ, folder, loads},
        {REG_SZ, folder + L"\\", loads},
        {REG_SZ, L"", noLibrary},
        {REG_EXPAND_SZ, folder, noLibrary},
        {REG_SZ, L".", noLibrary},
        {REG_SZ, L"\\", noLibrary}, // the root of some drive
        {REG_SZ, folder + L"\\none", noLibrary},
        {REG_SZ, folder + L"\\\x0E01", noLibrary}, // not in the code page
        {REG_SZ, broken.Path().native(), noLibrary},
        {REG_SZ, bare.Path().native(), noFunction},
    };
    for (const auto& [type, path, lines] : rows)
    {
        SCOPED_TRACE(testing::PrintToString(path));
        if (type != REG_NONE)
            m_Registry.Set(L"InstallPath", type, path.c_str(), (path.size() + 1) * 2);
        CHashDll hash;
        EXPECT_EQ(hash.Init(), lines == loads);
        EXPECT_EQ(hash.IsReady(), lines == loads);
        EXPECT_EQ(m_Trace.Take(), lines);
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
