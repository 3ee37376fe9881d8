#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugConfig.h"
#include "common/srclib/KxComn_Handle.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/TempDir.h"

namespace
{

using std::filesystem::path;
using Names = std::vector<std::wstring>;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct Library : LoadedLibrary
{
    using LoadedLibrary::LoadedLibrary;
    KxCommon::KxDbgInitializeFunction* Initialize = Find("KxDbgInitialize");
    KxCommon::KxDbgUninitializeFunction* Uninitialize = Find("KxDbgUninitialize");
    KxCommon::KxDbgTraceFunction* Trace = Find("KxDbgTrace");
    KxCommon::KxDbgSetDebugConfigFunction* SetConfig = Find("KxDbgSetDebugConfig");
    KxCommon::KxDbgGetDebugConfigFunction* GetConfig = Find("KxDbgGetDebugConfig");
};

// The library lies in a directory of the test's own, with its settings beside it and its logs below it.
class Trace : public testing::Test
{
protected:
    Trace() { m_Config.Head.dwUnit = 1; }

    /// A trace that is on, with its log beside the library, unless the keys say something else.
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
    // What lies in the directory and below it, without the library and its settings, sorted.
    [[nodiscard]] Names Files() const
    {
        Names files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Dir.Path()))
        {
            if (entry.is_regular_file() && !entry.path().filename().native().starts_with(L"Kx"))
                files.push_back(entry.path().lexically_relative(m_Dir.Path()).native());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    TempDir m_Dir;
    Library m_Library{TestFolder() / L"KxVqrDbg.dll", m_Dir.Path()};
    KxCommon::DebugConfigWide m_Config = {};
    uint64_t m_Handle = 0;
};

// The library looks at its settings once a second; ten times that is a fault.
template <class Condition>
bool Comes(Condition condition)
{
    for (const uint64_t end = ::GetTickCount64() + 10000; ::GetTickCount64() < end; ::Sleep(10))
        if (condition())
            return true;
    return false;
}

std::vector<std::string> LinesOf(const path& file)
{
    std::vector<std::string> lines;
    std::istringstream text(ReadBytes(file));
    for (std::string line; std::getline(text, line);)
    {
        EXPECT_TRUE(line.ends_with('\r')) << line;
        lines.push_back(line.substr(0, line.size() - 1));
    }
    return lines;
}

TEST_F(Trace, NamesTheLogAfterTheSettings)
{
    const std::wstring process = L"_p" + std::to_wstring(::GetCurrentProcessId());
    const std::tuple<const char*, uint32_t, std::wstring> rows[] = {
        {"", 1, L"VQR_KxPfw.log"},
        {"", 0, L"VQR_KxProxy.log"},
        {"", 2, L"VQR_KxProxy.log"},
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

TEST_F(Trace, WritesLinesAsUtf8)
{
    // Settings out of the record, for there is no file; a folder that the code page cannot express.
    const std::wstring folder = (m_Dir / L"\u65e5\u672c").native();
    m_Config.Head.bEnable = 1;
    std::memcpy(&m_Config.szLogFolder, folder.c_str(), folder.size() * 2);
    std::memcpy(&m_Config.szLogFile, L"log", 6);
    Start();
    const std::wstring longText(5000, L'x');
    for (const wchar_t* const line :
         {L"plain\r\n", L"\u00fc \u65e5\u672c \U0001F525\r\n", L"half \xd83d\r\n", L"", longText.c_str()})
        EXPECT_EQ(m_Library.Trace(m_Handle, nullptr, line), 0);
    EXPECT_EQ(ReadBytes(path(folder) / L"log"),
              "plain\r\n\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x94\xa5\r\nhalf \xef\xbf\xbd\r\n" +
                  std::string(5000, 'x'));
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
    EXPECT_EQ(Describe(Config()), "1 0 0 0 0 0 9 17 |PfwRule|c:\\temp\\|VQR_|service|log");
}

TEST_F(Trace, SeesTheSettingsChange)
{
    const auto level = [this] { return Config().Head.dwLevel + 0u; };
    const auto enabled = [this] { return Config().Head.bEnable != 0; };
    const auto log = [this](const wchar_t* name) { return ReadBytes(m_Dir / name); };
    const path file = m_Dir / L"KxPfw.ini";

    // The same size and, as on a coarse clock, the same time: one that is too young to tell anything.
    const auto time = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
    Settings("Enable=1\r\nLevel=273\r\nLogFile=a\r\n");
    std::filesystem::last_write_time(file, time);
    Start();
    EXPECT_EQ(Line(L"1"), 0);
    Settings("Enable=0\r\nLevel=273\r\nLogFile=a\r\n");
    std::filesystem::last_write_time(file, time);
    ASSERT_TRUE(Comes([&] { return !enabled(); }));
    EXPECT_EQ(Line(L"2"), 0);
    EXPECT_TRUE(KxCommon::UniqueFile(
        ::CreateFileW((m_Dir / L"VQR_a.log").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)))
        << "held although the trace is off";
    Settings("Enable=1\r\nLevel=256\r\nLogFile=a\r\n");
    ASSERT_TRUE(Comes([&] { return enabled() && level() == 256; }));
    EXPECT_EQ(Line(L"3"), 0);
    EXPECT_EQ(log(L"VQR_a.log"), "1\r\n3\r\n");

    // Settings of the host's own hold until the file changes; while it is being edited it does not count.
    KxCommon::DebugConfig config = Config();
    config.Head.dwLevel = 1;
    EXPECT_EQ(m_Library.SetConfig(m_Handle, &config), 0);
    {
        const KxCommon::UniqueFile editor(
            ::CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, TRUNCATE_EXISTING, 0, nullptr));
        ASSERT_TRUE(editor);
        for (const uint64_t end = ::GetTickCount64() + 1500; ::GetTickCount64() < end; ::Sleep(50))
            ASSERT_TRUE(level() == 1 && enabled());
    }
    Settings("Level=17\r\nLogFile=b\r\n");
    ASSERT_TRUE(Comes([&] { return level() == 17; }));
    EXPECT_EQ(Line(L"4"), 0);
    EXPECT_EQ(log(L"VQR_b.log"), "4\r\n");

    std::filesystem::rename(m_Dir / L"VQR_b.log", m_Dir / L"VQR_saved.log");
    ASSERT_TRUE(Comes([&] { return Line(L"5") == 0 && std::filesystem::exists(m_Dir / L"VQR_b.log"); }));
    std::filesystem::remove(file);
    ASSERT_TRUE(Comes([&] { return !enabled() && level() == 256; }));
}

TEST_F(Trace, KeepsOnePredecessorAndTheSizeLimit)
{
    Settings("LogFile=\r\nLogSizeLimit=1\r\n"); // raised to 4 kilobytes
    Start();
    int next = 100;
    const path log = m_Dir / L"VQR_.log";
    const path old = m_Dir / L"VQR_.log.old";
    const auto write = [&](int count) // lines of 100 bytes
    {
        int32_t error = 0;
        for (int i = 0; i < count && error == 0; ++i)
            error = Line(std::to_wstring(next++) + std::wstring(95, L'x'));
        return error;
    };
    // Predecessor and log hold the last lines without a gap.
    const auto check = [&](size_t oldLines, size_t lines)
    {
        std::vector<std::string> all = LinesOf(old);
        EXPECT_EQ(all.size(), oldLines);
        for (const std::string& line : LinesOf(log))
            all.push_back(line);
        EXPECT_EQ(all.size(), oldLines + lines);
        for (size_t i = 0; i < all.size(); ++i)
            ASSERT_EQ(std::stoi(all[i]), next - static_cast<int>(all.size() - i));
        EXPECT_EQ(Files(), (Names{L"VQR_.log", L"VQR_.log.old"}));
    };
    const auto hold = [&](DWORD share) {
        return KxCommon::UniqueFile(
            ::CreateFileW(old.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    };

    EXPECT_EQ(write(41), 0);
    EXPECT_EQ(Files(), Names{L"VQR_.log"});
    EXPECT_EQ(write(51), 0);
    check(41, 10);
    {
        const KxCommon::UniqueFile idle = hold(kShareAll); // a process that has not written since
        EXPECT_EQ(write(41), 0);
    }
    check(41, 10);
    {
        // An editor lets nobody rename it: the log grows, but not for ever.
        const KxCommon::UniqueFile editor = hold(FILE_SHARE_READ | FILE_SHARE_WRITE);
        EXPECT_EQ(write(1000), ERROR_FILE_TOO_LARGE);
        EXPECT_EQ(std::filesystem::file_size(log), 8200u);
    }
    ASSERT_TRUE(Comes([&] { return write(1) == 0; }));
    EXPECT_EQ(std::filesystem::file_size(old), 8200u);

    // Somebody sits on the mutex of the log: it grows, but goes on. Then the thread ends without letting go.
    std::wstring name = log.native();
    ::CharUpperW(name.data());
    uint64_t hash = 14695981039346656037u;
    for (const wchar_t unit : name)
        hash = (hash ^ unit) * 1099511628211u;
    const KxCommon::UniqueKernelObject mutex(
        ::OpenMutexW(SYNCHRONIZE, FALSE, (L"Global\\KxVqrDbg-" + std::to_wstring(hash)).c_str()));
    std::promise<DWORD> isHeld;
    std::promise<void> isDone;
    std::thread holder(
        [&]
        {
            isHeld.set_value(::WaitForSingleObject(mutex.get(), 10000));
            isDone.get_future().wait();
        });
    EXPECT_EQ(isHeld.get_future().get(), WAIT_OBJECT_0);
    EXPECT_EQ(write(91), 0);
    check(82, 10);
    isDone.set_value();
    holder.join();
    EXPECT_EQ(write(41), 0);
    check(41, 10);
}

// The other half of the next test: writes as the environment says, in two threads, once all are told to.
TEST(TraceProcess, DISABLED_Writes)
{
    const Library library(path(_wgetenv(L"KX_TRACE_LIBRARY")));
    const std::wstring tag = _wgetenv(L"KX_TRACE_TAG");
    const KxCommon::UniqueKernelObject start(::OpenEventW(SYNCHRONIZE, FALSE, _wgetenv(L"KX_TRACE_EVENT")));
    const KxCommon::DebugConfigWide config = {}; // KxPfw.ini has the settings
    uint64_t handle = 0;
    ASSERT_EQ(library.Initialize(&handle, &config), 0);
    const auto write = [&](const wchar_t* thread)
    {
        for (int i = 0; i < 1500; ++i)
        {
            const std::wstring filler(static_cast<size_t>(20 + i % 50), L'\u20ac');
            const std::wstring line = tag + thread + L" " + std::to_wstring(i) + L" " + filler + L"\r\n";
            ASSERT_EQ(library.Trace(handle, nullptr, line.c_str()), 0);
        }
    };
    ::WaitForSingleObject(start.get(), INFINITE);
    std::thread first(write, L"1");
    write(L"2");
    first.join();
}

TEST_F(Trace, ProcessesDoNotMixLines)
{
    const std::wstring event = L"kx-trace-" + std::to_wstring(::GetCurrentProcessId());
    ::SetEnvironmentVariableW(L"KX_TRACE_LIBRARY", (m_Dir / L"KxVqrDbg.dll").c_str());
    ::SetEnvironmentVariableW(L"KX_TRACE_EVENT", event.c_str());
    for (const size_t limit : {10240u, 16u}) // kilobytes
    {
        Settings("LogFile=" + std::to_string(limit) + "\r\nLogSizeLimit=" + std::to_string(limit) + "\r\n");
        const KxCommon::UniqueKernelObject start(::CreateEventW(nullptr, TRUE, FALSE, event.c_str()));
        std::vector<OtherProcess> writers;
        for (const wchar_t* const tag : {L"a", L"b", L"c"})
        {
            ::SetEnvironmentVariableW(L"KX_TRACE_TAG", tag);
            writers.emplace_back(L"Writes");
        }
        ::SetEvent(start.get());
        for (const OtherProcess& writer : writers)
            EXPECT_EQ(writer.ExitCode(), 0u);

        std::map<std::string, int> last; // by thread
        size_t lines = 0;
        for (const char* const end : {".log.old", ".log"})
        {
            const path file = m_Dir / ("VQR_" + std::to_string(limit) + end);
            EXPECT_LT(ReadBytes(file).size(), limit * 1024 + 300);
            for (const std::string& line : LinesOf(file))
            {
                const std::string name = line.substr(0, 2);
                const int number = std::atoi(line.c_str() + 2);
                std::string expected = name + " " + std::to_string(number) + " ";
                for (int i = 0; i < 20 + number % 50; ++i)
                    expected += "\xe2\x82\xac";
                ASSERT_EQ(line, expected);
                const auto [before, isFirst] = last.emplace(name, number);
                ASSERT_EQ(number, isFirst ? number : before->second + 1) << name;
                before->second = number;
                ++lines;
            }
        }
        EXPECT_TRUE(lines == 9000 || limit == 16) << lines;
    }
}

TEST_F(Trace, DropsLinesThatCannotBeWritten)
{
    WriteBytes(m_Dir / L"file", "");
    WriteBytes(m_Dir / L"victim", "precious");
    ASSERT_TRUE(::CreateHardLinkW((m_Dir / L"VQR_link.log").c_str(), (m_Dir / L"victim").c_str(), nullptr));
    const std::pair<const char*, int32_t> rows[] = {
        {"LogFolder=file\\below\r\n", 3},
        {"LogFolder=file\r\n", 3},
        {"LogFile=a?b\r\n", 123},
        {"LogFile=link\r\n", 5}, // a link to what only a service may write
        {"LogFolder=\\\\.\\\r\nLogPrefix=\r\nLogFile=NUL\r\nLogExtension=\r\n", 5},
    };
    for (const auto& [settings, expected] : rows)
    {
        Settings(settings);
        Start();
        ::SetLastError(4711);
        EXPECT_EQ(Line(L"x"), expected) << settings;
        EXPECT_EQ(Line(L"x"), expected) << settings;
        EXPECT_EQ(::GetLastError(), 4711u) << settings;
    }
    EXPECT_EQ(ReadBytes(m_Dir / L"victim"), "precious");
    Settings("LogFile=good\r\n");
    ASSERT_TRUE(Comes([this] { return Line(L"x") == 0; }));
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_good.log"), "x\r\n");
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
    EXPECT_EQ(m_Library.Uninitialize(m_Handle), 0);
    for (const uint64_t handle : {m_Handle, uint64_t{0}})
    {
        KxCommon::DebugConfig config = {};
        EXPECT_EQ(m_Library.Trace(handle, nullptr, L"x"), 6);
        EXPECT_EQ(m_Library.SetConfig(handle, &config), 6);
        EXPECT_EQ(m_Library.GetConfig(handle, &config), 6);
        EXPECT_EQ(m_Library.Uninitialize(handle), 6);
    }
}

TEST_F(Trace, RemovesTheOldestLogsOfOtherProcesses)
{
    Names expected = {L"VQR_KxPfw_p1.log.older", L"VQR_KxPfw_px.log", L"VQR_Kx_p1.log"};
    for (const std::wstring& other : expected)
        WriteBytes(m_Dir / other, "");
    const auto now = std::filesystem::file_time_type::clock::now();
    for (int i = 0; i < 26; ++i)
    {
        const std::wstring name =
            L"VQR_KxPfw_p" + std::to_wstring(9000000 + i / 2) + (i % 2 == 0 ? L".log" : L".log.old");
        WriteBytes(m_Dir / name, "");
        std::filesystem::last_write_time(m_Dir / name, now - std::chrono::hours(100 - i));
        if (i == 2 || i >= 6) // 26 less the 20 newest, less the one in use
            expected.push_back(name);
    }
    const KxCommon::UniqueFile inUse(::CreateFileW((m_Dir / L"VQR_KxPfw_p9000001.log").c_str(), FILE_APPEND_DATA,
                                                   kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(inUse);
    std::sort(expected.begin(), expected.end());
    Settings("LogProcess=1\r\n");
    Start();
    EXPECT_EQ(Files(), expected);
}

TEST_F(Trace, RemovesTheLogsOfProcessesWhoseNumbersBeginAsItsOwn)
{
    const std::wstring own = L"VQR_KxPfw_p" + std::to_wstring(::GetCurrentProcessId());
    for (int i = 100; i < 125; ++i)
        WriteBytes(m_Dir / (own + std::to_wstring(i)), "");
    Settings("LogProcess=1\r\nLogExtension=\r\n");
    Start();
    EXPECT_EQ(Files().size(), 20u);
}

} // namespace
