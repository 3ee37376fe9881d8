#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"
#include "common/trace/KxComn_DebugConfig.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

namespace
{

using std::filesystem::path;
using Names = std::set<std::wstring>;

struct Library : LoadedLibrary
{
    using LoadedLibrary::LoadedLibrary;
    KxCommon::KxDbgInitializeFunction* Initialize = Find("KxDbgInitialize");
    KxCommon::KxDbgUninitializeFunction* Uninitialize = Find("KxDbgUninitialize");
    KxCommon::KxDbgTraceFunction* Trace = Find("KxDbgTrace");
    KxCommon::KxDbgSetDebugConfigFunction* SetConfig = Find("KxDbgSetDebugConfig");
    KxCommon::KxDbgGetDebugConfigFunction* GetConfig = Find("KxDbgGetDebugConfig");
};

// The library is in a directory of the test's own, with its settings beside it and its logs below it.
class Trace : public testing::Test
{
protected:
    Trace() { m_Config.Head.dwUnit = 1; }

    /// A trace that is on, with its log beside the library, unless the keys say otherwise.
    void Settings(const std::string& keys) const
    {
        WriteBytes(m_Dir / L"KxPfw.ini", "[InteractiveSession]\r\n" + keys + "Enable=1\r\nLogFolder=\r\n");
    }
    void Start()
    {
        m_Library.Uninitialize(m_Handle);
        ASSERT_EQ(m_Library.Initialize(&m_Handle, &m_Config), 0);
        ASSERT_NE(m_Handle, 0u);
    }
    int32_t Line(const std::wstring& text) const
    {
        return m_Library.Trace(m_Handle, nullptr, (text + L"\r\n").c_str());
    }
    [[nodiscard]] KxCommon::DebugConfig Config() const
    {
        KxCommon::DebugConfig config;
        std::memset(&config, 0xa5, sizeof config);
        EXPECT_EQ(m_Library.GetConfig(m_Handle, &config), 0);
        return config;
    }
    // The contents of the directory and its subdirectories, without the library and its settings.
    [[nodiscard]] Names Files() const
    {
        Names files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Dir.Path()))
            if (entry.is_regular_file() && !entry.path().filename().native().starts_with(L"Kx"))
                files.insert(entry.path().lexically_relative(m_Dir.Path()).native());
        return files;
    }

    TempDir m_Dir;
    Library m_Library{TestFolder() / L"KxVqrDbg.dll", m_Dir.Path()};
    KxCommon::DebugConfigWide m_Config = {};
    uint64_t m_Handle = 0;
};

// The library checks its settings once a second; ten times that is a fault.
template <class Condition>
bool Comes(Condition condition)
{
    for (const uint64_t end = ::GetTickCount64() + 10000; ::GetTickCount64() < end; ::Sleep(10))
        if (condition())
            return true;
    return false;
}

path ServiceFolder()
{
    wchar_t folder[MAX_PATH] = {};
    ::GetSystemDirectoryW(folder, MAX_PATH);
    return path(folder) / L"LogFiles" / L"Quelvane" / "";
}

TEST_F(Trace, NamesTheLogAfterTheSettings)
{
    const std::wstring process = L"_p" + std::to_wstring(::GetCurrentProcessId());
    const std::tuple<const char*, uint32_t, std::wstring> rows[] = {
        {"", 0, L"VQR_KxProxy.log"},
        {"", 3, L"VQR_.log"},
        {"LogProcess=1\r\n", 1, L"VQR_KxPfw" + process + L".log"},
        {"LogUnitType=1\r\n", 2, L"VQR_KxProxy_u2.log"},
        {"LogProcess=2\r\nLogUnitType=2\r\n", 1, L"VQR_KxPfw_u1" + process + L".log"},
        {"LogPrefix=\r\nLogFile=rule store\r\nLogExtension=txt\r\n", 1, L"rule store.txt"},
        {"LogExtension=.trc\r\n", 1, L"VQR_KxPfw.trc"},
        {"LogExtension=\r\n", 1, L"VQR_KxPfw"},
        {"LogFolder=deep\\missing/folder\r\n", 1, L"deep\\missing\\folder\\VQR_KxPfw.log"},
    };
    for (const auto& [settings, unit, expected] : rows)
    {
        Settings(settings);
        m_Config.Head.dwUnit = unit;
        Start();
        EXPECT_EQ(Files(), Names{}) << "before the first line";
        EXPECT_EQ(Line(L"x"), 0) << settings;
        EXPECT_EQ(Files(), Names{expected}) << settings;
        EXPECT_TRUE(std::filesystem::remove(m_Dir / expected)) << "the log in use cannot be deleted";
    }
}

