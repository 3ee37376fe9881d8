#include <set>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_IniFile.h"
#include "common/srclib/KxComn_Registry.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace
{

using namespace KxCommon;

uint32_t StorageCode(const auto& work, const char* source = "Registry")
{
    return Thrown<Storage::Exception>(source, work);
}

/// A key for the test below HKEY_LOCAL_MACHINE.
class RegistryTest : public testing::Test
{
protected:
    RegistryTest() { m_Registry.OpenForWriting(Where(), "Key", Storage::kView64); }
    ~RegistryTest() override
    {
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
        EXPECT_EQ(StorageCode([&, key = name] { number = m_Registry.ReadNumber(key, 7); }), numberCode);
        EXPECT_EQ(number, numberCode == 0 ? 0xFF020304 : 0);
        EXPECT_EQ(StorageCode([&, key = name] { text = m_Registry.ReadString(key, "default"); }), textCode);
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
    EXPECT_EQ(StorageCode([&] { other.ReadBinary("c", bytes, 2); }), uint32_t{ERROR_MORE_DATA});
    EXPECT_EQ(StorageCode([&] { other.WriteNumber("d", 1); }), uint32_t{ERROR_ACCESS_DENIED});

    other.OpenForEnumerating(Where(), "Key", Storage::kSystemView);
    std::set<std::string> names;
    std::string name;
    for (uint32_t i = 0; other.EnumerateValues(i, name); ++i)
        names.insert(name);
    for (uint32_t i = 0; other.EnumerateKeys(i, name); ++i)
        names.insert(name);
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c", "Sub"}));

    other.OpenForDeleting(Where(), "Key", 99); // no view: the system's own
    EXPECT_TRUE(other.DeleteValue("a"));
    EXPECT_EQ(StorageCode([&] { other.DeleteValue("a"); }), 2u);
    EXPECT_TRUE(other.DeleteKey("Sub"));
    EXPECT_EQ(StorageCode([&] { other.OpenForReading(Where(), "Key\\Sub", Storage::kSystemView); }), 2u);
    EXPECT_EQ(StorageCode([&] { other.OpenForReading(Where(), "Key", Storage::kView32); }), 2u);
    EXPECT_EQ(StorageCode([&] { other.DeleteKey("Sub"); }), 6u) << "a failed open leaves nothing open";
    EXPECT_EQ(StorageCode([&] { other.EnumerateKeys(0, name); }), 6u);
    EXPECT_EQ(StorageCode([&] { other.EnumerateValues(0, name); }), 6u);
    EXPECT_TRUE(m_Registry.Close() && !other.Close());
}

TEST(IniFile, ReadsAndWrites)
{
    const TempDir dir;
    const std::string longText = std::string(255, 'a') + std::string(256, 'b') + "end";
    const std::string exact(255, 'e');
    WriteBytes(dir / "a.ini",
               "[One]\r\nNumber=4294967295\r\nLong=" + longText + "\r\nExact=" + exact + "\r\n[Two]\r\nNumber=2\r\n");
    const std::tuple<const char*, const char*, uint32_t, std::string> rows[] = {
        // section, name; its number (default 77) and its text (default "default")
        {"One", "Number", 4294967295u, "4294967295"},
        {"One", "Long", 0, longText},
        {"One", "Exact", 0, exact},
        {"One", "Missing", 77, "default"},
        {"Two", "Number", 2, "2"},
        {"Three", "Number", 77, "default"},
        {nullptr, "Number", 77, "default"},
        {"One", nullptr, 77, "default"},
    };
    const std::string folder = dir.Path().string(), withSeparator = folder + "\\", nowhere = folder + "\\missing";
    Storage::IniFile file;
    for (const std::string& location : {folder, withSeparator})
        for (const auto& [section, name, number, text] : rows)
        {
            file.OpenForReading({Storage::kIniFile, location.c_str(), "a.ini"}, section, 0);
            EXPECT_EQ(file.ReadNumber(name, 77), number) << text;
            EXPECT_EQ(file.ReadString(name, "default"), text);
        }
    file.OpenForWriting({Storage::kIniFile, folder.c_str(), "new.ini"}, "Section", 0);
    EXPECT_TRUE(file.WriteNumber("Number", 4294967295u) && file.WriteString("Text", "text") && file.Flush());
    EXPECT_EQ(ReadBytes(dir / "new.ini"), "[Section]\r\nNumber=4294967295\r\nText=text\r\n");
    file.Close();
    EXPECT_EQ(file.ReadString("Text", "closed"), "closed");
    file.OpenForWriting({Storage::kIniFile, nowhere.c_str(), "a.ini"}, "Section", 0);
    EXPECT_EQ(StorageCode([&] { file.WriteNumber("Number", 1); }, "IniFile"), uint32_t{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(file.ReadNumber("Number", 5), 5u) << "reading throws nothing";
}

} // namespace
