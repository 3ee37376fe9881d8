#include <cctype>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Registry.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/trace/KxComn_DebugLog.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/RegistryGuard.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;

constexpr char kFile[] = "..\\dir/Some.cpp";

std::string Ascii(const std::wstring& wide)
{
    return {wide.begin(), wide.end()};
}

class DebugLogTest : public testing::Test
{
protected:
    ~DebugLogTest() override { g_DebugLog.Uninitialize(); }

    /// The same settings for both kinds of session, so that it does not matter who runs the tests.
    void WriteSettings(const std::string& lines) const
    {
        WriteBytes(m_Location + "\\KxPfw.ini", "[InteractiveSession]\n" + lines + "[ServiceSession]\n" + lines);
    }
    /// Likewise in the registry; what begins with a digit is a number.
    void WriteKeys(const std::string& lines) const
    {
        std::istringstream stream(lines);
        for (std::string name, text; std::getline(stream, name, '=') && std::getline(stream, text);)
        {
            for (const char* const section : {"InteractiveSession", "ServiceSession"})
            {
                Storage::Registry key;
                key.OpenForWriting({Storage::kRegistry, m_Location.c_str(), nullptr}, section, Storage::kSystemView);
                std::isdigit(text[0]) != 0 ? key.WriteNumber(name.c_str(), std::stoul(text))
                                           : key.WriteString(name.c_str(), text.c_str());
            }
        }
    }
    bool Initialize(uint32_t kind = Storage::kIniFile, const char* name = "PfwRule", uint32_t unit = 1) const
    {
        return g_DebugLog.Initialize(name, {kind, m_Location.c_str(), "KxPfw.ini"}, unit);
    }
    void Start(const std::string& settings = "Enable=1\nLevel=4294967295\n") const
    {
        WriteSettings(settings);
        ASSERT_TRUE(Initialize());
    }
    /// What follows the name of the trace, with or without the source position, in the lines since the last call.
    void ExpectMessage(const std::string& message, size_t lines = 1) const
    {
        EXPECT_EQ(m_Library->Lines.size(), lines);
        for (const auto& line : std::exchange(m_Library->Lines, {}))
            EXPECT_NE((Ascii(line.Text) + " - ").find("> " + message + " - "), std::string::npos) << Ascii(line.Text);
    }

    TempDir m_Dir;
    std::string m_Location = m_Dir.Path().string(); // of library and settings; also the name of a key
    TraceStandIn m_Library{m_Dir.Path()};
};

// In the registry a missing value ends the reading; what was not read keeps its preset.
TEST_F(DebugLogTest, HandsTheSettingsOver)
{
    constexpr uint32_t kIni = Storage::kIniFile, kKeys = Storage::kRegistry, kKeysAlso = Storage::kRegistryAlso;
    const std::string name = "a name of thirty-two characters"; // that less the terminator
    const std::string x(300, 'x'), x259(259, 'x'), x255(255, 'x');
    const std::string all = "Enable=2\nLevel=273\nLogProcess=3\nLogUnitType=4\nLogFolder=d:\\logs\nLogPrefix=p\n"
                            "LogFile=f\nLogExtension=txt\nRobust=1\nDebugger=7\n";
    const std::tuple<uint32_t, std::string, uint32_t, std::string> rows[] = {
        {kIni, "", 1, "0 0 0 0 0 1 256 |" + name + "|c:\\temp\\|VQR_|KxPfw|log"},
        {kIni, "", 2, "0 0 0 0 0 2 256 |" + name + "|c:\\temp\\|VQR_|KxProxy|log"},
        {kIni, all, 1, "1 1 1 3 4 1 273 |" + name + "|d:\\logs|p|f|txt"},
        {kIni, "LogFolder=" + x + "\nLogPrefix=" + x + "\nLogFile=" + x + "\nLogExtension=" + x + "\n", 1,
         "0 0 0 0 0 1 256 |" + name + '|' + x259 + '|' + x255 + '|' + x255 + '|' + x255},
        {kKeys, "", 1, "0 0 0 0 0 1 256 |" + name + "||||"},
        {kKeys, "Level=16\nLogProcess=1\n", 1, "0 0 0 0 0 1 256 |" + name + "||||"},
        {kKeys, "Enable=1\nLogProcess=1\n", 1, "0 0 1 0 0 1 256 |" + name + "||||"},
        {kKeysAlso, "Enable=3\nLevel=16\nLogProcess=5\nLogFolder=d\n", 1, "0 0 1 5 0 1 16 |" + name + "||||"},
        {kKeysAlso, all, 1, "1 1 1 3 4 1 273 |" + name + "|d:\\logs|p|f|txt"},
    };
    for (const auto& [kind, settings, unit, expected] : rows)
    {
        const RegistryGuard registry;
        kind == kIni ? WriteSettings(settings) : WriteKeys(settings);
        ASSERT_TRUE(Initialize(kind, (name + ".").c_str(), unit));
        EXPECT_EQ(Describe(m_Library->Configs.back()), (IsServiceSession() ? "1 " : "0 ") + expected);
        EXPECT_GE(uint16_t{m_Library->Configs.back().Head.ReadTime.wYear}, 2024);
        g_DebugLog.Uninitialize();
    }
}

