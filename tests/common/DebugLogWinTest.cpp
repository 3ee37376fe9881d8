#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugLog.h"
#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_Trace.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;

constexpr char kFile[] = "..\\dir/Some.cpp";

std::string Ascii(const std::wstring& wide)
{
    std::string text;
    for (const wchar_t unit : wide)
        text += static_cast<char>(unit);
    return text;
}

/// A text in a record that ends with NUL within its field.
std::string Field(const DebugConfigWide& config, size_t offset, size_t units)
{
    const std::wstring text = Record::WideText(reinterpret_cast<const unsigned char*>(&config) + offset, units);
    EXPECT_LT(text.size(), units);
    return Ascii(text);
}

class DebugLogTest : public testing::Test
{
protected:
    ~DebugLogTest() override { g_DebugLog.Uninitialize(); }

    /// The same settings in both sections, so that it does not matter who runs the tests.
    void WriteSettings(const std::string& lines) const
    {
        WriteBytes(m_Dir / "KxPfw.ini", "[InteractiveSession]\r\n" + lines + "[ServiceSession]\r\n" + lines);
    }
    [[nodiscard]] bool Initialize(uint32_t kind = Storage::kIniFile, const char* name = "PfwRule",
                                  uint32_t unit = 1) const
    {
        return g_DebugLog.Initialize(name, {kind, m_Location.c_str(), "KxPfw.ini"}, unit);
    }
    void StartWithAllLevels(const std::string& variant = "whole")
    {
        WriteSettings("Enable=1\r\nLevel=4294967295\r\n");
        m_Library = std::make_unique<TraceStandIn>(m_Dir.Path(), variant);
        ASSERT_TRUE(Initialize());
    }
    [[nodiscard]] TraceStandIn& Library() const { return *m_Library; }

    /// The message of the last line: what lies between the component's name and the place.
    [[nodiscard]] std::wstring LastMessage() const
    {
        const std::wstring& line = Library()->Lines.back().Text;
        const size_t begin = line.find(L"> ") + 2;
        return line.substr(begin, line.rfind(L" - ") - begin);
    }

    TempDir m_Dir;
    std::string m_Location = m_Dir.Path().string();
    std::unique_ptr<TraceStandIn> m_Library;
};

TEST_F(DebugLogTest, HandsTheSettingsOver)
{
    const std::string longText(300, 'x');
    struct Row
    {
        const char* Name;
        std::string Settings;
        uint32_t Unit;
        int Enable, Robust, Debugger;
        uint32_t LogProcess, LogUnitType, Level;
        std::string Folder, Prefix, File, Extension;
    };
    const Row rows[] = {
        {"nothing set", "", 1, 0, 0, 0, 0, 0, 256, "c:\\temp\\", "VQR_", "KxPfw", "log"},
        {"unit 0", "", 0, 0, 0, 0, 0, 0, 256, "c:\\temp\\", "VQR_", "KxProxy", "log"},
        {"unit 2", "", 2, 0, 0, 0, 0, 0, 256, "c:\\temp\\", "VQR_", "KxProxy", "log"},
        {"another unit", "", 3, 0, 0, 0, 0, 0, 256, "c:\\temp\\", "VQR_", "", "log"},
        {"everything set",
         "Enable=2\r\nLevel=273\r\nLogProcess=3\r\nLogUnitType=4\r\nLogFolder=d:\\logs\r\nLogPrefix=p\r\n"
         "LogFile=f\r\nLogExtension=txt\r\nRobust=1\r\nDebugger=7\r\n",
         1, 1, 1, 1, 3, 4, 273, "d:\\logs", "p", "f", "txt"},
        {"texts longer than their fields",
         "LogFolder=" + longText + "\r\nLogPrefix=" + longText + "\r\nLogFile=" + longText +
             "\r\nLogExtension=" + longText + "\r\n",
         1, 0, 0, 0, 0, 0, 256, longText.substr(0, 259), longText.substr(0, 255), longText.substr(0, 255),
         longText.substr(0, 255)},
    };
    m_Library = std::make_unique<TraceStandIn>(m_Dir.Path());
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.Name);
        WriteSettings(row.Settings);
        ASSERT_TRUE(Initialize(Storage::kIniFile, "a name of thirty-two characters.", row.Unit));
        const DebugConfigWide& config = Library()->Configs.back();
        EXPECT_EQ(config.Head.bServiceSession, IsServiceSession() ? 1 : 0);
        EXPECT_EQ(config.Head.bEnable, row.Enable);
        EXPECT_EQ(config.Head.bRobust, row.Robust);
        EXPECT_EQ(config.Head.bDebugger, row.Debugger);
        EXPECT_GE(uint16_t{config.Head.ReadTime.wYear}, 2024);
        EXPECT_EQ(uint32_t{config.Head.dwLogProcess}, row.LogProcess);
        EXPECT_EQ(uint32_t{config.Head.dwLogUnitType}, row.LogUnitType);
        EXPECT_EQ(uint32_t{config.Head.dwUnit}, row.Unit);
        EXPECT_EQ(uint32_t{config.Head.dwLevel}, row.Level);
        EXPECT_EQ(Field(config, 36, 32), "a name of thirty-two characters");
        EXPECT_EQ(Field(config, 100, 260), row.Folder);
        EXPECT_EQ(Field(config, 620, 256), row.Prefix);
        EXPECT_EQ(Field(config, 1132, 256), row.File);
        EXPECT_EQ(Field(config, 1644, 256), row.Extension);
        g_DebugLog.Uninitialize();
    }
}

