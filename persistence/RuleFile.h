// The contents of one rule file of any kind: the only reader of whole files for code that reads files without a store.
#pragma once

#include <optional>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "persistence/FileHead.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleSetFormat.h"

/// After a defect, the fields hold what precedes it.
struct RuleFile
{
    FileHead Head; // its defect is what ended reading
    MasterFields Master;
    std::vector<MacroFields> Macros;
    RuleSetFormat::Header Set;
    std::vector<PFW_RULE> Rules; // in the order of the file

    /// Reads a file from its head on. Without a kind, the magic decides which it is; with one, the magic of another is
    /// a defect. A caller that only needs to know whether a file is whole has no use for the rules.
    FileDefect Read(CEncryptStream& stream, std::optional<FileKind> kind = {}, bool wantsRules = true);
};