// As UTF-8, and nothing in a line can pass for another line: lines contain names from rules.
TEST_F(Trace, WritesLines)
{
    // Settings from the record, since there is no file; a folder that the code page cannot express.
    const std::wstring folder = (m_Dir / L"\u65e5\u672c").native();
    m_Config.Head.bEnable = 1;
    std::memcpy(&m_Config.szLogFolder, folder.c_str(), folder.size() * 2);
    std::memcpy(&m_Config.szLogFile, L"log", 6);
    Start();
    const std::pair<std::wstring, std::string> rows[] = {
        {L"\u00fc \u65e5\u672c \U0001F525\r\n", "\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x94\xa5\r\n"},
        {L"half \xd83d\r\n", "half \xef\xbf\xbd\r\n"},
        {L"", ""},
        {std::wstring(5000, L'x') + L"\r\n", std::string(5000, 'x') + "\r\n"},
        {L"(a\r\n01/01/2026 forged\r\x1b[2J\u202etxt.exe\t)\r\n", "(a..01/01/2026 forged..[2J.txt.exe\t)\r\n"},
        {L">>> dump memory\r\n??? size too big\r\n 41 42AB\r\n 43C\r\n",
         ">>> dump memory\r\n??? size too big\r\n 41 42AB\r\n 43C\r\n"},
    };
    std::string expected;
    for (const auto& [line, bytes] : rows)
    {
        EXPECT_EQ(m_Library.Trace(m_Handle, nullptr, line.c_str()), 0);
        EXPECT_EQ(ReadBytes(path(folder) / L"log"), expected += bytes);
    }
}

TEST_F(Trace, AnswersWithTheSectionOfTheSession)
{
    WriteBytes(m_Dir / L"KxPfw.ini",
               "[ServiceSession]\r\nLevel=17\r\nLogFile=service\r\n"
               "[InteractiveSession]\r\nEnable=7\r\nLevel=273\r\nLogProcess=3\r\nLogUnitType=4\r\n"
               "LogFolder=\"d:\\logs\"\r\nLogPrefix=P\r\nLogFile=\xfc\r\nLogExtension=e\r\n"
               "Robust=2\r\nDebugger=1\r\n");
    m_Config.Head.dwUnit = 9;
    std::memcpy(&m_Config.szTraceName, L"PfwRule", 14);
    Start();
    EXPECT_EQ(Describe(Config()), "0 1 1 1 3 4 9 273 |PfwRule|d:\\logs|P|#252|e");
    m_Config.Head.bServiceSession = 1;
    Start();
    EXPECT_EQ(Describe(Config()), "1 0 0 0 0 0 9 17 |PfwRule|" + ServiceFolder().string() + "|VQR_|service|log");
}

TEST_F(Trace, SeesTheSettingsChange)
{
    const auto comes = [this](uint8_t enable, uint32_t level)
    { return Comes([&] { return Config().Head.bEnable == enable && Config().Head.dwLevel == level; }); };
    Settings("Level=273\r\nLogFile=a\r\n");
    Start();
    EXPECT_EQ(Line(L"1"), 0);
    Settings("Enable=0\r\nLevel=273\r\nLogFile=a\r\n");
    ASSERT_TRUE(comes(0, 273));
    EXPECT_EQ(Line(L"2"), 0);
    EXPECT_TRUE(OpenExisting(m_Dir / L"VQR_a.log", 0)) << "held although the trace is off";
    Settings("Level=256\r\nLogFile=a\r\n");
    ASSERT_TRUE(comes(1, 256));
    EXPECT_EQ(Line(L"3"), 0);
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_a.log"), "1\r\n3\r\n");

    // Settings of the host's own hold until the file changes; while it is being edited it does not count.
    KxCommon::DebugConfig config = Config();
    config.Head.dwLevel = 1;
    EXPECT_EQ(m_Library.SetConfig(m_Handle, &config), 0);
    {
        WriteBytes(m_Dir / L"KxPfw.ini", "");
        const KxCommon::UniqueFile editor = OpenExisting(m_Dir / L"KxPfw.ini", 0);
        ASSERT_TRUE(editor);
        for (const uint64_t end = ::GetTickCount64() + 1500; ::GetTickCount64() < end; ::Sleep(50))
            ASSERT_TRUE(comes(1, 1));
    }
    Settings("Level=17\r\nLogFile=b\r\n");
    ASSERT_TRUE(comes(1, 17));
    EXPECT_EQ(Line(L"4"), 0);
    std::filesystem::rename(m_Dir / L"VQR_b.log", m_Dir / L"VQR_saved.log");
    EXPECT_TRUE(Comes([&] { return Line(L"5") == 0 && std::filesystem::exists(m_Dir / L"VQR_b.log"); }));
    std::filesystem::remove(m_Dir / L"KxPfw.ini");
    EXPECT_TRUE(comes(0, 256));
}

