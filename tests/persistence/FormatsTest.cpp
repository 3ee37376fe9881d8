// All three formats against the files of tests/data, which another AES implementation made.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/support/FileContent.h"
#include "tests/support/Hex.h"

namespace
{

Bytes DataFile(const std::string& name) // tests run in the root of the tree
{
    std::ifstream stream("tests/data/" + name, std::ios::binary);
    EXPECT_TRUE(stream) << name;
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

// The third letter of a file's name says which of the three it is: maSter, maCros, ruLeset.
FileContent::Kind KindOf(const std::string& name)
{
    return name[2] == 's'   ? FileContent::Kind::Master
           : name[2] == 'c' ? FileContent::Kind::Macros
                            : FileContent::Kind::RuleSet;
}

// What could be read, as text, and how the reading ended unless it went well.
std::string Read(const std::string& name, const Bytes& file, FileContent& content)
{
    MemoryStream stream(file);
    const std::string end = content.Read(KindOf(name), stream);
    std::ostringstream out;
    if (name[2] == 's')
        out << content.Master.MacroFileName << ' ' << content.Master.NextIndex << ' ';
    if (name[2] == 'l')
        out << content.Set.Index << ' ' << KxCommon::String::ToNarrow(content.Set.Name) << ' ' << content.Rules.size();
    for (const uint16_t index : content.Master.ActiveRuleSets)
        out << index << ';';
    for (const std::string& ruleSet : content.Master.RuleSetFileNames)
        out << ruleSet << ',';
    for (const MacroFields& macro : content.Macros)
        out << macro.Name << '=' << macro.Items.size() << ' ';
    return out.str() + end;
}

TEST(FormatsTest, ReadsAndWritesTheFilesOfAnotherCipher)
{
    const struct
    {
        const char* File;
        size_t Size;
        const char* Expected;
    } cases[] = {
        {"master-empty.dat", 128, "KxRulMac.dat 1 "},
        {"master.dat", 184, "KxRulMac.dat 2 1;KxRl0001.dat,"},
        {"master-many.dat", 264, "OtherMac.dat 65280 3;1;1;43981;0;2;9;8;KxRl0001.dat,,KxRl00AB.dat,"},
        {"macros-empty.dat", 44, ""},
        {"macros.dat", 1688, "none=0 nine=9 =1 "},
        {"ruleset-empty.dat", 88, "171  0"},
        {"ruleset.dat", 104 + 9 * 2852, "1 B?ro ?? 9"},
    };
    for (const auto& c : cases)
    {
        FileContent content;
        const Bytes file = DataFile(c.File);
        EXPECT_EQ(file.size(), c.Size) << c.File;
        EXPECT_EQ(Read(c.File, file, content), c.Expected) << c.File;
        EXPECT_EQ(content.Write(KindOf(c.File)), file) << c.File; // so every byte was read
        const auto other =
            KindOf(c.File) == FileContent::Kind::Macros ? FileContent::Kind::Master : FileContent::Kind::Macros;
        MemoryStream stream(file);
        EXPECT_EQ(content.Read(other, stream), "!magic") << c.File;
    }
    FileContent old, large;
    EXPECT_EQ(Read("ruleset", DataFile("ruleset-old.dat"), old), "7 Old 0");
    // A stream gathers bytes before it hands them over and fails
    large.Macros.push_back({"", std::vector<MACRO_ITEM>(10000)});
    large.Rules.resize(KXRULE_MAX_RULES);
    EXPECT_EQ(large.Write(FileContent::Kind::Macros, 1000), Bytes());
    EXPECT_EQ(large.Write(FileContent::Kind::RuleSet, 1000), Bytes());
}

constexpr int64_t kCut = -1;

// (What else a forged number can do to a field, EncryptStreamTest shows.)
TEST(FormatsTest, DamageKeepsWhatStandsBeforeIt)
{
    const struct
    {
        const char* File;
        size_t Begin, End; // cut at each of these lengths, or
        int64_t Number;    // this number in place of the one at Begin
        const char* Expected;
    } cases[] = {
        {"master-many.dat", 0, 4, kCut, " 0 !magic"},
        {"master-many.dat", 4, 64, kCut, " 0 !field"},
        {"master-many.dat", 64, 84, kCut, "OtherMac.dat 0 !field"},
        {"master-many.dat", 84, 140, kCut, "OtherMac.dat 65280 !field"},
        {"master-many.dat", 140, 200, kCut, "OtherMac.dat 65280 3;1;1;43981;0;2;9;8;!field"},
        {"master-many.dat", 200, 224, kCut, "OtherMac.dat 65280 3;1;1;43981;0;2;9;8;KxRl0001.dat,!field"},
        {"master-many.dat", 224, 264, kCut, "OtherMac.dat 65280 3;1;1;43981;0;2;9;8;KxRl0001.dat,,!field"},
        {"master.dat", 4, 0, 0x00010000, " 0 !version"},
        {"master.dat", 124, 0, 0, "KxRulMac.dat 2 1;"}, // what follows is ignored
        {"master.dat", 124, 0, 2, "KxRulMac.dat 2 1;KxRl0001.dat,!field"},
        {"master.dat", 124, 0, 0x80000000, "KxRulMac.dat 2 1;KxRl0001.dat,!field"},
        {"macros.dat", 4, 104, kCut, "!field"},
        {"macros.dat", 104, 164, kCut, "none=0 !field"},
        {"macros.dat", 164, 1496, kCut, "none=0 !item"},
        {"macros.dat", 1496, 1540, kCut, "none=0 nine=9 !field"},
        {"macros.dat", 1540, 1688, kCut, "none=0 nine=9 !item"},
        {"macros.dat", 24, 0, 2, "none=0 nine=9 "},
        {"macros.dat", 24, 0, 0x80000000, "none=0 nine=9 =1 !field"},
        {"macros.dat", 84, 0, 1, "!item"}, // the next name in place of the item
        {"macros.dat", 1520, 0, 0x80000000, "none=0 nine=9 !item"},
        {"ruleset.dat", 4, 44, kCut, "0  0!field"},
        {"ruleset.dat", 44, 84, kCut, "1  0!field"},
        {"ruleset.dat", 84, 104, kCut, "1 B?ro ?? 0!field"},
        {"ruleset.dat", 104, 104 + 2852, kCut, "1 B?ro ?? 0!item"},
        {"ruleset.dat", 104 + 2852, 104 + 2 * 2852, kCut, "1 B?ro ?? 1!item"},
        {"ruleset.dat", 84, 0, 2, "1 B?ro ?? 2"},
        {"ruleset.dat", 84, 0, 0x7FFFFFFF, "1 B?ro ?? 9!item"},
        {"ruleset.dat", 84, 0, 0x80000000, "1 B?ro ?? 0"}, // the number is a signed one
    };
    for (const auto& c : cases)
    {
        Bytes file = DataFile(c.File);
        const auto check = [&](const Bytes& bytes)
        {
            FileContent content;
            EXPECT_EQ(Read(c.File, bytes, content), c.Expected) << c.File << ", " << bytes.size() << ", " << c.Number;
        };
        for (size_t size = c.Begin; size < c.End; ++size)
            check(Bytes(file.data(), file.data() + size));
        if (c.Number == kCut)
            continue;
        MemoryStream number;
        ASSERT_TRUE(number.WriteU32(static_cast<uint32_t>(c.Number)).Finish());
        std::copy(number.Data.begin(), number.Data.end(), file.begin() + static_cast<ptrdiff_t>(c.Begin));
        check(file);
    }
}

TEST(FormatsTest, ExampleInTheDocument)
{
    std::ifstream document("docs/format.md");
    Bytes example;
    for (std::string line, word; std::getline(document, line);)
    {
        std::istringstream words(line); // an offset, the bytes there in one word or two, what they mean
        size_t at = 0;
        const size_t before = example.size();
        for (words >> at; words >> word && word.size() >= 8 && word.find_first_not_of("0123456789abcdef") == word.npos;)
        {
            const Bytes bytes = FromHex(word);
            example.insert(example.end(), bytes.begin(), bytes.end());
        }
        EXPECT_TRUE(at == before || example.size() == before) << line;
    }
    EXPECT_EQ(example, DataFile("master.dat"));
}

} // namespace
