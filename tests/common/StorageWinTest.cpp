#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_DebugLog.h"
#include "common/srclib/KxComn_IniFile.h"
#include "common/srclib/KxComn_Registry.h"
#include "common/srclib/KxComn_SecurityAttributes.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

namespace
{

using namespace KxCommon;

constexpr char kRegistrySource[] = "..\\..\\..\\Common\\srclib\\KxComn_Registry.cpp";
constexpr char kIniFileSource[] = "..\\..\\..\\Common\\srclib\\KxComn_IniFile.cpp";

/// The code of the exception that work throws, 0 when it throws none.
uint32_t CodeOf(const std::function<void()>& work, const char* source)
{
    try
    {
        work();
        return 0;
    }
    catch (Storage::Exception* e)
    {
        const std::unique_ptr<Exception::Base> owner(e);
        EXPECT_EQ(e->Detail(), 0u);
        EXPECT_STREQ(e->Source(), source);
        return e->Code();
    }
}

/// A key of the test's own below HKEY_LOCAL_MACHINE.
class RegistryTest : public testing::Test
{
protected:
    RegistryTest() { m_Registry.OpenForWriting(Where(), "Key", Storage::kView64); }
    ~RegistryTest() override
    {
        if (m_Registry.Path() != "")
            m_Registry.Close();
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_Location.c_str());
        ::RegDeleteKeyA(HKEY_LOCAL_MACHINE, m_Location.c_str());
    }
    [[nodiscard]] Storage::Key Where() const { return {Storage::kRegistry, m_Location.c_str(), nullptr}; }

    std::string m_Location = "SOFTWARE\\KxTest" + std::to_string(::GetCurrentProcessId());
    Storage::Registry m_Registry;
};

TEST_F(RegistryTest, ReadsOnlyWhatHasTheRightTypeAndSize)
{
    using namespace std::string_literals;
    const std::tuple<const char*, DWORD, std::string, uint32_t, uint32_t, std::string> rows[] = {
        // name, type and bytes; code of reading it as a number and as a text (0: it is one), the text
        {"missing", REG_NONE, "", 2, 2, ""},
        {"number", REG_DWORD, "\x04\x03\x02\xFF", 0, 13, ""},
        {"short number", REG_DWORD, "\x01\x02", 13, 13, ""},
        {"long number", REG_DWORD, "\x01\x02\x03\x04\x05", 13, 13, ""},
        {"four bytes", REG_BINARY, "\x01\x02\x03\x04", 13, 13, ""},
        {"text as long as a number", REG_SZ, "abc\0"s, 13, 0, "abc"},
        {"no terminator", REG_SZ, "text", 13, 0, "text"},
        {"no bytes", REG_SZ, "", 13, 0, ""},
        {"ends early", REG_SZ, "te\0xt\0"s, 13, 0, "te"},
        {"long", REG_SZ, std::string(5000, 'x'), 13, 0, std::string(5000, 'x')},
        {"another type", REG_EXPAND_SZ, "t\0"s, 13, 13, ""},
    };
    for (const auto& [name, type, bytes, numberCode, textCode, expected] : rows)
    {
        SCOPED_TRACE(name);
        if (type != REG_NONE)
            ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, (m_Location + "\\Key").c_str(), name, type, bytes.data(),
                              static_cast<DWORD>(bytes.size()));
        uint32_t number = 0;
        std::string text;
        EXPECT_EQ(CodeOf([&, key = name] { number = m_Registry.ReadNumber(key, 7); }, kRegistrySource), numberCode);
        EXPECT_EQ(number, numberCode == 0 ? 0xFF020304 : 0);
        EXPECT_EQ(CodeOf([&, key = name] { text = m_Registry.ReadString(key, "default"); }, kRegistrySource), textCode);
        EXPECT_EQ(text, expected);
    }
}

