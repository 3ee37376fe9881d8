// All three formats against the files of tests/data, which another AES made.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "common/srclib/KxComn_Names.h"
#include "persistence/FileFormat.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleSetFormat.h"
#include "tests/support/Hex.h"
#include "tests/support/MemoryStream.h"

namespace
{

Bytes DataFile(const std::string& name) // tests run in the root of the tree
{
    std::ifstream stream("tests/data/" + name, std::ios::binary);
    EXPECT_TRUE(stream) << name;
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

// The content of a file whose kind its name tells.
struct Content
{
    explicit Content(const std::string& name) : IsMaster(name.starts_with("master")), IsMacro(name.starts_with("macro"))
    {
    }
    bool IsMaster, IsMacro;
    MasterFields Master{"", 0, {}, {}};
    std::list<CMacro> Macros;
    RuleSetFormat::Header Set;
    std::vector<PFW_RULE> Rules;

    // What has been read, as text, and behind it how the reading ended unless it went well.
    std::string Read(const Bytes& file)
    {
        MemoryStream stream(file);
        const char* end = "";
        try
        {
            char magic[4];
            if (IsMaster && MasterFormat::ReadHead(stream) != MasterFormat::Head::Good)
                return "refused";
            if (IsMaster)
                MasterFormat::ReadFields(stream, Master);
            else if (!stream.Read(magic, sizeof magic, false) || !ReadRest(stream, RuleSetFormat::ReadVersion(stream)))
                end = " !item";
        }
        catch (CEncryptStream::Exception exception)
        {
            EXPECT_EQ(exception, CEncryptStream::ReadError);
            end = " !field";
        }
        return Describe() + end;
    }

    bool ReadRest(CEncryptStream& stream, uint32_t version)
    {
        if (IsMacro)
            return MacroFormat::ReadMacros(stream, Macros);
        RuleSetFormat::ReadHeader(stream, version, Set);
        const auto take = [this](const PFW_RULE& rule) { Rules.push_back(rule); };
        return version == FileFormat::kOldVersion || RuleSetFormat::ReadRules(stream, Set, take);
    }

    std::string Describe() const
    {
        std::ostringstream out;
        if (IsMaster)
        {
            out << Master.MacroFileName << ' ' << Master.NextIndex << " [";
            for (const uint16_t index : Master.ActiveRuleSets)
                out << index << ' ';
            out << ']';
            for (const std::string& name : Master.RuleSetFileNames)
                out << ' ' << name << ',';
        }
        else if (IsMacro)
            for (const CMacro& macro : Macros)
                out << ' ' << macro.Name() << '=' << macro.Items().size();
        else
            out << Set.Index << ' ' << KxCommon::String::ToNarrow(Set.Name) << ' ' << Rules.size();
        return out.str();
    }

    Bytes Write(size_t failAt = MemoryStream::kNever) const
    {
        MemoryStream stream;
        stream.FailAt = failAt;
        EXPECT_TRUE(stream.Write(IsMaster ? "KRSM" : IsMacro ? "KMAC" : "KRSF", 4, false));
        std::vector<const PFW_RULE*> rules;
        for (const PFW_RULE& rule : Rules)
            rules.push_back(&rule);
        bool isWritten = true;
        if (IsMaster)
            MasterFormat::WriteFields(stream, Master);
        else if (IsMacro)
            isWritten = MacroFormat::WriteMacros(stream, Macros);
        else
        {
            RuleSetFormat::WriteHeader(stream, Set);
            isWritten = RuleSetFormat::WriteRules(stream, rules.data(), rules.size());
        }
        return isWritten && stream.Finish() ? stream.Data : Bytes();
    }
};

TEST(FormatsTest, ReadsAndWritesTheFilesOfAnotherCipher)
{
    const struct
    {
        const char* File;
        size_t Size;
        const char* Content;
    } cases[] = {
        {"master-empty.dat", 128, "KxRulMac.dat 1 []"},
        {"master.dat", 184, "KxRulMac.dat 2 [1 ] KxRl0001.dat,"},
        {"master-many.dat", 264, "OtherMac.dat 65280 [3 1 1 43981 0 2 9 8 ] KxRl0001.dat, , KxRl00AB.dat,"},
        {"macros-empty.dat", 44, ""},
        {"macros.dat", 1688, " none=0 nine=9 =1"},
        {"ruleset-empty.dat", 88, "171  0"},
        {"ruleset.dat", 104 + 9 * 2852, "1 B?ro ?? 9"},
    };
    for (const auto& c : cases)
    {
        const Bytes file = DataFile(c.File);
        EXPECT_EQ(file.size(), c.Size) << c.File;
        Content content(c.File);
        EXPECT_EQ(content.Read(file), c.Content) << c.File;
        EXPECT_EQ(content.Write(), file) << c.File; // so every byte was read
    }
    EXPECT_EQ(Content("ruleset").Read(DataFile("ruleset-old.dat")), "7 Old 0");
}

TEST(FormatsTest, CutAtEveryLengthKeepsWhatStandsBeforeTheCut)
{
    const struct
    {
        const char* File;
        size_t End; // the first length that reads otherwise
        const char* Content;
    } cases[] = {
        {"master-many.dat", 4, "refused"},
        {"master-many.dat", 64, " 0 [] !field"},
        {"master-many.dat", 84, "OtherMac.dat 0 [] !field"},
        {"master-many.dat", 140, "OtherMac.dat 65280 [] !field"},
        {"master-many.dat", 200, "OtherMac.dat 65280 [3 1 1 43981 0 2 9 8 ] !field"},
        {"master-many.dat", 224, "OtherMac.dat 65280 [3 1 1 43981 0 2 9 8 ] KxRl0001.dat, !field"},
        {"master-many.dat", 264, "OtherMac.dat 65280 [3 1 1 43981 0 2 9 8 ] KxRl0001.dat, , !field"},
        {"macros.dat", 104, " !field"},
        {"macros.dat", 164, " none=0 !field"},
        {"macros.dat", 1496, " none=0 !item"},
        {"macros.dat", 1540, " none=0 nine=9 !field"},
        {"macros.dat", 1688, " none=0 nine=9 !item"},
        {"ruleset.dat", 44, "0  0 !field"},
        {"ruleset.dat", 84, "1  0 !field"},
        {"ruleset.dat", 104, "1 B?ro ?? 0 !field"},
        {"ruleset.dat", 104 + 2852, "1 B?ro ?? 0 !item"},
        {"ruleset.dat", 104 + 2 * 2852, "1 B?ro ?? 1 !item"},
    };
    std::string name;
    size_t size = 0;
    for (const auto& c : cases)
    {
        size = name == c.File ? size : 0;
        name = c.File;
        const Bytes file = DataFile(name);
        for (; size < c.End; ++size)
            EXPECT_EQ(Content(name).Read(Bytes(file.begin(), file.begin() + static_cast<ptrdiff_t>(size))), c.Content)
                << name << " cut at " << size;
    }
}

TEST(FormatsTest, HostileNumbers)
{
    const struct
    {
        const char* File;
        size_t Offset;
        uint32_t Value;
        const char* Content;
    } cases[] = {
        {"master.dat", 4, 0x00010000, "refused"},
        {"master.dat", 4, 0x00020001, "refused"},
        {"master.dat", 24, 0xFFFFFFFF, " 0 [] !field"},
        {"master.dat", 84, 0x80000000, "KxRulMac.dat 2 [] !field"}, // as bytes more than 32 bits hold
        {"master.dat", 84, 0xFFFFFFFF, "KxRulMac.dat 2 [] !field"},
        {"master.dat", 124, 0, "KxRulMac.dat 2 [1 ]"}, // what follows is ignored
        {"master.dat", 124, 2, "KxRulMac.dat 2 [1 ] KxRl0001.dat, !field"},
        {"master.dat", 124, 0x80000000, "KxRulMac.dat 2 [1 ] KxRl0001.dat, !field"},
        {"master.dat", 124, 0xFFFFFFFF, "KxRulMac.dat 2 [1 ] KxRl0001.dat, !field"},
        {"macros.dat", 24, 2, " none=0 nine=9"},
        {"macros.dat", 24, 0x80000000, " none=0 nine=9 =1 !field"},
        {"macros.dat", 24, 0xFFFFFFFF, " none=0 nine=9 =1 !field"},
        {"macros.dat", 84, 1, " !item"}, // the next name in place of the item
        {"macros.dat", 1520, 0x80000000, " none=0 nine=9 !item"},
        {"macros.dat", 1520, 0xFFFFFFFF, " none=0 nine=9 !item"},
        {"ruleset.dat", 44, 0xFFFFFFFF, "1  0 !field"},
        {"ruleset.dat", 84, 2, "1 B?ro ?? 2"},
        {"ruleset.dat", 84, 0x7FFFFFFF, "1 B?ro ?? 9 !item"},
        {"ruleset.dat", 84, 0x80000000, "1 B?ro ?? 0"}, // the number is a signed one
        {"ruleset.dat", 84, 0xFFFFFFFF, "1 B?ro ?? 0"},
    };
    for (const auto& c : cases)
    {
        Bytes file = DataFile(c.File);
        MemoryStream number;
        ASSERT_TRUE(number.WriteU32(c.Value).Finish());
        std::copy(number.Data.begin(), number.Data.end(), file.begin() + static_cast<ptrdiff_t>(c.Offset));
        EXPECT_EQ(Content(c.File).Read(file), c.Content) << c.File << " at " << c.Offset << ": " << c.Value;
    }
}

TEST(FormatsTest, HeadOfTheMasterFile)
{
    using MasterFormat::Head;
    const struct
    {
        const char* File;
        size_t FailAt;
        Head Expected;
    } cases[] = {{"", MemoryStream::kNever, Head::WrongMagic},
                 {"KRS", MemoryStream::kNever, Head::WrongMagic},
                 {"KRSF", MemoryStream::kNever, Head::WrongMagic},
                 {"krsm", MemoryStream::kNever, Head::WrongMagic},
                 {"KRSM", 0, Head::Unreadable}};
    for (const auto& c : cases)
    {
        MemoryStream stream(Bytes(c.File, c.File + std::strlen(c.File)));
        stream.FailAt = c.FailAt;
        EXPECT_EQ(MasterFormat::ReadHead(stream), c.Expected) << c.File;
    }
}

// The stream gathers bytes, so that only more than it gathers show the failure here.
TEST(FormatsTest, ItemThatCannotBeWritten)
{
    Content macros("macros");
    macros.Macros.emplace_back("", std::vector<MACRO_ITEM>(10000));
    EXPECT_EQ(macros.Write(1000), Bytes());
    Content ruleSet("ruleset");
    ruleSet.Rules.resize(KXRULE_MAX_RULES);
    EXPECT_EQ(ruleSet.Write(1000), Bytes());
}

TEST(FormatsTest, ExampleInTheDocument)
{
    std::ifstream document("docs/format.md");
    const std::regex field(" *([0-9]+)  ([0-9a-f ]+)  [^ ].*");
    Bytes example;
    std::smatch match;
    for (std::string line; std::getline(document, line);)
        if (std::regex_match(line, match, field))
        {
            EXPECT_EQ(std::stoul(match[1]), example.size()) << line;
            const Bytes bytes = FromHex(match[2].str());
            example.insert(example.end(), bytes.begin(), bytes.end());
        }
    EXPECT_EQ(example, DataFile("master.dat"));
}

} // namespace
