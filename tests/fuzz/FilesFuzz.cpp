// Bytes as each of the three files, through the readers of persistence/. An input is a head of five bytes (which file,
// how its content is given, how the system gives the bytes) and the content: either the file as it lies on the disk, or
// its fields before encryption, since hardly any change of an encrypted field leaves its padding good.
#include "persistence/FileFormat.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleSetFormat.h"
#include "repository/RuleSet.h"
#include "repository/RuleSetRescue.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/MemoryStream.h"

namespace
{

using Bytes = std::vector<uint8_t>;

constexpr size_t kMostBytes = 300000;  // of a file: more than one piece of the stream
constexpr size_t kMostMemory = 600000; // for reading, beside what grows with the file
constexpr size_t kMostGrowth = 8;      // bytes of memory for a byte of the file: small names and items weigh most

enum class Kind
{
    Master,
    Macros,
    RuleSet
};

bool SameBytes(const void* a, const void* b, size_t size)
{
    return size == 0 || std::memcmp(a, b, size) == 0;
}

struct Content
{
    MasterFields Master{"", 0, {}, {}};
    std::list<CMacro> Macros;
    RuleSetFormat::Header Set;
    std::vector<PFW_RULE> Rules;

    /// False when the reading was refused or ended early. What was read is there in any case.
    bool Read(Kind kind, CEncryptStream& stream)
    {
        try
        {
            if (kind == Kind::Master)
            {
                if (MasterFormat::ReadHead(stream) != MasterFormat::Head::Good)
                    return false;
                MasterFormat::ReadFields(stream, Master);
                return true;
            }
            char magic[FileFormat::kMagicBytes] = {};
            const char* const expected = kind == Kind::Macros ? FileFormat::kMacroMagic : FileFormat::kRuleSetMagic;
            if (!stream.Read(magic, sizeof magic, false) || !SameBytes(magic, expected, sizeof magic))
                return false;
            const uint32_t version = RuleSetFormat::ReadVersion(stream);
            const bool isOld = kind == Kind::RuleSet && version == FileFormat::kOldVersion;
            if (version != FileFormat::kVersion && !isOld)
                return false;
            if (kind == Kind::Macros)
                return MacroFormat::ReadMacros(stream, Macros);
            RuleSetFormat::ReadHeader(stream, version, Set);
            for (int32_t left = isOld ? 0 : RuleSetFormat::RuleCount(Set); left > 0; --left)
            {
                PFW_RULE rule;
                if (!RuleSetFormat::ReadRule(stream, rule))
                    return false;
                Rules.push_back(rule);
            }
            return true;
        }
        catch (CEncryptStream::Exception exception)
        {
            KX_REQUIRE(exception == CEncryptStream::ReadError);
            return false;
        }
    }

    Bytes Write(Kind kind) const
    {
        MemoryStream stream;
        std::vector<const PFW_RULE*> rules;
        for (const PFW_RULE& rule : Rules)
            rules.push_back(&rule);
        const char* const magics[] = {FileFormat::kMasterMagic, FileFormat::kMacroMagic, FileFormat::kRuleSetMagic};
        bool isWritten = stream.Write(magics[static_cast<size_t>(kind)], FileFormat::kMagicBytes, false);
        switch (kind)
        {
        case Kind::Master:
            MasterFormat::WriteFields(stream, Master);
            break;
        case Kind::Macros:
            isWritten = isWritten && MacroFormat::WriteMacros(stream, Macros);
            break;
        case Kind::RuleSet:
            RuleSetFormat::WriteHeader(stream, {Set.Index, Set.Name, static_cast<uint32_t>(rules.size())});
            isWritten = isWritten && RuleSetFormat::WriteRules(stream, rules.data(), rules.size());
            break;
        }
        KX_REQUIRE(isWritten && stream.Finish());
        return std::move(stream.Data);
    }

