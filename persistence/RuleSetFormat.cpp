// A rule set file: the set's index and name, then its rules. docs/format.md, "Rule set files".
#include "persistence/RuleSetFormat.h"

#include <algorithm>
#include <vector>

#include "persistence/FileFormat.h"

namespace RuleSetFormat
{

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

int32_t RuleCount(const Header& header) noexcept
{
    return std::max(static_cast<int32_t>(header.RuleCount), 0);
}

bool ReadRule(CEncryptStream& stream, PFW_RULE& rule)
{
    return stream.Read(&rule, sizeof rule, true);
}

FileDefect ReadBody(CEncryptStream& stream, uint32_t version, Header& header,
                    const std::function<void(const PFW_RULE&)>& take)
{
    try
    {
        ReadHeader(stream, version, header);
        PFW_RULE rule;
        for (int32_t i = version == FileFormat::kOldVersion ? 0 : RuleCount(header); i > 0; --i)
        {
            if (!ReadRule(stream, rule))
                return FileDefect::DamagedItem;
            take(rule);
        }
        return header.Index == 0 ? FileDefect::NoIndex : FileDefect::None;
    }
    catch (CEncryptStream::Exception)
    {
        return FileDefect::Damaged;
    }
}

void WriteHeader(CEncryptStream& stream, const Header& header)
{
    stream.WriteVersion().WriteU16(header.Index).WriteString(header.Name).WriteU32(header.RuleCount);
}

bool WriteRules(CEncryptStream& stream, const PFW_RULE* const rules[], size_t count)
{
    const std::vector<const void*> records(rules, rules + count); // all in one call: the stream then knows the size
    return stream.WriteRecords(records.data(), count, sizeof(PFW_RULE));
}

} // namespace RuleSetFormat
