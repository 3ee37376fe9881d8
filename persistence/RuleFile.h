// What is in one rule file of whichever kind: the one reader of whole files for those who look into files without a
// store.
#pragma once

#include <optional>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "persistence/FileHead.h"
#include "persistence/MacroFormat.h"
#include "persistence/MasterFormat.h"
#include "persistence/RuleSetFormat.h"

/// After a defect the fields hold what lay before it.
struct RuleFile
{
    FileHead Head; // its defect is what ended the reading
    MasterFields Master;
    std::vector<MacroFields> Macros;
    RuleSetFormat::Header Set;
    std::vector<PFW_RULE> Rules; // in the order of the file

    /// Reads a file from its head on. Without a kind the magic decides which it is; of a file that is to be of a kind,
    /// another's magic is a defect. A reader who only asks whether a file is whole has no use for the rules.
    FileDefect Read(CEncryptStream& stream, std::optional<FileKind> kind = {}, bool keepsRules = true);
};
