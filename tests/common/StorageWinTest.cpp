#include <functional>
#include <memory>
#include <set>
#include <string>
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
    void SetRaw(const char* name, DWORD type, const std::string& bytes) const
    {
        ASSERT_EQ(::RegSetKeyValueA(HKEY_LOCAL_MACHINE, (m_Location + "\\Key").c_str(), name, type, bytes.data(),
                                    static_cast<DWORD>(bytes.size())),
                  ERROR_SUCCESS);
    }

    std::string m_Location = "SOFTWARE\\KxTest" + std::to_string(::GetCurrentProcessId());
    Storage::Registry m_Registry;
};

TEST_F(RegistryTest, ReadsOnlyWhatHasTheRightTypeAndSize)
{
    struct Row
    {
        const char* Name;
        DWORD Type; // REG_NONE: no such value
        std::string Bytes;
        uint32_t NumberCode, Number;
        uint32_t TextCode;
        std::string Text;
    };
    const Row rows[] = {
        {"missing", REG_NONE, "", 2, 0, 2, ""},
        {"number", REG_DWORD, std::string("\x04\x03\x02\xFF", 4), 0, 0xFF020304, 13, ""},
        {"short number", REG_DWORD, "\x01\x02", 13, 0, 13, ""},
        {"long number", REG_DWORD, "\x01\x02\x03\x04\x05", 13, 0, 13, ""},
        {"four bytes", REG_BINARY, "\x01\x02\x03\x04", 13, 0, 13, ""},
        {"text", REG_SZ, std::string("text\0", 5), 13, 0, 0, "text"},
        {"text as long as a number", REG_SZ, std::string("abc\0", 4), 13, 0, 0, "abc"},
        {"no terminator", REG_SZ, "text", 13, 0, 0, "text"},
        {"no bytes", REG_SZ, "", 13, 0, 0, ""},
        {"ends early", REG_SZ, std::string("te\0xt\0", 6), 13, 0, 0, "te"},
        {"long", REG_SZ, std::string(5000, 'x'), 13, 0, 0, std::string(5000, 'x')},
        {"another type", REG_EXPAND_SZ, std::string("t\0", 2), 13, 0, 13, ""},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.Name);
        if (row.Type != REG_NONE)
            SetRaw(row.Name, row.Type, row.Bytes);
        uint32_t number = 0;
        std::string text;
        EXPECT_EQ(CodeOf([&] { number = m_Registry.ReadNumber(row.Name, 7); }, kRegistrySource), row.NumberCode);
        EXPECT_EQ(number, row.Number);
        EXPECT_EQ(CodeOf([&] { text = m_Registry.ReadString(row.Name, "default"); }, kRegistrySource), row.TextCode);
        EXPECT_EQ(text, row.Text);
    }
}