TEST_F(RegistryTest, WritesEnumeratesAndDeletes)
{
    m_Registry.WriteString("b", "text");
    m_Registry.WriteNumber("a", 4294967295u);
    m_Registry.WriteBinary("c", "\1\0\2", 3);
    Storage::Registry other;
    other.OpenForWriting(Where(), "Key\\Sub", Storage::kView64);
    const std::string withSeparator = m_Location + "\\";
    other.OpenForReading({Storage::kRegistryAlso, withSeparator.c_str(), nullptr}, "Key", Storage::kSystemView);
    EXPECT_EQ(other.Path(), m_Location + "\\Key");
    EXPECT_EQ(other.ReadString("b", ""), "text");
    EXPECT_EQ(other.ReadNumber("a", 0), 4294967295u);
    char bytes[4] = {};
    EXPECT_EQ(other.ReadBinary("c", bytes, sizeof bytes), 3u);
    EXPECT_EQ(std::string(bytes, 3), std::string("\1\0\2", 3));
    EXPECT_EQ(CodeOf([&] { other.ReadBinary("c", bytes, 2); }, kRegistrySource), uint32_t{ERROR_MORE_DATA});
    EXPECT_EQ(CodeOf([&] { other.WriteNumber("d", 1); }, kRegistrySource), uint32_t{ERROR_ACCESS_DENIED});

    other.OpenForEnumerating(Where(), "Key", Storage::kSystemView);
    std::set<std::string> names;
    std::string name;
    for (uint32_t i = 0; other.EnumerateValues(i, name); ++i)
        names.insert(name);
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(other.EnumerateKeys(0, name) && name == "Sub");
    EXPECT_FALSE(other.EnumerateKeys(1, name));

    other.OpenForDeleting(Where(), "Key", 99); // no view: the system's own
    EXPECT_TRUE(other.DeleteValue("a"));
    EXPECT_EQ(CodeOf([&] { other.DeleteValue("a"); }, kRegistrySource), 2u);
    EXPECT_TRUE(other.DeleteKey("Sub"));
    EXPECT_EQ(CodeOf([&] { other.OpenForReading(Where(), "Key\\Sub", Storage::kSystemView); }, kRegistrySource), 2u);
    EXPECT_EQ(CodeOf([&] { other.OpenForReading(Where(), "Key", Storage::kView32); }, kRegistrySource), 2u);
    EXPECT_EQ(CodeOf([&] { other.DeleteKey("Sub"); }, kRegistrySource), uint32_t{ERROR_INVALID_HANDLE})
        << "a failed open leaves nothing open";
    EXPECT_FALSE(other.Close());
}

// A missing value ends the reading there; what was not read keeps its preset. (The trace library is one that does not
// answer with settings of its own, started with an INI file: a key's path is no folder.)
TEST_F(RegistryTest, TheTraceReadsItsSettingsUpToTheFirstMissingOne)
{
    using Numbers = std::vector<std::pair<const char*, uint32_t>>;
    const std::tuple<Numbers, bool, bool, bool> rows[] = {
        // what is there; whether it is enabled, writes errors, writes calls
        {{}, false, false, false},
        {{{"Level", 16}, {"LogProcess", 1}}, false, false, false},
        {{{"Enable", 1}, {"LogProcess", 1}}, true, true, false},
        {{{"Enable", 3}, {"Level", 16}}, true, false, true},
        {{{"Enable", 0}, {"Level", 272}}, false, false, false},
    };
    const TempDir dir;
    const std::string folder = dir.Path().string();
    TraceStandIn library(dir.Path(), "no-config");
    ASSERT_TRUE(g_DebugLog.Initialize("Registry", {Storage::kIniFile, folder.c_str(), "none.ini"}, 1));
    const char* const section = IsServiceSession() ? "Key\\ServiceSession" : "Key\\InteractiveSession";
    const std::string parent = m_Location + "\\Key";
    for (const auto& [numbers, isEnabled, hasErrors, hasCalls] : rows)
    {
        Storage::Registry key;
        if (!numbers.empty())
            key.OpenForWriting(Where(), section, Storage::kSystemView);
        for (const auto& [name, number] : numbers)
            key.WriteNumber(name, number);
        EXPECT_TRUE(g_DebugLog.Initialize("Registry", {Storage::kRegistryAlso, parent.c_str(), nullptr}, 1));
        const size_t before = library->Lines.size();
        EXPECT_EQ(g_DebugLog.Trace("a.cpp", 1, 256, "error"), !isEnabled || hasErrors);
        EXPECT_EQ(g_DebugLog.Trace("a.cpp", 1, 16, "call"), !isEnabled || hasCalls);
        EXPECT_EQ(library->Lines.size() - before, size_t{hasErrors} + size_t{hasCalls});
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, (m_Location + "\\" + section).c_str());
        ::RegDeleteKeyA(HKEY_LOCAL_MACHINE, (m_Location + "\\" + section).c_str());
    }
    g_DebugLog.Uninitialize();
    EXPECT_FALSE(g_DebugLog.Initialize("Registry", {Storage::kRegistry, m_Location.c_str(), nullptr}, 1));
}

