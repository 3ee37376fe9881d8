#include <process.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugConfig.h"
#include "common/srclib/KxComn_Handle.h"

#include "tests/companions/Companion.h"
#include "tests/support/TempDir.h"

namespace
{

using std::filesystem::path;

// The library lies in a directory of the test's own, with its settings beside it and its logs below it.
class Trace : public testing::Test
{
protected:
    Trace() { m_Config.Head.dwUnit = 1; }

    void Settings(const std::string& keys, const char* section = "InteractiveSession") const
    {
        WriteBytes(m_Dir / L"KxPfw.ini", "[" + std::string(section) + "]\r\n" + keys);
    }
    void Start()
    {
        m_Uninitialize(m_Handle);
        ASSERT_EQ(m_Initialize(&m_Handle, &m_Config), 0);
        ASSERT_NE(m_Handle, 0u);
    }
    int32_t Line(const std::wstring& text) const { return m_Trace(m_Handle, nullptr, (text + L"\r\n").c_str()); }
    [[nodiscard]] KxCommon::DebugConfig Config() const
    {
        KxCommon::DebugConfig config;
        std::memset(&config, 0xa5, sizeof config);
        EXPECT_EQ(m_GetConfig(m_Handle, &config), 0);
        return config;
    }
    // What lies in the directory and below it, without the library and its settings, sorted.
    [[nodiscard]] std::vector<std::wstring> Files() const
    {
        std::vector<std::wstring> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Dir.Path()))
        {
            if (entry.is_regular_file() && !entry.path().filename().native().starts_with(L"Kx"))
                files.push_back(entry.path().lexically_relative(m_Dir.Path()).native());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    TempDir m_Dir;
    Companion m_Library{BinFolder() / L"KxVqrDbg.dll", m_Dir.Path()};
    KxCommon::KxDbgInitializeFunction* m_Initialize = m_Library.Find("KxDbgInitialize");
    KxCommon::KxDbgUninitializeFunction* m_Uninitialize = m_Library.Find("KxDbgUninitialize");
    KxCommon::KxDbgTraceFunction* m_Trace = m_Library.Find("KxDbgTrace");
    KxCommon::KxDbgSetDebugConfigFunction* m_SetConfig = m_Library.Find("KxDbgSetDebugConfig");
    KxCommon::KxDbgGetDebugConfigFunction* m_GetConfig = m_Library.Find("KxDbgGetDebugConfig");
    KxCommon::DebugConfigWide m_Config = {};
    uint64_t m_Handle = 0;
};

// The library looks at its settings once a second; ten times that is a fault.
template <class Condition>
bool Comes(Condition condition)
{
    for (const uint64_t end = ::GetTickCount64() + 10000; !condition(); ::Sleep(10))
    {
        if (::GetTickCount64() > end)
            return false;
    }
    return true;
}

// A thread that sits on the mutex of a log.
class MutexHolder
{
public:
    explicit MutexHolder(const path& log)
    {
        std::wstring name = log.native();
        ::CharUpperW(name.data());
        uint64_t hash = 14695981039346656037u;
        for (const wchar_t unit : name)
            hash = (hash ^ unit) * 1099511628211u;
        name = L"Global\\KxVqrDbg-" + std::to_wstring(hash);
        const HANDLE mutex = ::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name.c_str());
        EXPECT_NE(mutex, nullptr);
        std::promise<void> held;
        m_Thread = std::thread(
            [this, mutex, &held]
            {
                EXPECT_EQ(::WaitForSingleObject(mutex, 10000), WAIT_OBJECT_0);
                held.set_value();
                m_Done.get_future().wait();
                ::ReleaseMutex(mutex);
                ::CloseHandle(mutex);
            });
        held.get_future().wait();
    }
    ~MutexHolder()
    {
        m_Done.set_value();
        m_Thread.join();
    }

private:
    std::promise<void> m_Done;
    std::thread m_Thread;
};

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

