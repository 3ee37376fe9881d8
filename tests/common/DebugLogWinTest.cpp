#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/trace/KxComn_DebugLog.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;

constexpr char kFile[] = "..\\dir/Some.cpp";

std::string Ascii(const std::wstring& wide)
{
    return {wide.begin(), wide.end()};
}

/// Expects that tracing leaves the caller's error numbers unchanged.
class ErrorsStay
{
public:
    ErrorsStay()
    {
        ::SetLastError(1234);
        errno = 77;
    }
    ~ErrorsStay() { EXPECT_TRUE(::GetLastError() == 1234 && errno == 77); }
};

class DebugLogTest : public testing::Test
{
protected:
    ~DebugLogTest() override { g_DebugLog.Uninitialize(); }

    /// The same settings in both sections, so that it does not matter who runs the tests.
    void WriteSettings(const std::string& lines) const
    {
        WriteBytes(m_Dir / "KxPfw.ini", "[InteractiveSession]\r\n" + lines + "[ServiceSession]\r\n" + lines);
    }
    bool Initialize(uint32_t kind = Storage::kIniFile, const char* name = "PfwRule", uint32_t unit = 1) const
    {
        return g_DebugLog.Initialize(name, {kind, m_Location.c_str(), "KxPfw.ini"}, unit);
    }
    void Start(const std::string& missing = "", const std::string& settings = "Enable=1\r\nLevel=4294967295\r\n")
    {
        WriteSettings(settings);
        m_Library = std::make_unique<TraceStandIn>(m_Dir.Path(), missing);
        ASSERT_TRUE(Initialize());
    }
    [[nodiscard]] TraceStandIn& Library() const { return *m_Library; }
    [[nodiscard]] std::string LastLine() const { return Ascii(Library()->Lines.back().Text); }
    /// The last line's message, with or without the source position after it.
    void ExpectMessage(const std::string& message) const
    {
        EXPECT_NE((LastLine() + " - ").find("> " + message + " - "), std::string::npos) << LastLine();
    }

    TempDir m_Dir;
    std::string m_Location = m_Dir.Path().string();
    std::unique_ptr<TraceStandIn> m_Library;
};

TEST_F(DebugLogTest, HandsTheSettingsOver)
{
    const std::string name = "a name of thirty-two characters"; // that less the terminator
    const std::string x(300, 'x'), x259(259, 'x'), x255(255, 'x');
    const std::tuple<std::string, uint32_t, std::string> rows[] = {
        {"", 1, "0 0 0 0 0 1 256 |" + name + "|c:\\temp\\|VQR_|KxPfw|log"},
        {"", 0, "0 0 0 0 0 0 256 |" + name + "|c:\\temp\\|VQR_|KxProxy|log"},
        {"", 2, "0 0 0 0 0 2 256 |" + name + "|c:\\temp\\|VQR_|KxProxy|log"},
        {"", 3, "0 0 0 0 0 3 256 |" + name + "|c:\\temp\\|VQR_||log"},
        {"Enable=2\r\nLevel=273\r\nLogProcess=3\r\nLogUnitType=4\r\nLogFolder=d:\\logs\r\nLogPrefix=p\r\n"
         "LogFile=f\r\nLogExtension=txt\r\nRobust=1\r\nDebugger=7\r\n",
         1, "1 1 1 3 4 1 273 |" + name + "|d:\\logs|p|f|txt"},
        {"LogFolder=" + x + "\r\nLogPrefix=" + x + "\r\nLogFile=" + x + "\r\nLogExtension=" + x + "\r\n", 1,
         "0 0 0 0 0 1 256 |" + name + '|' + x259 + '|' + x255 + '|' + x255 + '|' + x255},
    };
    m_Library = std::make_unique<TraceStandIn>(m_Dir.Path());
    for (const auto& [settings, unit, expected] : rows)
    {
        WriteSettings(settings);
        ASSERT_TRUE(Initialize(Storage::kIniFile, (name + ".").c_str(), unit));
        EXPECT_EQ(Describe(Library()->Configs.back()), (IsServiceSession() ? "1 " : "0 ") + expected);
        EXPECT_GE(uint16_t{Library()->Configs.back().Head.ReadTime.wYear}, 2024);
        g_DebugLog.Uninitialize();
    }
}