TEST_F(DebugLogTest, AFailedStartLeavesNothingBehind)
{
    struct Row
    {
        const char* Name;
        const char* Variant; // null: no library; empty: a file that is none
        uint32_t Kind;
        int32_t Result;
        uint64_t Handle;
    };
    const Row rows[] = {
        {"no library", nullptr, Storage::kIniFile, 0, 1},
        {"a damaged library", "", Storage::kIniFile, 0, 1},
        {"a failing library", "whole", Storage::kIniFile, 5, 1},
        {"a null handle", "whole", Storage::kIniFile, 0, 0},
        {"no entry point", "no-initialize", Storage::kIniFile, 0, 1},
        {"an unknown storage", "whole", 2, 0, 1},
        {"another unknown storage", "whole", 0xFFFFFFFF, 0, 1},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.Name);
        m_Library.reset();
        WriteSettings("Enable=1\r\n");
        WriteBytes(m_Dir / "KxVqrDbg.dll", "MZ no library");
        if (row.Variant == nullptr)
            std::filesystem::remove(m_Dir / "KxVqrDbg.dll");
        else if (*row.Variant != '\0')
        {
            m_Library = std::make_unique<TraceStandIn>(m_Dir.Path(), row.Variant);
            Library()->InitializeResult = row.Result;
            Library()->Handle = row.Handle;
        }
        EXPECT_FALSE(Initialize(row.Kind));
        EXPECT_FALSE(g_TraceActive);
        EXPECT_FALSE(g_DebugLog.Trace(kFile, 1, kTraceError, "lost"));
        EXPECT_TRUE(m_Library == nullptr || (Library()->Lines.empty() && Library().Release()));
        EXPECT_FALSE(g_DebugLog.Uninitialize());
    }
}

TEST_F(DebugLogTest, EndsWithWhatItStarted)
{
    StartWithAllLevels();
    EXPECT_TRUE(g_TraceActive);
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, kTraceError, "written"));
    EXPECT_EQ(Library()->Lines.at(0).Handle, 0x1234567890u);
    EXPECT_TRUE(g_DebugLog.Uninitialize());
    EXPECT_FALSE(g_TraceActive);
    EXPECT_EQ(Library()->Ended, std::vector<uint64_t>{0x1234567890u});
    EXPECT_FALSE(g_DebugLog.Trace(kFile, 1, kTraceError, "lost"));
    EXPECT_FALSE(g_DebugLog.Uninitialize());
    EXPECT_EQ(Library()->Lines.size(), 1u);
    EXPECT_TRUE(Library().Release()) << "still loaded";
}