TEST_F(DebugLogTest, WorksWithWhatTheLibraryHasAndLeavesNothingBehind)
{
    const std::tuple<const char*, uint32_t, int32_t, uint64_t, int32_t, bool, bool> rows[] = {
        // what the library lacks, storage; result and handle of its start, result of its trace; whether it starts, and
        // whether it writes
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
    for (const auto& [missing, kind, startResult, handle, traceResult, starts, writes] : rows)
    {
        SCOPED_TRACE(testing::Message() << missing << kind << startResult << handle << traceResult);
        const TempDir dir;
        m_Location = dir.Path().string();
        WriteSettings("Enable=1\n");
        TraceStandIn library(dir.Path(), missing);
        library->InitializeResult = startResult;
        library->Handle = handle;
        library->TraceResult = traceResult;
        EXPECT_EQ(Initialize(kind), starts);
        EXPECT_EQ(g_TraceActive, starts);
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, kTraceError, "m"), writes);
        EXPECT_EQ(g_DebugLog.Uninitialize(), starts);
        EXPECT_FALSE(g_TraceActive || g_DebugLog.Trace(kFile, 1, kTraceError, "lost") || g_DebugLog.Uninitialize());
        const bool isEnded = starts && std::string(missing) != "KxDbgUninitialize";
        EXPECT_EQ(library->Ended, std::vector<uint64_t>(isEnded ? 1 : 0, handle));
        EXPECT_TRUE(library.Release()) << "still loaded";
    }
    const TempDir bare;
    m_Location = bare.Path().string();
    EXPECT_FALSE(Initialize()) << "no library";
    WriteBytes(bare / "KxVqrDbg.dll", "MZ no library");
    EXPECT_FALSE(Initialize() || g_TraceActive);
}

TEST_F(DebugLogTest, ALineLooksLikeThis)
{
    Start();
    const std::pair<uint32_t, const char*> rows[] = {{1, ".w."}, {16, "@@@"},         {256, "!!!"},
                                                     {2, "???"}, {0x80000000, "???"}, {17, "???"}};
    for (const auto& [level, tag] : rows)
    {
        EXPECT_TRUE(g_DebugLog.Trace(".\\dir/KxPfwRule.cpp", 52, level, "%s Enter 100%%", "kxRuleInitialize"));
        EXPECT_TRUE(g_DebugLog.TraceWide(L"KxPfwRule.cpp", 52, level, L"%s %S 100%%", L"kxRuleInitialize", "Enter"));
        for (const auto& [handle, time, line] : std::exchange(m_Library->Lines, {}))
        {
            char expected[200];
            std::snprintf(expected, sizeof expected,
                          "%02u/%02u/%04u %02u:%02u:%02u.%03u %04lx:%04lx %s <PfwRule> kxRuleInitialize Enter 100%% - "
                          "KxPfwRule.cpp(52)\r\n",
                          time.wDay, time.wMonth, time.wYear, time.wHour, time.wMinute, time.wSecond,
                          time.wMilliseconds, ::GetCurrentProcessId(), ::GetCurrentThreadId(), tag);
            EXPECT_EQ(Ascii(line), expected);
            EXPECT_EQ(handle, 0x1234567890u);
        }
    }
    KX_TRACE(kTraceError, "by macro");
    ExpectMessage("by macro");
    KX_TRACE_WIDE(kTraceError, L"by [%S] %s", "wide", L"macro");
    ExpectMessage("by [wide] macro - DebugLogWinTest.cpp(" + std::to_string(__LINE__ - 1) + ")\r\n");
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
        EXPECT_TRUE(g_DebugLog.TraceWide(L"Some.cpp", 1, 1, L"%s", std::wstring(length, L'm').c_str())) << length;
        ExpectMessage(std::string(length > 4095 ? 0 : length, 'm'), 2);
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
        EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 1, format, width, "x", text));
        ExpectMessage(expected);
    }
    EXPECT_TRUE(g_DebugLog.TraceWide(nullptr, 1, 1, static_cast<const wchar_t*>(nullptr)));
    ExpectMessage("(debug log error) NULL _lpctszFormat");
}

