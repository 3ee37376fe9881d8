// A whole rule file of whichever kind.
#include "persistence/RuleFile.h"

FileDefect RuleFile::Read(CEncryptStream& stream, std::optional<FileKind> kind, bool keepsRules)
{
    Head = kind ? ReadHead(stream, *kind) : ReadHead(stream);
    if (Head.Defect != FileDefect::None)
        return Head.Defect;
    const auto take = [&](const PFW_RULE& rule)
    {
        if (keepsRules) // the count that the file gives reserves nothing
            Rules.push_back(rule);
    };
    return Head.Defect = Head.Kind == FileKind::Master   ? MasterFormat::ReadBody(stream, Master)
                         : Head.Kind == FileKind::Macros ? MacroFormat::ReadBody(stream, Macros)
                                                         : RuleSetFormat::ReadBody(stream, Head.Version, Set, take);
}