    bool operator==(const Content& other) const
    {
        const auto same = [](const CMacro& a, const CMacro& b)
        {
            return a.Name() == b.Name() && a.Items().size() == b.Items().size() &&
                   SameBytes(a.Items().data(), b.Items().data(), a.Items().size() * sizeof(MACRO_ITEM));
        };
        return Master.MacroFileName == other.Master.MacroFileName && Master.NextIndex == other.Master.NextIndex &&
               Master.ActiveRuleSets == other.Master.ActiveRuleSets &&
               Master.RuleSetFileNames == other.Master.RuleSetFileNames &&
               std::equal(Macros.begin(), Macros.end(), other.Macros.begin(), other.Macros.end(), same) &&
               Set.Index == other.Set.Index && Set.Name == other.Set.Name && Rules.size() == other.Rules.size() &&
               SameBytes(Rules.data(), other.Rules.data(), Rules.size() * sizeof(PFW_RULE));
    }
};

/// Fields as the input lists them: size, bytes given (zeroes follow), the bytes; the first four bytes are plain.
Bytes Encrypted(Fuzz::Input& input)
{
    MemoryStream stream;
    const Bytes magic = input.TakeBytes(FileFormat::kMagicBytes);
    bool isWritten = stream.Write(magic.data(), FileFormat::kMagicBytes, false);
    for (size_t written = 0; input.Left() > 0 && written < kMostBytes;)
    {
        const uint16_t size = input.Take<uint16_t>();
        Bytes field = input.TakeBytes(std::min<size_t>(size, input.Take<uint8_t>()));
        field.resize(size);
        isWritten = isWritten && stream.Write(field.data(), size, true);
        written += size;
    }
    KX_REQUIRE(isWritten && stream.Finish());
    return std::move(stream.Data);
}

/// A set in memory of what was read: what is broken becomes a rescue set, as in the store.
void PutIntoSet(const Content& content, bool isWhole)
{
    CRuleSet ruleSet;
    ruleSet.SetIndex(content.Set.Index);
    ruleSet.SetName(content.Set.Name);
    for (const PFW_RULE& rule : content.Rules)
        ruleSet.PutRule(rule);
    const int32_t before = ruleSet.RuleCount();
    KX_REQUIRE(before >= 0 && static_cast<size_t>(before) <= content.Rules.size());
    if (!isWhole)
        RuleSetRescue::MakeRescueSet(ruleSet);
    KX_REQUIRE(ruleSet.RuleCount() >= before && ruleSet.RuleCount() <= before + (isWhole ? 0 : 3));

    Bytes record(KXRULE_RULESET_BYTES(ruleSet.RuleCount()));
    ruleSet.CopyRecord(reinterpret_cast<PFW_RULESET*>(record.data()), ruleSet.RuleCount());
    const CRuleSet again(*reinterpret_cast<const PFW_RULESET*>(record.data()));
    KX_REQUIRE(again.RuleIndexes() == ruleSet.RuleIndexes());
    for (const uint16_t index : again.RuleIndexes())
    {
        KX_REQUIRE(again.FindRule(index)->Record().wRuleIndex == index);
        KX_REQUIRE(SameBytes(&again.FindRule(index)->Record(), &ruleSet.FindRule(index)->Record(), sizeof(PFW_RULE)));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::Input input(data, size);
    const Kind kind = static_cast<Kind>(input.Take<uint8_t>() % 3);
    const bool isEncrypted = input.Take<uint8_t>() % 2 == 0;
    const uint8_t atOnce = input.Take<uint8_t>();
    const uint16_t failAt = input.Take<uint16_t>();
    const Bytes file = isEncrypted ? input.TakeBytes(input.Left()) : Encrypted(input);

    Content content;
    bool isWhole;
    {
        MemoryStream stream(file);
        const Fuzz::MemoryBound bound(kMostMemory + kMostGrowth * file.size());
        isWhole = content.Read(kind, stream);
    }
    if (kind == Kind::RuleSet)
        PutIntoSet(content, isWhole);
    for (const std::string& name : content.Master.RuleSetFileNames)
        static_cast<void>(RuleSetRescue::IndexFromFileName(name));

    // In whatever pieces the system gives the bytes, and what a system failed to give is missing at the end only.
    Content other;
    MemoryStream stream(file);
    stream.MostAtOnce = atOnce == 0 ? MemoryStream::kNever : atOnce * (1 + file.size() / 4096); // a large one in time
    stream.FailAt = failAt == 0 ? MemoryStream::kNever : failAt;
    const bool isOtherWhole = other.Read(kind, stream);
    if (stream.FailAt == MemoryStream::kNever || isOtherWhole)
        KX_REQUIRE(isOtherWhole == isWhole && other == content);
    KX_REQUIRE(other.Rules.size() <= content.Rules.size() && other.Macros.size() <= content.Macros.size());

    // Whatever was read can be written, and is then read whole and the same.
    MemoryStream written(content.Write(kind));
    Content again;
    KX_REQUIRE(again.Read(kind, written) && again == content);
    return 0;
}
