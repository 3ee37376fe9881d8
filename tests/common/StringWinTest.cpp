#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_String.h"
#include "common/srclib/Utility.h"

namespace
{

using namespace KxCommon;

TEST(String, CopyBoundedBehavesAsStrncpy)
{
    struct Row
    {
        const char* Name;
        UINT CodePage; // 0: any
        std::string Text;
        int Size;
        std::string Expected; // of 6 bytes that were '#'
    };
    const Row rows[] = {
        {"padded with NULs", 0, "ab", 5, std::string("ab\0\0\0#", 6)},
        {"exact: no terminator", 0, "abcde", 5, "abcde#"},
        {"cut: no terminator", 0, "abcdefgh", 5, "abcde#"},
        {"empty text", 0, "", 2, std::string("\0\0####", 6)},
        {"no room", 0, "abc", 0, "######"},
        {"negative room", 0, "abc", -1, "######"},
        {"a high byte is a whole character", 1252, "abcd\xFC\xFC", 5, "abcd\xFC#"},
        {"cut in half", 932, "abc\x93\xFA\x96\x7B", 4, std::string("abc\0##", 6)},
        {"cut in half behind others", 932, "\x93\xFA\x96\x7B", 3, std::string("\x93\xFA\0###", 6)},
        {"cut between two", 932, "ab\x93\xFA\x96\x7B", 4, "ab\x93\xFA##"},
        {"second half looks like a first one", 932, "a\x81\x81zz", 3, "a\x81\x81###"},
        {"not cut", 932, "ab\x93\xFA", 4, "ab\x93\xFA##"},
    };
    for (const Row& row : rows)
    {
        if (row.CodePage != 0 && row.CodePage != ::GetACP())
            continue;
        std::string buffer(6, '#');
        String::CopyBounded(buffer.data(), row.Size, row.Text);
        EXPECT_EQ(buffer, row.Expected) << row.Name;
    }
    String::CopyBounded(nullptr, 5, "abc");
}

TEST(String, EqualNoCaseFoldsAsFileNames)
{
    struct Row
    {
        const wchar_t* A;
        const wchar_t* B;
        bool IsEqual;
    };
    const Row rows[] = {
        {L"", L"", true},
        {L"", L"a", false},
        {L"C:\\Dir\\App.EXE", L"c:\\dir\\APP.exe", true},
        {L"app.exe", L"app.ex", false},
        {L"\x00DC\x0416", L"\x00FC\x0436", true}, // Ü, Ж
        {L"stra\x00DF"
         L"e",
         L"strasse", false},      // no linguistic equality
        {L"\x0131", L"I", false}, // dotless i is a name of its own
    };
    for (const Row& row : rows)
        EXPECT_EQ(String::EqualNoCase(row.A, row.B), row.IsEqual) << testing::PrintToString(std::wstring(row.A));
}

TEST(String, FormatGrowsToAnyLength)
{
    for (const size_t length : {0, 1, 255, 256, 257, 511, 512, 1000, 70000})
    {
        std::string narrow = "old";
        EXPECT_TRUE(String::Format(narrow, "%s", std::string(length, 'x').c_str()));
        EXPECT_EQ(narrow, std::string(length, 'x'));
        std::wstring wide = L"old";
        EXPECT_TRUE(String::Format(wide, L"%s", std::wstring(length, L'y').c_str()));
        EXPECT_EQ(wide, std::wstring(length, L'y'));
    }
}

TEST(String, FormatFollowsTheSystemsRules)
{
    const std::string format = "%S|%s|%I64u|%04x"; // out of sight of the compiler, which knows ISO C alone
    std::string narrow;
    EXPECT_TRUE(String::Format(narrow, format.c_str(), L"wide\x00FC", "narrow", 18446744073709551615ull, 10u));
    EXPECT_EQ(narrow, "wide\xFC|narrow|18446744073709551615|000a");
    std::wstring wide;
    EXPECT_TRUE(String::Format(wide, L"%s|%S", L"wide", "narrow"));
    EXPECT_EQ(wide, L"wide|narrow");
}

// A heap object by pointer; out keeps what it had.
TEST(String, FormatThrowsWhenItCannotFormat)
{
    const std::vector<std::pair<const char*, uint32_t>> rows = {{nullptr, ERROR_INVALID_PARAMETER},
                                                                {"%S", ERROR_INVALID_DATA}};
    for (const auto& [format, code] : rows)
    {
        std::string out = "old";
        try
        {
            String::Format(out, format, L"\x65E5"); // no counterpart in the C library's locale
            ADD_FAILURE() << "no exception";
        }
        catch (String::Exception* e)
        {
            const std::unique_ptr<Exception::Base> owner(e);
            EXPECT_EQ(e->Code(), code);
            EXPECT_EQ(e->Detail(), 0u);
            EXPECT_STREQ(e->Source(), "..\\..\\..\\Common\\srclib\\KxComn_String.cpp");
        }
        EXPECT_EQ(out, "old");
    }
}

TEST(String, ConvertsThroughTheActiveCodePage)
{
    struct Row
    {
        UINT CodePage;
        std::string Narrow;
        std::wstring Wide;
    };
    const Row rows[] = {
        {::GetACP(), "", L""},
        {::GetACP(), std::string(1000, 'a'), std::wstring(1000, L'a')},
        {::GetACP(), std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {1252, "\x80\xFC", L"\x20AC\x00FC"},
        {932, "\x93\xFA\x96\x7B", L"\x65E5\x672C"},
    };
    for (const Row& row : rows)
    {
        if (row.CodePage != ::GetACP())
            continue;
        EXPECT_EQ(String::ToWide(row.Narrow), row.Wide);
        EXPECT_EQ(String::ToNarrow(row.Wide), row.Narrow);
    }
    EXPECT_EQ(String::ToNarrow(L"a\x0E01"
                               L"b"),
              "a?b"); // a Thai letter: in neither code page
}

TEST(Utility, AppendSeparator)
{
    struct Row
    {
        UINT CodePage;
        std::string Path;
        std::string Expected;
    };
    const Row rows[] = {
        {0, "", ""},
        {0, "C:", "C:\\"},
        {0, "C:\\dir", "C:\\dir\\"},
        {0, "C:\\dir\\", "C:\\dir\\"},
        {0, "\\", "\\"},
        {0, "C:/dir/", "C:/dir/\\"},
        {932, "C:\\\x95\x5C", "C:\\\x95\x5C\\"}, // a character whose second half is a backslash
    };
    for (const Row& row : rows)
    {
        if (row.CodePage != 0 && row.CodePage != ::GetACP())
            continue;
        std::string narrow = row.Path;
        AppendSeparator(narrow);
        EXPECT_EQ(narrow, row.Expected);
        std::wstring wide = String::ToWide(row.Path);
        AppendSeparator(wide);
        EXPECT_EQ(wide, String::ToWide(row.Expected));
    }
}

TEST(Utility, IsAbsolutePath)
{
    const std::vector<std::pair<std::wstring, bool>> rows = {
        {L"C:\\", true},   {L"z:/dir", true}, {L"\\\\server\\share", true},
        {L"", false},      {L"\\dir", false}, {L"dir\\", false},
        {L"C:dir", false}, {L"C:", false},    {L"1:\\", false},
    };
    for (const auto& [path, isAbsolute] : rows)
    {
        EXPECT_EQ(IsAbsolutePath(path), isAbsolute) << testing::PrintToString(path);
        EXPECT_EQ(IsAbsolutePath(String::ToNarrow(path)), isAbsolute) << testing::PrintToString(path);
    }
}

} // namespace