TEST_F(DebugLogTest, LooksLikeThis)
{
    struct Row
    {
        uint32_t Level;
        const char* Tag;
    };
    StartWithAllLevels();
    for (const Row& row : {Row{1, ".w."}, {16, "@@@"}, {256, "!!!"}, {2, "???"}, {0x80000000, "???"}, {17, "???"}})
    {
        EXPECT_TRUE(g_DebugLog.Trace(".\\dir/KxPfwRule.cpp", 52, row.Level, "%s Enter 100%%", "kxRuleInitialize"));
        EXPECT_TRUE(
            g_DebugLog.TraceWide(L".\\KxPfwRule.cpp", 52, row.Level, L"%s %S 100%%", L"kxRuleInitialize", "Enter"));
        const SYSTEMTIME& time = Library()->Lines.back().Time;
        char expected[200];
        ::snprintf(expected, sizeof expected,
                   "%02u/%02u/%04u %02u:%02u:%02u.%03u %04lx:%04lx %s <PfwRule> kxRuleInitialize Enter 100%% - "
                   "KxPfwRule.cpp(52)\r\n",
                   time.wDay, time.wMonth, time.wYear, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds,
                   ::GetCurrentProcessId(), ::GetCurrentThreadId(), row.Tag);
        const auto& lines = Library()->Lines;
        EXPECT_EQ(Ascii(lines.back().Text), expected);
        EXPECT_EQ(lines[lines.size() - 2].Text.substr(23), lines.back().Text.substr(23)) << "narrow and wide differ";
    }
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    EXPECT_EQ(Library()->Lines.back().Time.wYear, now.wYear);
    EXPECT_TRUE(g_DebugLog.Trace("NoFolder.cpp", 4294967295u, 1, "m"));
    EXPECT_TRUE(Library()->Lines.back().Text.ends_with(L"<PfwRule> m - NoFolder.cpp(4294967295)\r\n"));
}

TEST_F(DebugLogTest, MessagesFitOrAreLeftOut)
{
    StartWithAllLevels();
    for (const size_t length : {0, 255, 256, 1023, 1024, 4095, 4096, 100000})
    {
        const size_t expected = length > 4095 ? 0 : length;
        EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, "%s", std::string(length, 'n').c_str())) << length;
        EXPECT_EQ(LastMessage(), std::wstring(expected, L'n')) << length;
        EXPECT_TRUE(g_DebugLog.TraceWide(L"Some.cpp", 1, 1, L"%s", std::wstring(length, L'w').c_str())) << length;
        EXPECT_EQ(LastMessage(), std::wstring(expected, L'w')) << length;
    }
    struct Row
    {
        std::string Format;
        const wchar_t* Argument;
        const wchar_t* Expected;
    };
    const Row rows[] = {
        {"(%S)", L"C:\\app.exe", L"(C:\\app.exe)"},
        {"(%S)", L"\x65E5\x672C", L"(debug log error)"}, // no counterpart in the C library's locale
        {"%4090c%S", L"\x65E5\x672C", L"(debug log error)"},
    };
    for (const Row& row : rows)
    {
        if (row.Format[0] == '(')
            EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, row.Format.c_str(), row.Argument));
        else
            EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, row.Format.c_str(), 'x', row.Argument));
        EXPECT_EQ(LastMessage(), row.Expected) << row.Format;
    }
    const char* const noFormat = nullptr;
    const wchar_t* const noWideFormat = nullptr;
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, noFormat));
    EXPECT_EQ(LastMessage(), L"(debug log error) NULL _lpctszFormat");
    EXPECT_TRUE(g_DebugLog.TraceWide(nullptr, 1, 1, noWideFormat));
    EXPECT_EQ(LastMessage(), L"(debug log error) NULL _lpctszFormat");
}

TEST_F(DebugLogTest, WritesWhatTheSettingsOfTheMomentAllow)
{
    struct Row
    {
        const char* Name;
        int32_t ConfigResult;
        uint8_t Enable;
        uint32_t Mask;
        uint32_t Level;
        bool Result;
        bool IsWritten;
    };
    const Row rows[] = {
        {"as the file said: errors alone", 1, 9, 0xFF, 16, false, false},
        {"as the file said: errors", 1, 0, 0, 256, true, true},
        {"the library's mask counts", 0, 1, 17, 16, true, true},
        {"filtered out", 0, 1, 17, 256, false, false},
        {"what was told last stays", 1, 0, 0, 16, true, true},
        {"bit 1", 0, 1, 2, 2, true, true},
        {"disabled is success", 0, 0, 0xFFFFFFFF, 256, true, false},
        {"still disabled", 5, 1, 0xFFFFFFFF, 256, true, false},
        {"enabled again", 0, 9, 256, 256, true, true},
        {"no mask, no line", 0, 1, 0, 256, false, false},
    };
    WriteSettings("Enable=1\r\n");
    m_Library = std::make_unique<TraceStandIn>(m_Dir.Path());
    ASSERT_TRUE(Initialize());
    Library()->HasConfig = true;
    const int before = Library()->ConfigCount;
    for (const Row& row : rows)
    {
        Library()->ConfigResult = row.ConfigResult;
        Library()->Enable = row.Enable;
        Library()->Level = row.Mask;
        const size_t lines = Library()->Lines.size();
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, row.Level, "m"), row.Result) << row.Name;
        EXPECT_EQ(Library()->Lines.size() - lines, row.IsWritten ? 1u : 0u) << row.Name;
        EXPECT_EQ(g_DebugLog.Dump(kFile, 1, row.Level, "m", 1), row.Result) << row.Name;
    }
    EXPECT_EQ(Library()->ConfigCount - before, 2 * static_cast<int>(std::size(rows))) << "asked before every line";
}