// Three sessions take turns, each with handles of its own, as processes would. (Windows puts a line at the end of the
// file in one step; Wine takes two, between which another one may write.)
TEST_F(Trace, KeepsOnePredecessorAndTheSizeLimit)
{
    for (const wchar_t* const old : {L"VQR_.log.old", L"VQR_.log.old.248.4711"}) // of earlier versions
        WriteBytes(m_Dir / old, "");
    Settings("LogFile=\r\nLogSizeLimit=1\r\n"); // raised to 4 kilobytes
    uint64_t sessions[3] = {};
    for (uint64_t& session : sessions)
        ASSERT_EQ(m_Library.Initialize(&session, &m_Config), 0);
    const path log = m_Dir / L"VQR_.log";
    int next = 100;
    const auto write = [&](int count) // lines of 100 bytes
    {
        int32_t error = 0;
        for (; count > 0 && error == 0; --count, ++next)
        {
            m_Handle = sessions[next % 3];
            error = Line(std::to_wstring(next) + std::wstring(95, L'x'));
        }
        return error;
    };
    const auto old = [this] { return m_Dir / *Files().rbegin(); };
    // Predecessor and log hold the last lines without a gap.
    const auto check = [&](size_t oldLines, size_t lines)
    {
        ASSERT_EQ(Files().size(), 2u);
        const std::string all = ReadBytes(old()) + ReadBytes(log);
        EXPECT_EQ(all.size(), (oldLines + lines) * 100);
        EXPECT_EQ(std::filesystem::file_size(log), lines * 100);
        for (size_t at = 0; at < all.size(); at += 100)
            ASSERT_EQ(std::stoi(all.substr(at, 100)), next - static_cast<int>((all.size() - at) / 100));
    };

    EXPECT_EQ(write(41), 0);
    EXPECT_EQ(Files().size(), 2u) << "an empty predecessor is left";
    EXPECT_EQ(write(51), 0);
    check(41, 10);
    {
        const KxCommon::UniqueFile idle = OpenExisting(old(), kShareAll); // a process that has not written since
        EXPECT_EQ(write(41), 0);
    }
    check(41, 10);
    {
        // An editor prevents renaming: the log grows, but not for ever.
        const KxCommon::UniqueFile editor = OpenExisting(log, FILE_SHARE_READ | FILE_SHARE_WRITE);
        EXPECT_EQ(write(1000), ERROR_FILE_TOO_LARGE);
        EXPECT_EQ(std::filesystem::file_size(log), 8200u);
    }
    ASSERT_TRUE(Comes([&] { return write(1) == 0; }));
    EXPECT_EQ(std::filesystem::file_size(old()), 8200u);
    for (const uint64_t session : sessions)
        m_Library.Uninitialize(session);
}

TEST_F(Trace, ThreadsDoNotMixLines)
{
    Settings("");
    Start();
    const std::wstring line(70, L'\u20ac');
    std::vector<std::jthread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back(
            [&]
            {
                for (int j = 0; j < 500; ++j)
                    EXPECT_EQ(Line(line), 0);
            });
    threads.clear(); // joins them
    const std::string all = ReadBytes(m_Dir / L"VQR_KxPfw.log");
    EXPECT_EQ(all.size(), 3000u * 212);
    for (size_t at = 0; at < all.size(); at += 212)
        ASSERT_EQ(all.substr(at, 212), all.substr(0, 210) + "\r\n");
}

TEST_F(Trace, DropsLinesThatCannotBeWritten)
{
    WriteBytes(m_Dir / L"file", "");
    const path link = TestFolder() / L"linked"; // to a folder "elsewhere"; both are made by the build
    ASSERT_TRUE(std::filesystem::exists(link));
    const std::tuple<std::string, int32_t, int32_t> rows[] = {
        // settings, an error, or another one
        {"LogFolder=file\\below\r\n", 123, 267},
        {"LogFolder=file\r\n", 123, 267},
        {"LogFile=a?b\r\n", 123, 123},
        {"LogFile=.\\x\r\n", 123, 123},
        {"LogFolder=" + link.string() + "\r\n", 5, 5}, // by somebody who wants a service to write elsewhere
        {"LogFolder=" + link.string() + "\\below\r\n", 5, 5},
        {"LogFolder=\\\\.\\\r\nLogPrefix=\r\nLogFile=NUL\r\nLogExtension=\r\n", 3, 123},
    };
    for (const auto& [settings, expected, other] : rows)
    {
        Settings(settings);
        Start();
        ::SetLastError(4711);
        const int32_t first = Line(L"x"), second = Line(L"x");
        EXPECT_EQ(::GetLastError(), 4711u) << settings;
        EXPECT_TRUE(first == second && (first == expected || first == other)) << first << ' ' << second << settings;
    }
    EXPECT_FALSE(std::filesystem::remove(link / L"VQR_KxPfw.log"));
    EXPECT_EQ(std::filesystem::remove_all(link / L"below"), 0u);
    Settings("LogFile=good\r\n");
    ASSERT_TRUE(Comes([this] { return Line(L"x") == 0; }));
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_good.log"), "x\r\n");
}