TEST_F(DebugLogTest, WorksWithWhatTheLibraryHasAndLeavesNothingBehind)
{
    const std::tuple<std::string, uint32_t, int32_t, uint64_t, int32_t, bool, bool> rows[] = {
        // what the library lacks, storage; result and handle of its start, result of its trace; whether it starts, and
        // whether it writes
        {"missing", 1, 0, 7, 0, false, false},
        {"damaged", 1, 0, 7, 0, false, false},
        {"KxDbgInitialize", 1, 0, 7, 0, false, false},
        {"", 1, 5, 7, 0, false, false},
        {"", 1, 0, 0, 0, false, false},
        {"", 2, 0, 7, 0, false, false},
        {"", 1, 0, 7, 0, true, true},
        {"", 1, 0, 7, 5, true, false},
        {"KxDbgTrace", 1, 0, 7, 0, true, false},
        {"KxDbgGetDebugConfig", 1, 0, 7, 0, true, true},
        {"KxDbgUninitialize", 1, 0, 7, 0, true, true},
    };
    WriteSettings("Enable=1\r\n");
    for (const auto& [missing, kind, startResult, handle, traceResult, starts, writes] : rows)
    {
        SCOPED_TRACE(testing::Message() << missing << kind << startResult << handle << traceResult);
        m_Library.reset();
        std::filesystem::remove(m_Dir / "KxVqrDbg.dll");
        if (missing == "damaged")
            WriteBytes(m_Dir / "KxVqrDbg.dll", "MZ no library");
        else if (missing != "missing")
        {
            m_Library = std::make_unique<TraceStandIn>(m_Dir.Path(), missing);
            Library()->InitializeResult = startResult;
            Library()->Handle = handle;
            Library()->TraceResult = traceResult;
        }
        EXPECT_EQ(Initialize(kind), starts);
        EXPECT_EQ(g_TraceActive, starts);
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, kTraceError, "m"), writes);
        EXPECT_EQ(g_DebugLog.Uninitialize(), starts);
        EXPECT_FALSE(g_TraceActive || g_DebugLog.Trace(kFile, 1, kTraceError, "lost") || g_DebugLog.Uninitialize());
        const bool isEnded = starts && missing != "KxDbgUninitialize";
        EXPECT_TRUE(m_Library == nullptr || Library()->Ended == std::vector<uint64_t>(isEnded ? 1 : 0, handle));
        EXPECT_TRUE(m_Library == nullptr || Library().Release()) << "still loaded";
    }
}

TEST_F(DebugLogTest, ALineLooksLikeThis)
{
    Start();
    const std::pair<uint32_t, const char*> rows[] = {{1, ".w."}, {16, "@@@"},         {256, "!!!"},
                                                     {2, "???"}, {0x80000000, "???"}, {17, "???"}};
    for (const auto& [level, tag] : rows)
    {
        EXPECT_TRUE(g_DebugLog.Trace(".\\dir/KxPfwRule.cpp", 52, level, "%s Enter 100%%", "kxRuleInitialize"));
        const std::string narrow = LastLine();
        EXPECT_TRUE(g_DebugLog.TraceWide(L"KxPfwRule.cpp", 52, level, L"%s %S 100%%", L"kxRuleInitialize", "Enter"));
        const SYSTEMTIME& time = Library()->Lines.back().Time;
        char expected[200];
        std::snprintf(expected, sizeof expected,
                      "%02u/%02u/%04u %02u:%02u:%02u.%03u %04lx:%04lx %s <PfwRule> kxRuleInitialize Enter 100%% - "
                      "KxPfwRule.cpp(52)\r\n",
                      time.wDay, time.wMonth, time.wYear, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds,
                      ::GetCurrentProcessId(), ::GetCurrentThreadId(), tag);
        EXPECT_EQ(LastLine(), expected);
        EXPECT_EQ(narrow.substr(23), LastLine().substr(23)) << "narrow and wide differ";
        EXPECT_EQ(Library()->Lines.back().Handle, 0x1234567890u);
    }
    Library()->LastError = 5;
    {
        const ErrorsStay errors;
        KX_TRACE(kTraceError, "by macro");
        ExpectMessage("by macro");
        KX_TRACE_WIDE(kTraceError, L"by [%S] %s", "wide", L"macro");
        ExpectMessage("by [wide] macro - DebugLogWinTest.cpp(" + std::to_string(__LINE__ - 1) + ")\r\n");
    }
    g_DebugLog.Uninitialize();
    int evaluated = 0;
    KX_TRACE(kTraceError, "off %d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

TEST_F(DebugLogTest, MessagesFitOrAreLeftOut)
{
    Start();
    for (const size_t length : {0, 255, 256, 1023, 1024, 4095, 4096, 100000})
    {
        EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, "%s", std::string(length, 'm').c_str())) << length;
        ExpectMessage(std::string(length > 4095 ? 0 : length, 'm'));
        EXPECT_TRUE(g_DebugLog.TraceWide(L"Some.cpp", 1, 1, L"%s", std::wstring(length, L'm').c_str())) << length;
        ExpectMessage(std::string(length > 4095 ? 0 : length, 'm'));
    }
    const std::tuple<const char*, int, const wchar_t*, const char*> rows[] = {
        {"%*s(%S)", 1, L"C:\\app.exe", "x(C:\\app.exe)"},
        // no counterpart in the C library's locale, near each buffer's end
        {"%*s(%S)", 1, L"\x65E5\x672C", "(debug log error)"},
        {"%*s(%S)", 300, L"\x65E5\x672C", "(debug log error)"},
        {"%*s(%S)", 4090, L"\x65E5\x672C", "(debug log error)"},
        {nullptr, 1, L"", "(debug log error) NULL _lpctszFormat"},
    };
    for (const auto& [format, width, text, expected] : rows)
    {
        const ErrorsStay errors;
        EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, format, width, "x", text));
        ExpectMessage(expected);
    }
    const wchar_t* const noFormat = nullptr;
    EXPECT_TRUE(g_DebugLog.TraceWide(nullptr, 1, 1, noFormat));
    ExpectMessage("(debug log error) NULL _lpctszFormat");
}

