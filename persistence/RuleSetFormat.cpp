// A rule set file: the set's index and name, then its rules. docs/format.md, "Rule set files".
#include "persistence/RuleSetFormat.h"

#include <algorithm>
#include <iterator>

#include "persistence/Aes128.h"
#include "persistence/FileFormat.h"

namespace RuleSetFormat
{

uint32_t ReadVersion(CEncryptStream& stream)
{
    uint32_t version = 0;
    stream.ReadU32(version);
    return version;
}

void ReadHeader(CEncryptStream& stream, uint32_t version, Header& header)
{
    stream.ReadU16(header.Index);
    if (version == FileFormat::kOldVersion)
    {
        std::string name;
        stream.ReadString(name);
        header.Name = KxCommon::String::ToWide(name);
    }
    else
    {
        stream.ReadString(header.Name);
    }
    stream.ReadU32(header.RuleCount);
}

bool ReadRules(CEncryptStream& stream, const Header& header, const std::function<void(const PFW_RULE&)>& take)
{
    // kept: a count with the top bit set is negative and means no rules, as it always did.
    const int32_t count = static_cast<int32_t>(header.RuleCount);
    PFW_RULE rule;
    for (int32_t i = 0; i < count; ++i)
    {
        if (!stream.Read(&rule, sizeof rule, true))
            return false;
        take(rule);
    }
    return true;
}

void WriteHeader(CEncryptStream& stream, const Header& header)
{
    stream.WriteVersion().WriteU16(header.Index).WriteString(header.Name).WriteU32(header.RuleCount);
}

bool WriteRules(CEncryptStream& stream, const PFW_RULE* const rules[], size_t count)
{
    const void* batch[Aes128::kMostChains];
    for (size_t begin = 0; begin < count; begin += std::size(batch))
    {
        const size_t length = std::min(std::size(batch), count - begin);
        std::copy_n(rules + begin, length, batch);
        if (!stream.WriteRecords(batch, length, sizeof(PFW_RULE)))
            return false;
    }
    return true;
}

} // namespace RuleSetFormat
