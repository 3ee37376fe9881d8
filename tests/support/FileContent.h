// What the three files hold, read and written through the formats of persistence/ alone.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "persistence/FileFormat.h"
#include "persistence/RuleFile.h"
#include "tests/support/MemoryStream.h"

/// Byte for byte; records of the interface have no operator of their own.
template <class Record>
bool SameRecords(const std::vector<Record>& a, const std::vector<Record>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Record)) == 0);
}

inline bool SameMacro(const MacroFields& a, const MacroFields& b)
{
    return a.Name == b.Name && SameRecords(a.Items, b.Items);
}

struct FileContent : RuleFile
{
    using Kind = FileKind;

    FileContent() { Master.NextIndex = 0; }

    /// What ended the reading early, or nothing. What was read is available in any case.
    std::string Read(Kind kind, CEncryptStream& stream)
    {
        switch (RuleFile::Read(stream, kind))
        {
        case FileDefect::None:
        case FileDefect::NoIndex:
            return "";
        case FileDefect::WrongMagic:
        case FileDefect::Unreadable:
            return "!magic";
        case FileDefect::WrongVersion:
            return "!version";
        case FileDefect::DamagedItem:
            return "!item";
        default:
            return "!field";
        }
    }

    /// The file's bytes; none when it could not be written.
    [[nodiscard]] std::vector<uint8_t> Write(Kind kind, size_t failAt = MemoryStream::kNever) const
    {
        MemoryStream stream;
        stream.FailAt = failAt;
        bool isWritten = stream.Write(MagicOf(kind), FileFormat::kMagicBytes, false);
        if (kind == Kind::Master)
            MasterFormat::WriteFields(stream, Master);
        else if (kind == Kind::Macros)
        {
            MacroFormat::WriteHead(stream, static_cast<uint32_t>(Macros.size()));
            for (const MacroFields& macro : Macros)
                isWritten = isWritten && MacroFormat::WriteMacro(stream, macro.Name, macro.Items);
        }
        else
        {
            std::vector<const PFW_RULE*> rules;
            for (const PFW_RULE& rule : Rules)
                rules.push_back(&rule);
            RuleSetFormat::WriteHeader(stream, {Set.Index, Set.Name, static_cast<uint32_t>(rules.size())});
            isWritten = isWritten && RuleSetFormat::WriteRules(stream, rules.data(), rules.size());
        }
        return isWritten && stream.Finish() ? std::move(stream.Data) : std::vector<uint8_t>();
    }

    bool operator==(const FileContent& other) const
    {
        return Master.MacroFileName == other.Master.MacroFileName && Master.NextIndex == other.Master.NextIndex &&
               Master.ActiveRuleSets == other.Master.ActiveRuleSets &&
               Master.RuleSetFileNames == other.Master.RuleSetFileNames &&
               std::equal(Macros.begin(), Macros.end(), other.Macros.begin(), other.Macros.end(), SameMacro) &&
               Set.Index == other.Set.Index && Set.Name == other.Set.Name && SameRecords(Rules, other.Rules);
    }
};
