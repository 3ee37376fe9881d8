// Bytes as each of the three files, through the readers of persistence/. An input is a head of five bytes (which file,
// how its content is given, how the system gives the bytes) and the content: either the file as it is on the disk, or
// its fields before encryption, since hardly any change of an encrypted field leaves its padding valid.
#include "persistence/RuleFileNames.h"
#include "repository/RuleSet.h"
#include "repository/RuleSetRescue.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/FileContent.h"

namespace
{

using Bytes = std::vector<uint8_t>;
using Kind = FileContent::Kind;

constexpr size_t kMostBytes = 300000; // of a file: more than one piece of the stream

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

/// A set in memory of what was read: a damaged one becomes a rescue set, as in the store.
void PutIntoSet(const FileContent& content, bool isWhole)
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
        KX_REQUIRE(
            std::memcmp(&again.FindRule(index)->Record(), &ruleSet.FindRule(index)->Record(), sizeof(PFW_RULE)) == 0);
    }
}

} // namespace

extern "C" int FilesFuzz(const uint8_t* data, size_t size)
{
    Fuzz::Input input(data, size);
    const Kind kind = static_cast<Kind>(input.Take<uint8_t>() % 3);
    const bool isEncrypted = input.Take<uint8_t>() % 2 == 0;
    const uint8_t atOnce = input.Take<uint8_t>();
    const uint16_t failAt = input.Take<uint16_t>();
    const Bytes file = isEncrypted ? input.TakeBytes(input.Left()) : Encrypted(input);

    FileContent content;
    bool isWhole;
    {
        MemoryStream stream(file);
        constexpr size_t most = 600000; // for reading, beside what grows with the file
        constexpr size_t growth = 8;    // bytes of memory for a byte of the file: small names and items weigh most
        const Fuzz::MemoryBound bound(most + growth * file.size());
        isWhole = content.Read(kind, stream).empty();
    }
    if (kind == Kind::RuleSet)
        PutIntoSet(content, isWhole);
    for (const std::string& name : content.Master.RuleSetFileNames)
        static_cast<void>(RuleFiles::IndexFromFileName(name));

    // In whatever pieces the system delivers the bytes; bytes that it failed to deliver are missing only at the end.
    FileContent other;
    MemoryStream stream(file);
    stream.MostAtOnce = atOnce == 0 ? MemoryStream::kNever : atOnce * (1 + file.size() / 4096); // a large one in time
    stream.FailAt = failAt == 0 ? MemoryStream::kNever : failAt;
    const bool isOtherWhole = other.Read(kind, stream).empty();
    if (stream.FailAt == MemoryStream::kNever || isOtherWhole)
        KX_REQUIRE(isOtherWhole == isWhole && other == content);
    KX_REQUIRE(other.Rules.size() <= content.Rules.size() && other.Macros.size() <= content.Macros.size());

    // Whatever was read can be written, and is then read back unchanged.
    MemoryStream written(content.Write(kind));
    FileContent again;
    KX_REQUIRE(again.Read(kind, written).empty() && again == content);
    return 0;
}