TEST_F(DebugLogTest, WritesWhatTheSettingsOfTheMomentAllow)
{
    const std::tuple<const char*, int32_t, uint8_t, uint32_t, uint32_t, bool, bool> rows[] = {
        // name; result, Enable and Level of the library's answer; level of the line, result, whether it is written
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
    Start("", "Enable=1\r\n");
    Library()->HasConfig = true;
    for (const auto& [name, configResult, enable, mask, level, result, isWritten] : rows)
    {
        Library()->ConfigResult = configResult;
        Library()->Enable = enable;
        Library()->Level = mask;
        Library()->LastError = 5;
        const size_t lines = Library()->Lines.size();
        const ErrorsStay errors;
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, level, "m"), result) << name;
        EXPECT_EQ(g_DebugLog.Dump(kFile, 1, level, "m", 1), result) << name;
        EXPECT_EQ(Library()->Lines.size() - lines, isWritten ? 2u : 0u) << name;
    }
}

TEST_F(DebugLogTest, ASecondStartReadsTheSettingsAgain)
{
    m_Location += "\\"; // with and without a separator it is the same folder
    Start("KxDbgGetDebugConfig");
    WriteSettings("Enable=1\r\nLevel=16\r\n");
    EXPECT_TRUE(Initialize(Storage::kIniFile, "Second"));
    EXPECT_EQ(Library()->Configs.size(), 1u) << "the library is kept";
    EXPECT_FALSE(g_DebugLog.Trace(kFile, 1, 256, "m"));
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m"));
    EXPECT_NE(LastLine().find(" @@@ <Second> m - "), std::string::npos);
    EXPECT_FALSE(Initialize(7, "Third")) << "an unknown storage";
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m")) << "the first start still counts";
    EXPECT_NE(LastLine().find(" @@@ <Third> m - "), std::string::npos);
}

TEST_F(DebugLogTest, Dumps)
{
    Start();
    const unsigned char bytes[] = "A \x00~\x7F\x80"
                                  "0123456789z";
    const std::string many(2000, 'x');
    std::string most; // 112 rows and a half
    for (int i = 0; i < 112; ++i)
        most += "\r\n 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78xxxxxxxxxxxxxxxx";
    most += "\r\n 78 78 78 78 78 78 78 78xxxxxxxx";
    const std::tuple<const void*, uint32_t, std::string> table[] = {
        {bytes, 17, "\r\n 41 20 00 7e 7f 80 30 31 32 33 34 35 36 37 38 39A .~..0123456789\r\n 7az"},
        {nullptr, 5, ""},
        {many.data(), 1800, most},
        {many.data(), 2000, "\r\n??? size too big, dump 1800 bytes only!" + most},
    };
    for (const auto& [data, size, expected] : table)
    {
        EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, data, size));
        ExpectMessage(">>> dump memory" + expected + " - Some.cpp(9)\r\n");
        EXPECT_TRUE(g_DebugLog.DumpWide(L"dir\\Some.cpp", 9, 1, data, size));
        ExpectMessage(">>> dump memory" + expected + " - Some.cpp(9)\r\n");
    }
}

TEST_F(DebugLogTest, EightThreadsDoNotMixLines)
{
    Start();
    std::vector<std::thread> threads;
    for (char id = 'a'; id < 'i'; ++id)
    {
        threads.emplace_back(
            [text = std::string(1000, id)]
            {
                for (int i = 0; i < 250; ++i)
                    KX_TRACE(kTraceDetail, "%s", text.c_str());
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(Library()->Overlapped);
    EXPECT_EQ(Library()->Lines.size(), 2000u);
    for (const TraceStandInState::Line& line : Library()->Lines)
    {
        const std::string text = Ascii(line.Text);
        const size_t begin = text.find("<PfwRule> ") + 10;
        ASSERT_EQ(text.find_first_not_of(text[begin], begin), begin + 1000);
    }
}

// The other half of the next test: ends with the trace up and a thread in the middle of it.
TEST_F(DebugLogTest, DISABLED_EndsTheProcessWhileTracing)
{
    Start();
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
    EXPECT_EQ(OtherProcess(L"EndsTheProcessWhileTracing").ExitCode(), 42u);
}

} // namespace