TEST_F(DebugLogTest, WorksWithWhatTheLibraryHas)
{
    struct Row
    {
        const char* Variant;
        int32_t TraceResult;
        bool Result;
    };
    for (const Row& row :
         {Row{"no-trace", 0, false}, {"no-config", 0, true}, {"no-uninitialize", 0, true}, {"whole", 7, false}})
    {
        SCOPED_TRACE(row.Variant);
        StartWithAllLevels(row.Variant);
        Library()->TraceResult = row.TraceResult;
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, 2, "m"), row.Result);
        EXPECT_TRUE(g_DebugLog.Uninitialize());
        EXPECT_TRUE(Library().Release());
    }
}

TEST_F(DebugLogTest, ASecondStartReadsTheSettingsAgain)
{
    m_Location += "\\"; // with and without a separator it is the same folder
    StartWithAllLevels("no-config");
    WriteSettings("Enable=1\r\nLevel=16\r\n");
    EXPECT_TRUE(Initialize(Storage::kIniFile, "Second"));
    EXPECT_EQ(Library()->Configs.size(), 1u) << "the library is kept";
    EXPECT_FALSE(g_DebugLog.Trace(kFile, 1, 256, "m"));
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m"));
    EXPECT_NE(Library()->Lines.at(0).Text.find(L" @@@ <Second> m - "), std::wstring::npos);

    EXPECT_FALSE(Initialize(7, "Third")) << "an unknown storage";
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m")) << "the first start still counts";
    EXPECT_NE(Library()->Lines.at(1).Text.find(L" @@@ <Third> m - "), std::wstring::npos);
}

// 16 bytes to a row; what comes before the first row end is the line's head.
TEST_F(DebugLogTest, Dumps)
{
    StartWithAllLevels();
    const unsigned char bytes[] = "A \x00~\x7F\x80"
                                  "0123456789z"; // 17 bytes and the terminator
    EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, bytes, 17));
    EXPECT_EQ(LastMessage(), L">>> dump memory"
                             L"\r\n 41 20 00 7e 7f 80 30 31 32 33 34 35 36 37 38 39A .~..0123456789"
                             L"\r\n 7az");
    EXPECT_TRUE(g_DebugLog.DumpWide(L"Some.cpp", 9, 1, bytes, 17));
    EXPECT_EQ(Library()->Lines[0].Text.substr(23), Library()->Lines[1].Text.substr(23)) << "narrow and wide differ";
    for (const void* const data : {static_cast<const void*>(bytes), static_cast<const void*>(nullptr)})
    {
        EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, data, data == nullptr ? 5 : 0));
        EXPECT_EQ(LastMessage(), L">>> dump memory");
    }

    const std::string many(2000, 'x');
    EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, many.data(), 1800));
    EXPECT_EQ(LastMessage().find(L"???"), std::wstring::npos);
    EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, many.data(), 2000));
    const std::wstring message = LastMessage();
    const std::wstring head = L">>> dump memory\r\n??? size too big, dump 1800 bytes only!\r\n 78";
    EXPECT_EQ(message.substr(0, head.size()), head);
    size_t rows = 0;
    for (size_t at = message.find(L"\r\n 78"); at != std::wstring::npos; at = message.find(L"\r\n 78", at + 1))
        ++rows;
    EXPECT_EQ(rows, 113u);
    EXPECT_TRUE(message.ends_with(L"\r\n 78 78 78 78 78 78 78 78xxxxxxxx"));
}