TEST(IniFile, ReadsAndWrites)
{
    const TempDir dir;
    const std::string longText = std::string(255, 'a') + std::string(256, 'b') + "end";
    WriteBytes(dir / "a.ini",
               "[One]\r\nNumber=4294967295\r\nNegative=-1\r\nText= some text \r\nBroken=12x\r\nEmpty=\r\nLong=" +
                   longText + "\r\nExact=" + std::string(255, 'e') + "\r\n[Two]\r\nNumber=2\r\n");
    const std::tuple<const char*, const char*, uint32_t, std::string> rows[] = {
        // section, name; its number (default 77) and its text (default "default")
        {"One", "Number", 4294967295u, "4294967295"},
        {"One", "Negative", 4294967295u, "-1"},
        {"One", "Text", 0, "some text"},
        {"One", "Broken", 12, "12x"},
        {"One", "Long", 0, longText},
        {"One", "Exact", 0, std::string(255, 'e')},
        {"One", "Missing", 77, "default"},
        {"Two", "Number", 2, "2"},
        {"Three", "Number", 77, "default"},
        {nullptr, "Number", 77, "default"},
        {"One", nullptr, 77, "default"},
    };
    const std::string folder = dir.Path().string();
    for (const std::string& location : {folder, folder + "\\"})
    {
        for (const auto& [section, name, number, text] : rows)
        {
            Storage::IniFile file;
            file.OpenForReading({Storage::kIniFile, location.c_str(), "a.ini"}, section, 0);
            EXPECT_EQ(file.ReadNumber(name, 77), number) << text;
            EXPECT_EQ(file.ReadString(name, "default"), text) << text;
        }
    }
    Storage::IniFile file;
    const Storage::Key where{Storage::kIniFile, folder.c_str(), "new.ini"};
    file.OpenForWriting(where, "Section", 0);
    EXPECT_TRUE(file.WriteNumber("Number", 4294967295u));
    EXPECT_TRUE(file.WriteString("Text", "text"));
    EXPECT_TRUE(file.Flush());
    EXPECT_EQ(ReadBytes(dir / "new.ini"), "[Section]\r\nNumber=4294967295\r\nText=text\r\n");
    file.Close();
    EXPECT_EQ(file.ReadString("Text", "closed"), "closed");

    const std::string nowhere = folder + "\\missing";
    file.OpenForWriting({Storage::kIniFile, nowhere.c_str(), "a.ini"}, "Section", 0);
    EXPECT_EQ(CodeOf([&] { file.WriteNumber("Number", 1); }, kIniFileSource), uint32_t{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(file.ReadNumber("Number", 5), 5u) << "reading throws nothing";
}

TEST(Storage, IsChosenByKind)
{
    EXPECT_EQ(Storage::Create(2), nullptr);
    EXPECT_NE(dynamic_cast<Storage::Registry*>(Storage::Create(0).get()), nullptr);
    EXPECT_NE(dynamic_cast<Storage::Registry*>(Storage::Create(4).get()), nullptr);
    EXPECT_NE(dynamic_cast<Storage::IniFile*>(Storage::Create(1).get()), nullptr);
}

} // namespace
