// A whole rule file of any kind.
#include "persistence/RuleFile.h"

FileDefect RuleFile::Read(CEncryptStream& stream, std::optional<FileKind> kind, bool wantsRules)
{
    Head = kind ? ReadHead(stream, *kind) : ReadHead(stream);
    if (Head.Defect != FileDefect::None)
        return Head.Defect;
    const auto take = [&](const PFW_RULE& rule)
    {
        if (wantsRules) // nothing is reserved for the count that the file states
            Rules.push_back(rule);
    };
    return Head.Defect = Head.Kind == FileKind::Master   ? MasterFormat::ReadBody(stream, Master)
                         : Head.Kind == FileKind::Macros ? MacroFormat::ReadBody(stream, Macros)
                                                         : RuleSetFormat::ReadBody(stream, Head.Version, Set, take);
}