TEST_F(Trace, NamesTheLogAsTheSettingsSay)
{
    const std::wstring pid = std::to_wstring(::GetCurrentProcessId());
    const struct
    {
        const char* settings;
        uint32_t unit;
        std::wstring expected;
    } cases[] = {
        {"", 1, L"VQR_KxPfw.log"},
        {"", 0, L"VQR_KxProxy.log"},
        {"", 2, L"VQR_KxProxy.log"},
        {"", 3, L"VQR_.log"},
        {"LogProcess=1", 1, L"VQR_KxPfw_p" + pid + L".log"},
        {"LogUnitType=1", 2, L"VQR_KxProxy_u2.log"},
        {"LogProcess=2\r\nLogUnitType=2", 1, L"VQR_KxPfw_u1_p" + pid + L".log"},
        {"LogPrefix=\r\nLogFile=rule store\r\nLogExtension=txt", 1, L"rule store.txt"},
        {"LogExtension=.trc", 1, L"VQR_KxPfw.trc"},
        {"LogExtension=", 1, L"VQR_KxPfw"},
        {"LogFolder=deep\\missing/folder", 1, L"deep\\missing\\folder\\VQR_KxPfw.log"},
    };
    for (const auto& c : cases)
    {
        Settings((std::string(c.settings).starts_with("LogFolder") ? "" : "LogFolder=\r\n") +
                 ("Enable=1\r\n" + std::string(c.settings)) + "\r\n");
        m_Config.Head.dwUnit = c.unit;
        Start();
        EXPECT_TRUE(Files().empty()) << "before the first line";
        EXPECT_EQ(Line(L"x"), 0) << c.settings;
        EXPECT_EQ(Files(), std::vector<std::wstring>{c.expected}) << c.settings;
        EXPECT_TRUE(std::filesystem::remove(m_Dir / c.expected)) << "the log in use cannot be deleted";
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
    EXPECT_EQ(Line(L"plain"), 0);
    EXPECT_EQ(Line(L"\u00fc \u65e5\u672c \U0001F525"), 0);
    EXPECT_EQ(Line(L"half \xd83d"), 0);
    EXPECT_EQ(m_Trace(m_Handle, nullptr, L""), 0);
    EXPECT_EQ(Line(std::wstring(5000, L'x')), 0);
    EXPECT_EQ(ReadBytes(path(folder) / L"log"),
              "plain\r\n\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x94\xa5\r\nhalf \xef\xbf\xbd\r\n" +
                  std::string(5000, 'x') + "\r\n");
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
    KxCommon::DebugConfig config = Config();
    const char head[] = {0, 1, 1, 1};
    EXPECT_EQ(std::memcmp(&config, head, 4), 0);
    const char numbers[] = "\x03\0\0\0\x04\0\0\0\x09\0\0\0\x11\x01\0";
    EXPECT_EQ(std::memcmp(reinterpret_cast<const char*>(&config) + 20, numbers, 16), 0);
    EXPECT_STREQ(config.szTraceName, "PfwRule");
    EXPECT_STREQ(config.szLogFolder, "d:\\logs");
    EXPECT_STREQ(config.szLogPrefix, "P");
    EXPECT_STREQ(config.szLogFile, "\xfc");
    EXPECT_STREQ(config.szLogExtension, "e");
    EXPECT_EQ(std::count(config.szLogExtension + 1, std::end(config.szLogExtension), 0), 255);

    m_Config.Head.bServiceSession = 1;
    Start();
    config = Config();
    EXPECT_EQ(config.Head.dwLevel + 0, 17u);
    EXPECT_EQ(config.Head.bServiceSession + config.Head.bEnable, 1);
    EXPECT_STREQ(config.szLogFolder, "c:\\temp\\");
    EXPECT_STREQ(config.szLogPrefix, "VQR_");
    EXPECT_STREQ(config.szLogFile, "service");
    EXPECT_STREQ(config.szLogExtension, "log");
}

TEST_F(Trace, SeesTheSettingsChange)
{
    const auto level = [this] { return Config().Head.dwLevel + 0u; };
    const auto enabled = [this] { return Config().Head.bEnable != 0; };

    // The same size and, as on a coarse clock, the same time: one that is too young to tell anything.
    const auto time = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
    Settings("Enable=1\r\nLevel=273\r\nLogFolder=\r\nLogFile=a\r\n");
    std::filesystem::last_write_time(m_Dir / L"KxPfw.ini", time);
    Start();
    EXPECT_EQ(Line(L"1"), 0);
    Settings("Enable=0\r\nLevel=273\r\nLogFolder=\r\nLogFile=a\r\n");
    std::filesystem::last_write_time(m_Dir / L"KxPfw.ini", time);
    ASSERT_TRUE(Comes([&] { return !enabled(); }));
    EXPECT_EQ(Line(L"2"), 0);
    Settings("Enable=1\r\nLevel=256\r\nLogFolder=\r\nLogFile=a\r\n");
    ASSERT_TRUE(Comes([&] { return enabled() && level() == 256; }));
    EXPECT_EQ(Line(L"3"), 0);
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_a.log"), "1\r\n3\r\n");

    // Settings of the host's own hold until the file changes.
    KxCommon::DebugConfig config = Config();
    config.Head.dwLevel = 1;
    EXPECT_EQ(m_SetConfig(m_Handle, &config), 0);
    {
        const KxCommon::UniqueFile editor(::CreateFileW((m_Dir / L"KxPfw.ini").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                                        nullptr, TRUNCATE_EXISTING, 0, nullptr));
        ASSERT_TRUE(editor);
        for (const uint64_t end = ::GetTickCount64() + 1500; ::GetTickCount64() < end; ::Sleep(50))
            ASSERT_TRUE(level() == 1 && enabled()) << "what is being edited does not count";
    }
    Settings("Enable=1\r\nLevel=17\r\nLogFolder=\r\nLogFile=b\r\n");
    ASSERT_TRUE(Comes([&] { return level() == 17; }));
    EXPECT_EQ(Line(L"4"), 0);
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_b.log"), "4\r\n");

    std::filesystem::rename(m_Dir / L"VQR_b.log", m_Dir / L"VQR_saved.log");
    ASSERT_TRUE(Comes([&] { return Line(L"5") == 0 && std::filesystem::exists(m_Dir / L"VQR_b.log"); }));
    std::filesystem::remove(m_Dir / L"KxPfw.ini");
    ASSERT_TRUE(Comes([&] { return !enabled() && level() == 256; }));
}

TEST_F(Trace, KeepsOnePredecessorAndTheSizeLimit)
{
    Settings("Enable=1\r\nLogFolder=\r\nLogFile=\r\nLogSizeLimit=1\r\n"); // raised to 4 kilobytes
    Start();
    int next = 100;
    const path log = m_Dir / L"VQR_.log";
    const path old = m_Dir / L"VQR_.log.old";
    const std::wstring filler(95, L'x'); // 100 bytes a line
    const auto write = [&](int count)
    {
        int32_t error = 0;
        for (int i = 0; i < count && error == 0; ++i)
            error = Line(std::to_wstring(next++) + filler);
        return error;
    };
    // Predecessor and log hold the last lines without a gap: 41 lines in the one, the rest in the other.
    const auto check = [&](size_t lines)
    {
        std::vector<std::string> all = LinesOf(old);
        EXPECT_EQ(all.size(), 41u);
        const std::vector<std::string> newest = LinesOf(log);
        EXPECT_EQ(newest.size(), lines);
        all.insert(all.end(), newest.begin(), newest.end());
        for (size_t i = 0; i < all.size(); ++i)
            EXPECT_EQ(std::stoi(all[i]), next - static_cast<int>(all.size() - i));
        EXPECT_EQ(Files(), (std::vector<std::wstring>{L"VQR_.log", L"VQR_.log.old"}));
    };

    EXPECT_EQ(write(41), 0);
    EXPECT_EQ(Files(), std::vector<std::wstring>{L"VQR_.log"});
    EXPECT_EQ(write(51), 0);
    check(10);

    const auto hold = [&](DWORD share) {
        return KxCommon::UniqueFile(
            ::CreateFileW(old.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr));
    };
    {
        // A process that has not written since still has the predecessor open.
        const KxCommon::UniqueFile idle = hold(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        EXPECT_EQ(write(41), 0);
    }
    check(10);
    {
        // An editor lets nobody rename it: the log grows, but not for ever.
        const KxCommon::UniqueFile editor = hold(FILE_SHARE_READ | FILE_SHARE_WRITE);
        EXPECT_EQ(write(1000), 223);
        EXPECT_EQ(std::filesystem::file_size(log), 8200u);
    }
    ASSERT_TRUE(Comes([&] { return Line(L"after") == 0; }));
    EXPECT_EQ(ReadBytes(log), "after\r\n");
    EXPECT_EQ(std::filesystem::file_size(old), 8200u);
    {
        // Somebody sits on the mutex of the log: it grows, but goes on.
        const MutexHolder holder(log);
        EXPECT_EQ(write(82), 0);
        EXPECT_EQ(std::filesystem::file_size(log), 8207u);
        EXPECT_EQ(write(10), 0);
    }
    EXPECT_EQ(LinesOf(log).size(), 10u);
    EXPECT_EQ(std::filesystem::file_size(old), 8207u);
}

class TraceProcesses : public Trace, public testing::WithParamInterface<int>
{
};

TEST_P(TraceProcesses, DoNotMixLines)
{
    constexpr int kCount = 1500;
    const int limit = GetParam(); // kilobytes
    Settings("Enable=1\r\nLogFolder=\r\nLogFile=\r\nLogSizeLimit=" + std::to_string(limit) + "\r\n");
    const std::wstring event = L"kx-trace-" + std::to_wstring(::GetCurrentProcessId());
    const KxCommon::UniqueKernelObject start(::CreateEventW(nullptr, TRUE, FALSE, event.c_str()));
    const std::wstring library = L"\"" + (m_Dir / L"KxVqrDbg.dll").native() + L"\"";
    const std::wstring count = std::to_wstring(kCount);
    std::vector<intptr_t> writers;
    for (const wchar_t* tag : {L"a", L"b", L"c"})
        writers.push_back(::_wspawnl(_P_NOWAIT, (BinFolder() / L"trace_writer.exe").c_str(), L"trace_writer",
                                     library.c_str(), event.c_str(), tag, count.c_str(), nullptr));
    ::SetEvent(start.get());
    for (const intptr_t writer : writers)
    {
        int code = 99;
        EXPECT_EQ(::_cwait(&code, writer, 0), writer);
        EXPECT_EQ(code, 0);
    }

    std::map<std::string, int> last; // by thread
    size_t lines = 0;
    for (const path& file : {m_Dir / L"VQR_.log.old", m_Dir / L"VQR_.log"})
    {
        EXPECT_LT(ReadBytes(file).size(), static_cast<size_t>(limit) * 1024 + 300);
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
    EXPECT_TRUE(lines == 6 * kCount || limit == 16) << lines;
}

INSTANTIATE_TEST_SUITE_P(Limits, TraceProcesses, testing::Values(10240, 16));

TEST_F(Trace, DropsLinesThatCannotBeWritten)
{
    WriteBytes(m_Dir / L"file", "");
    WriteBytes(m_Dir / L"victim", "precious");
    ASSERT_TRUE(::CreateHardLinkW((m_Dir / L"VQR_link.log").c_str(), (m_Dir / L"victim").c_str(), nullptr));
    const struct
    {
        const char* settings;
        int32_t expected;
    } cases[] = {
        {"LogFolder=file\\below\r\n", 3},
        {"LogFolder=file\r\n", 3},
        {"LogFolder=\r\nLogFile=a?b\r\n", 123},
        {"LogFolder=\r\nLogFile=link\r\n", 5}, // a link to what only a service may write
        {"LogFolder=\\\\.\\\r\nLogPrefix=\r\nLogFile=NUL\r\nLogExtension=\r\n", 5},
    };
    for (const auto& c : cases)
    {
        Settings("Enable=1\r\n" + std::string(c.settings));
        Start();
        ::SetLastError(4711);
        EXPECT_EQ(Line(L"x"), c.expected) << c.settings;
        EXPECT_EQ(Line(L"x"), c.expected) << c.settings;
        EXPECT_EQ(::GetLastError(), 4711u) << c.settings;
    }
    EXPECT_EQ(ReadBytes(m_Dir / L"victim"), "precious");

    Settings("Enable=1\r\nLogFolder=\r\nLogFile=good\r\n");
    ASSERT_TRUE(Comes([this] { return Line(L"x") == 0; }));
    EXPECT_EQ(ReadBytes(m_Dir / L"VQR_good.log"), "x\r\n");
}

TEST_F(Trace, RefusesBadCalls)
{
    EXPECT_EQ(m_Initialize(nullptr, &m_Config), 87);
    m_Handle = 5;
    EXPECT_EQ(m_Initialize(&m_Handle, nullptr), 87);
    EXPECT_EQ(m_Handle, 0u);
    Start();
    EXPECT_EQ(m_Trace(m_Handle, nullptr, nullptr), 87);
    EXPECT_EQ(m_SetConfig(m_Handle, nullptr), 87);
    EXPECT_EQ(m_GetConfig(m_Handle, nullptr), 87);
    EXPECT_EQ(m_Uninitialize(m_Handle), 0);
    for (const uint64_t handle : {m_Handle, uint64_t{0}})
    {
        KxCommon::DebugConfig config = {};
        EXPECT_EQ(m_Trace(handle, nullptr, L"x"), 6);
        EXPECT_EQ(m_SetConfig(handle, &config), 6);
        EXPECT_EQ(m_GetConfig(handle, &config), 6);
        EXPECT_EQ(m_Uninitialize(handle), 6);
    }
}

TEST_F(Trace, RemovesTheOldestLogsOfOtherProcesses)
{
    std::vector<std::wstring> expected = {L"VQR_KxPfw_p1.log.older", L"VQR_KxPfw_px.log", L"VQR_Kx_p1.log"};
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
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                   OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(inUse);
    std::sort(expected.begin(), expected.end());
    Settings("Enable=1\r\nLogProcess=1\r\nLogFolder=\r\n");
    Start();
    EXPECT_EQ(Files(), expected);
}

} // namespace