// Something else under the log's name gets a number, and a new log begins.
TEST_F(Trace, BeginsAnewWhereSomethingElseStands)
{
    const std::wstring name(220, L'n'); // near the classic limit of a path
    const path log = path(L"\\\\?\\" + m_Dir.Path().native()) / (L"VQR_" + name + L".log");
    WriteBytes(m_Dir / L"victim", "precious");
    Settings("LogFile=" + std::string(220, 'n') + "\r\n");
    ASSERT_TRUE(::CreateHardLinkW(log.c_str(), (m_Dir / L"victim").c_str(), nullptr));
    Start();
    EXPECT_EQ(Line(L"x"), 0);
    m_Library.Uninitialize(m_Handle);
    ASSERT_TRUE(::DeleteFileW(log.c_str()) && ::CreateDirectoryW(log.c_str(), nullptr));
    Start();
    EXPECT_EQ(Line(L"y"), 0);
    EXPECT_EQ(ReadBytes(log), "y\r\n");
    EXPECT_EQ(ReadBytes(m_Dir / L"victim"), "precious");
}

TEST_F(Trace, AServiceWritesWhereNobodyElseMay)
{
    m_Config.Head.bServiceSession = 1;
    m_Config.Head.bEnable = 1;
    std::memcpy(&m_Config.szLogFolder, L"c:\\temp\\", 18); // what the tracing side says when nobody says anything
    const std::wstring name = L"KxTest" + std::to_wstring(::GetCurrentProcessId());
    std::memcpy(&m_Config.szLogFile, name.c_str(), name.size() * 2);
    Start();
    EXPECT_EQ(Line(L"x"), 0);
    EXPECT_EQ(ReadBytes(ServiceFolder() / name), "x\r\n");
    Start();
    EXPECT_TRUE(std::filesystem::remove(ServiceFolder() / name));
    ASSERT_TRUE(::ImpersonateSelf(SecurityAnonymous)); // for a client whom the system does not let go of
    EXPECT_EQ(Line(L"x"), ERROR_ACCESS_DENIED);
    ::RevertToSelf();
}

TEST_F(Trace, RefusesBadCalls)
{
    EXPECT_EQ(m_Library.Initialize(nullptr, &m_Config), 87);
    m_Handle = 5;
    EXPECT_EQ(m_Library.Initialize(&m_Handle, nullptr), 87);
    EXPECT_EQ(m_Handle, 0u);
    Start();
    EXPECT_EQ(m_Library.Trace(m_Handle, nullptr, nullptr), 87);
    EXPECT_EQ(m_Library.SetConfig(m_Handle, nullptr), 87);
    EXPECT_EQ(m_Library.GetConfig(m_Handle, nullptr), 87);
    KxCommon::DebugConfig config = {};
    for (const int32_t expected : {0, 6}) // while it is there, and once it is not
    {
        EXPECT_EQ(m_Library.Trace(m_Handle, nullptr, L""), expected);
        EXPECT_EQ(m_Library.SetConfig(m_Handle, &config), expected);
        EXPECT_EQ(m_Library.GetConfig(m_Handle, &config), expected);
        EXPECT_EQ(m_Library.Uninitialize(m_Handle), expected);
    }
}

TEST_F(Trace, RemovesTheOldestLogsOfOtherProcesses)
{
    const std::wstring own = L"VQR_KxPfw_p" + std::to_wstring(::GetCurrentProcessId());
    Names expected = {L"VQR_KxPfw_p1.log.older", L"VQR_KxPfw_px.log", L"VQR_Kx_p1.log"};
    for (const std::wstring& other : expected)
        WriteBytes(m_Dir / other, "");
    expected.insert(own + L".log");
    const auto now = std::filesystem::file_time_type::clock::now();
    for (int i = 0; i < 26; ++i) // of others whose numbers begin as this process's, and of their predecessors
    {
        const std::wstring name = own + std::to_wstring(10 + i / 2) + (i % 2 == 0 ? L".log" : L".log.old.7");
        WriteBytes(m_Dir / name, "");
        std::filesystem::last_write_time(m_Dir / name, now - std::chrono::hours(100 - i));
        if (i == 2 || i >= 6) // 26 less the 20 newest, less the one in use
            expected.insert(name);
    }
    KxCommon::UniqueFile inUse = OpenExisting(m_Dir / (own + L"11.log"), kShareAll);
    ASSERT_TRUE(inUse);
    Settings("LogProcess=1\r\n");
    Start();
    EXPECT_EQ(Line(L"x"), 0);
    inUse.reset(); // otherwise a deleted file keeps its name
    EXPECT_EQ(Files(), expected);
}

} // namespace