TEST_F(DebugLogTest, LeavesTheCallersErrorsAlone)
{
    static const std::string s_Unmappable = "%S";
    StartWithAllLevels();
    Library()->LastError = 5;
    const std::pair<const char*, void (*)()> rows[] = {
        {"written", [] { KX_TRACE(kTraceDetail, "m"); }},
        {"written wide", [] { KX_TRACE_WIDE(kTraceDetail, L"m"); }},
        {"not formatted", [] { KX_TRACE(kTraceDetail, s_Unmappable.c_str(), L"\x65E5"); }},
        {"dumped", [] { g_DebugLog.Dump(kFile, 1, 1, "dump", 4); }},
        {"filtered out", [] { g_DebugLog.Trace(kFile, 1, 0, "m"); }},
    };
    for (const auto& [name, call] : rows)
    {
        ::SetLastError(1234);
        errno = 77;
        call();
        EXPECT_EQ(::GetLastError(), 1234u) << name;
        EXPECT_EQ(errno, 77) << name;
    }
    EXPECT_EQ(Library()->Lines.size(), 4u);
}

TEST_F(DebugLogTest, TheMacrosLeadHere)
{
    int evaluated = 0;
    KX_TRACE(kTraceError, "off %d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    StartWithAllLevels();
    KX_TRACE(kTraceError, "on %d", ++evaluated);
    EXPECT_EQ(LastMessage(), L"on 1");
    KX_TRACE_WIDE(kTraceError, L"on [%S] %s", "narrow", L"wide");
    EXPECT_EQ(LastMessage(), L"on [narrow] wide");
    EXPECT_NE(Library()->Lines.back().Text.find(L" - DebugLogWinTest.cpp("), std::wstring::npos);
}

TEST_F(DebugLogTest, EightThreadsWriteWholeLines)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 250;
    StartWithAllLevels();
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id)
    {
        threads.emplace_back(
            [id]
            {
                for (int i = 0; i < kLines; ++i)
                {
                    if (i % 2 == 0)
                        KX_TRACE(kTraceDetail, "[%d:%d]%s", id, i,
                                 std::string(static_cast<size_t>(id) * 40, 'x').c_str());
                    else
                        KX_TRACE_WIDE(kTraceDetail, L"[%d:%d]", id, i);
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(Library()->Overlapped);
    ASSERT_EQ(Library()->Lines.size(), size_t{kThreads} * kLines);
    std::vector<int> next(kThreads, 0);
    for (const TraceStandInState::Line& line : Library()->Lines)
    {
        int id = -1;
        int index = -1;
        const std::string text = Ascii(line.Text);
        ASSERT_EQ(std::sscanf(text.c_str() + text.find('['), "[%d:%d]", &id, &index), 2) << text;
        ASSERT_TRUE(id >= 0 && id < kThreads) << text;
        EXPECT_EQ(index, next[static_cast<size_t>(id)]++) << text;
        EXPECT_TRUE(text.ends_with(")\r\n")) << text;
    }
}

// The other half of the next test: ends with the trace up and a thread in the middle of it.
TEST_F(DebugLogTest, DISABLED_EndsTheProcessWhileTracing)
{
    StartWithAllLevels();
    Library()->OnDetach = []
    {
        KX_TRACE(kTraceError, "the library has gone down");
        g_DebugLog.Uninitialize();
        g_DebugLog.Initialize("PfwRule", {Storage::kIniFile, "", ""}, 1);
        ::TerminateProcess(::GetCurrentProcess(), 42);
    };
    std::thread(
        []
        {
            for (;;)
                KX_TRACE(kTraceDetail, "%s", std::string(4000, 'x').c_str());
        })
        .detach();
    while (Library()->ConfigCount < 100)
        ::SwitchToThread();
    ::ExitProcess(1);
}

TEST_F(DebugLogTest, AProcessMayEndWhileTracing)
{
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(self) +
                           L"\" --gtest_also_run_disabled_tests --gtest_filter=*DISABLED_EndsTheProcessWhileTracing";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES; // none: what it prints is of no interest
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(
        ::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process));
    const UniqueKernelObject owner(process.hProcess);
    const UniqueKernelObject threadOwner(process.hThread);
    if (::WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0)
        ::TerminateProcess(process.hProcess, 258); // hung
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process.hProcess, &exitCode);
    EXPECT_EQ(exitCode, 42u);
}

} // namespace
