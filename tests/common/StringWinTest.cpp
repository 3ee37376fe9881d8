#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_String.h"
#include "common/srclib/Utility.h"
#include "tests/support/Thrown.h"

namespace
{

using namespace KxCommon;

bool IsOtherCodePage(UINT codePage) // 0: any
{
    return codePage != 0 && codePage != ::GetACP();
}

TEST(String, CopyBoundedBehavesAsStrncpy)
{
    using namespace std::string_literals;
    const std::tuple<UINT, std::string, int, std::string> rows[] = {
        // code page, text, size, what becomes of six '#'
        {0, "ab", 5, "ab\0\0\0#"s},
        {0, "abcde", 5, "abcde#"},
        {0, "abcdefgh", 5, "abcde#"},
        {0, "", 2, "\0\0####"s},
        {0, "abc", 0, "######"},
        {0, "abc", -1, "######"},
        {1252, "abcd\xFC\xFC", 5, "abcd\xFC#"},      // a high byte is a whole character
        {932, "abc\x93\xFA\x96\x7B", 4, "abc\0##"s}, // cut in half
        {932, "\x93\xFA\x96\x7B", 3, "\x93\xFA\0###"s},
        {932, "ab\x93\xFA\x96\x7B", 4, "ab\x93\xFA##"},
        {932, "a\x81\x81zz", 3, "a\x81\x81###"}, // the second half looks like a first one
        {932, "ab\x93\xFA", 4, "ab\x93\xFA##"},
    };
    for (const auto& [codePage, text, size, expected] : rows)
    {
        std::string buffer(6, '#');
        String::CopyBounded(buffer.data(), size, text);
        EXPECT_TRUE(IsOtherCodePage(codePage) || buffer == expected) << text << ' ' << size << ' ' << buffer;
    }
    String::CopyBounded(nullptr, 5, "abc");
}

TEST(String, EqualNoCaseFoldsAsFileNames)
{
    const std::tuple<const wchar_t*, const wchar_t*, bool> rows[] = {
        {L"", L"", true},
        {L"", L"a", false},
        {L"C:\\Dir\\App.EXE", L"c:\\dir\\APP.exe", true},
        {L"app.exe", L"app.ex", false},
        {L"\x00DC\x0416", L"\x00FC\x0436", true}, // Ü, Ж
        {L"fu\x00DF", L"fuss", false},            // no linguistic equality
        {L"\x0131", L"I", false},                 // dotless i is a name of its own
    };
    for (const auto& [a, b, isEqual] : rows)
        EXPECT_EQ(String::EqualNoCase(a, b), isEqual) << testing::PrintToString(std::wstring(a));
}

TEST(String, FormatGrowsToAnyLengthOrThrows)
{
    for (const size_t length : {0, 1, 255, 256, 257, 511, 512, 1000, 70000})
    {
        const std::string text(length, 'x');
        const std::wstring wideText(length, L'y');
        std::string narrow = "old";
        std::wstring wide = L"old";
        EXPECT_TRUE(String::Format(narrow, "%s", text.c_str()) && narrow == text) << length;
        EXPECT_TRUE(String::Format(wide, L"%s", wideText.c_str()) && wide == wideText) << length;
    }
    const std::pair<const char*, uint32_t> rows[] = {{nullptr, ERROR_INVALID_PARAMETER}, {"%S", ERROR_INVALID_DATA}};
    for (const auto& [format, code] : rows)
    {
        std::string out = "old";
        const auto fails = [&, bad = format] { String::Format(out, bad, L"\x65E5"); }; // not in the C library's locale
        EXPECT_EQ(Thrown<String::Exception>("String", fails), code);
        EXPECT_EQ(out, "old");
    }
}

TEST(String, ConvertsThroughTheActiveCodePage)
{
    const std::tuple<UINT, std::string, std::wstring> rows[] = {
        {0, "", L""},
        {0, std::string(1000, 'a'), std::wstring(1000, L'a')},
        {0, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {1252, "\x80\xFC", L"\x20AC\x00FC"},
        {932, "\x93\xFA\x96\x7B", L"\x65E5\x672C"},
    };
    for (const auto& [codePage, narrow, wide] : rows)
    {
        EXPECT_TRUE(IsOtherCodePage(codePage) || String::ToWide(narrow) == wide) << narrow;
        EXPECT_TRUE(IsOtherCodePage(codePage) || String::ToNarrow(wide) == narrow) << narrow;
    }
    EXPECT_EQ(String::ToNarrow(L"a\x0E01"), "a?"); // a Thai letter: in neither
}

TEST(Utility, Paths)
{
    const std::tuple<UINT, std::string, std::string, bool> rows[] = {
        // code page, path, with a separator, absolute
        {0, "", "", false},
        {0, "C:", "C:\\", false},
        {0, "C:\\", "C:\\", true},
        {0, "C:\\dir", "C:\\dir\\", true},
        {0, "z:/dir/", "z:/dir/\\", true},
        {0, "\\\\server\\share\\", "\\\\server\\share\\", true},
        {0, "\\", "\\", false},
        {0, "\\dir", "\\dir\\", false},
        {0, "C:dir", "C:dir\\", false},
        {0, "1:\\", "1:\\", false},
        {932, "C:\\\x95\x5C", "C:\\\x95\x5C\\", true}, // a character whose second half is a backslash
    };
    for (const auto& [codePage, path, expected, isAbsolute] : rows)
    {
        if (IsOtherCodePage(codePage))
            continue;
        std::string narrow = path;
        AppendSeparator(narrow);
        EXPECT_EQ(narrow, expected);
        std::wstring wide = String::ToWide(path);
        EXPECT_EQ(IsAbsolutePath(path), isAbsolute) << path;
        EXPECT_EQ(IsAbsolutePath(wide), isAbsolute) << path;
        AppendSeparator(wide);
        EXPECT_EQ(wide, String::ToWide(expected));
    }
}

} // namespace
