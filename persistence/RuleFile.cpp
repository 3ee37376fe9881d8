// A whole rule file of whichever kind.
#include "persistence/RuleFile.h"

#include <algorithm>

FileDefect RuleFile::Read(CEncryptStream& stream, std::optional<FileKind> kind, bool keepsRules)
{
    Head = kind ? ReadHead(stream, *kind) : ReadHead(stream);
    if (Head.Defect != FileDefect::None)
        return Head.Defect;
    const auto take = [&](const PFW_RULE& rule)
    {
        if (keepsRules && Rules.empty()) // all at once, as far as a set may have them
            Rules.reserve(static_cast<size_t>(std::min(RuleSetFormat::RuleCount(Set), KXRULE_MAX_RULES)));
        if (keepsRules)
            Rules.push_back(rule);
    };
    return Head.Defect = Head.Kind == FileKind::Master   ? MasterFormat::ReadBody(stream, Master)
                         : Head.Kind == FileKind::Macros ? MacroFormat::ReadBody(stream, Macros)
                                                         : RuleSetFormat::ReadBody(stream, Head.Version, Set, take);
}