TEST_F(RegistryTest, WritesEnumeratesAndDeletes)
{
    m_Registry.WriteString("b", "text");
    m_Registry.WriteNumber("a", 4294967295u);
    m_Registry.WriteBinary("c", "\1\0\2", 3);
    Storage::Registry read;
    const std::string withSeparator = m_Location + "\\";
    read.OpenForReading({Storage::kRegistryAlso, withSeparator.c_str(), nullptr}, "Key", Storage::kSystemView);
    EXPECT_EQ(read.Path(), m_Location + "\\Key");
    EXPECT_EQ(read.ReadString("b", ""), "text");
    EXPECT_EQ(read.ReadNumber("a", 0), 4294967295u);
    char bytes[4] = {};
    EXPECT_EQ(read.ReadBinary("c", bytes, sizeof bytes), 3u);
    EXPECT_EQ(std::string(bytes, 3), std::string("\1\0\2", 3));
    EXPECT_EQ(CodeOf([&] { read.ReadBinary("c", bytes, 2); }, kRegistrySource), uint32_t{ERROR_MORE_DATA});
    EXPECT_EQ(CodeOf([&] { read.ReadBinary("a", bytes, 4); }, kRegistrySource), 13u);
    EXPECT_EQ(CodeOf([&] { read.WriteNumber("d", 1); }, kRegistrySource), uint32_t{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(read.Close());
    EXPECT_FALSE(read.Close());
    EXPECT_EQ(CodeOf([&] { read.ReadNumber("a", 0); }, kRegistrySource), uint32_t{ERROR_INVALID_HANDLE});

    Storage::Registry sub;
    sub.OpenForWriting(Where(), "Key\\Sub", Storage::kSystemView);
    sub.Close();
    Storage::Registry list;
    list.OpenForEnumerating(Where(), "Key", Storage::kSystemView);
    std::set<std::string> names;
    std::string name;
    for (uint32_t i = 0; list.EnumerateValues(i, name); ++i)
        names.insert(name);
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(list.EnumerateKeys(0, name));
    EXPECT_EQ(name, "Sub");
    EXPECT_FALSE(list.EnumerateKeys(1, name));

    Storage::Registry remove;
    remove.OpenForDeleting(Where(), "Key", Storage::kSystemView);
    EXPECT_TRUE(remove.DeleteValue("a"));
    EXPECT_EQ(CodeOf([&] { remove.DeleteValue("a"); }, kRegistrySource), 2u);
    EXPECT_TRUE(remove.DeleteKey("Sub"));
    EXPECT_EQ(CodeOf([&] { remove.OpenForReading(Where(), "Key\\Sub", Storage::kSystemView); }, kRegistrySource), 2u);
    EXPECT_EQ(CodeOf([&] { remove.DeleteKey("Sub"); }, kRegistrySource), uint32_t{ERROR_INVALID_HANDLE})
        << "a failed open leaves nothing open";
}

TEST_F(RegistryTest, ViewsAreApart)
{
    m_Registry.WriteNumber("here", 64);
    Storage::Registry other;
    EXPECT_EQ(CodeOf([&] { other.OpenForReading(Where(), "Key", Storage::kView32); }, kRegistrySource), 2u);
    for (const uint32_t view : {Storage::kView64, Storage::kSystemView, 99u})
    {
        other.OpenForReading(Where(), "Key", view);
        EXPECT_EQ(other.ReadNumber("here", 0), 64u) << view;
    }
}

// A missing value ends the reading there; what was not read keeps its preset. (The trace library is one that does not
// answer with settings of its own, started with an INI file: a key's path is no folder.)
TEST_F(RegistryTest, TheTraceReadsItsSettingsUpToTheFirstMissingOne)
{
    struct Row
    {
        const char* Name;
        std::vector<std::pair<const char*, uint32_t>> Numbers;
        bool IsEnabled, HasErrors, HasCalls; // level 256, level 16
    };
    const Row rows[] = {
        {"no key", {}, false, false, false},
        {"Enable is missing", {{"Level", 16}, {"LogProcess", 1}}, false, false, false},
        {"Level is missing", {{"Enable", 1}, {"LogProcess", 1}}, true, true, false},
        {"the rest is missing", {{"Enable", 3}, {"Level", 16}}, true, false, true},
        {"disabled", {{"Enable", 0}, {"Level", 272}}, false, false, false},
    };
    const TempDir dir;
    const std::string folder = dir.Path().string();
    TraceStandIn library(dir.Path(), "no-config");
    ASSERT_TRUE(g_DebugLog.Initialize("Registry", {Storage::kIniFile, folder.c_str(), "none.ini"}, 1));
    for (const Row& row : rows)
    {
        const char* const section = IsServiceSession() ? "Key\\ServiceSession" : "Key\\InteractiveSession";
        const std::string parent = m_Location + "\\Key";
        Storage::Registry key;
        if (!row.Numbers.empty())
            key.OpenForWriting(Where(), section, Storage::kSystemView);
        for (const auto& [name, number] : row.Numbers)
            key.WriteNumber(name, number);
        EXPECT_TRUE(g_DebugLog.Initialize("Registry", {Storage::kRegistryAlso, parent.c_str(), nullptr}, 1))
            << row.Name;
        const size_t before = library->Lines.size();
        EXPECT_EQ(g_DebugLog.Trace("a.cpp", 1, 256, "error"), !row.IsEnabled || row.HasErrors) << row.Name;
        EXPECT_EQ(g_DebugLog.Trace("a.cpp", 1, 16, "call"), !row.IsEnabled || row.HasCalls) << row.Name;
        EXPECT_EQ(library->Lines.size() - before, size_t{row.HasErrors} + size_t{row.HasCalls}) << row.Name;
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
    struct Row
    {
        const char* Section;
        const char* Name;
        uint32_t Number;  // default 77
        std::string Text; // default "default"
    };
    const Row rows[] = {
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
        for (const Row& row : rows)
        {
            Storage::IniFile file;
            file.OpenForReading({Storage::kIniFile, location.c_str(), "a.ini"}, row.Section, 0);
            EXPECT_EQ(file.ReadNumber(row.Name, 77), row.Number) << row.Name;
            EXPECT_EQ(file.ReadString(row.Name, "default"), row.Text) << row.Name;
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

// What a storage does not support does nothing.
TEST(Storage, OffersTheSameOperationsForEveryKind)
{
    EXPECT_EQ(Storage::Create(2), nullptr);
    EXPECT_NE(dynamic_cast<Storage::Registry*>(Storage::Create(0).get()), nullptr);
    EXPECT_NE(dynamic_cast<Storage::Registry*>(Storage::Create(4).get()), nullptr);
    const std::unique_ptr<Storage::Base> file = Storage::Create(1);
    ASSERT_NE(dynamic_cast<Storage::IniFile*>(file.get()), nullptr);
    const Storage::Key where{Storage::kIniFile, "C:\\", "none.ini"};
    std::string name = "untouched";
    EXPECT_FALSE(file->OpenForDeleting(where, "Section", 0));
    EXPECT_FALSE(file->OpenForEnumerating(where, "Section", 0));
    EXPECT_FALSE(file->EnumerateKeys(0, name));
    EXPECT_FALSE(file->EnumerateValues(0, name));
    EXPECT_EQ(file->ReadBinary("a", name.data(), 1), 0u);
    EXPECT_FALSE(file->WriteBinary("a", "b", 1));
    EXPECT_EQ(name, "untouched");
}

} // namespace