// And leaves the caller's error numbers alone, whatever the library does with them.
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
    Start("Enable=1\n");
    m_Library->HasConfig = true;
    m_Library->LastError = 5;
    for (const auto& [name, configResult, enable, mask, level, result, isWritten] : rows)
    {
        m_Library->ConfigResult = configResult;
        m_Library->Enable = enable;
        m_Library->Level = mask;
        m_Library->Lines.clear();
        ::SetLastError(1234);
        errno = 77;
        EXPECT_EQ(g_DebugLog.Trace(kFile, 1, level, "m"), result) << name;
        EXPECT_EQ(g_DebugLog.Dump(kFile, 1, level, "m", 1), result) << name;
        EXPECT_TRUE(::GetLastError() == 1234 && errno == 77) << name;
        EXPECT_EQ(m_Library->Lines.size(), isWritten ? 2u : 0u) << name;
    }
}

TEST_F(DebugLogTest, ASecondStartReadsTheSettingsAgain)
{
    m_Location += "\\"; // with and without a separator it is the same folder
    m_Library->ConfigResult = 5;
    Start();
    WriteSettings("Enable=1\nLevel=16\n");
    EXPECT_TRUE(Initialize(Storage::kIniFile, "Second"));
    EXPECT_EQ(m_Library->Configs.size(), 1u) << "the library is kept";
    EXPECT_FALSE(g_DebugLog.Trace(kFile, 1, 256, "m"));
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m"));
    EXPECT_FALSE(Initialize(7, "Third")) << "an unknown storage";
    EXPECT_TRUE(g_DebugLog.Trace(kFile, 1, 16, "m")) << "the first start still counts";
    EXPECT_NE(m_Library->Lines.at(0).Text.find(L" @@@ <Second> m - "), std::string::npos);
    EXPECT_NE(m_Library->Lines.at(1).Text.find(L" @@@ <Third> m - "), std::string::npos);
}

TEST_F(DebugLogTest, Dumps)
{
    Start();
    std::string most; // 112 rows and a half
    for (int i = 0; i < 112; ++i)
        most += "\r\n 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78 78xxxxxxxxxxxxxxxx";
    most += "\r\n 78 78 78 78 78 78 78 78xxxxxxxx";
    const std::string many(2000, 'x');
    const std::tuple<const char*, uint32_t, std::string> table[] = {
        {"A \0~\x7F\x80"
         "0123456789z",
         17, "\r\n 41 20 00 7e 7f 80 30 31 32 33 34 35 36 37 38 39A .~..0123456789\r\n 7az"},
        {nullptr, 5, ""},
        {many.data(), 1800, most},
        {many.data(), 2000, "\r\n??? size too big, dump 1800 bytes only!" + most},
    };
    for (const auto& [data, size, expected] : table)
    {
        EXPECT_TRUE(g_DebugLog.Dump(kFile, 9, 1, data, size));
        EXPECT_TRUE(g_DebugLog.DumpWide(L"dir\\Some.cpp", 9, 1, data, size));
        ExpectMessage(">>> dump memory" + expected + " - Some.cpp(9)\r\n", 2);
    }
}

TEST_F(DebugLogTest, EightThreadsDoNotMixLines)
{
    Start();
    std::vector<std::jthread> threads;
    for (char id = 'a'; id < 'i'; ++id)
        threads.emplace_back(
            [text = std::string(1000, id)]
            {
                for (int i = 0; i < 250; ++i)
                    KX_TRACE(kTraceDetail, "%s", text.c_str());
            });
    threads.clear(); // joins them
    EXPECT_FALSE(m_Library->Overlapped);
    EXPECT_EQ(m_Library->Lines.size(), 2000u);
    for (const TraceStandInState::Line& line : m_Library->Lines)
    {
        const size_t begin = line.Text.find(L"<PfwRule> ") + 10;
        ASSERT_EQ(line.Text.find_first_not_of(line.Text[begin], begin), begin + 1000);
    }
}

// The other half of the next test: ends with the trace up and a thread in the middle of it.
TEST_F(DebugLogTest, DISABLED_EndsTheProcessWhileTracing)
{
    Start();
    m_Library->OnDetach = []
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
    while (m_Library->ConfigCount < 100)
        ::SwitchToThread();
    ::ExitProcess(1);
}

TEST_F(DebugLogTest, AProcessMayEndWhileTracing)
{
    EXPECT_EQ(ExitCodeOfOtherProcess(L"EndsTheProcessWhileTracing"), 42u);
}

} // namespace
