// What happens to a file that cannot be used as it is: one table, for code that reads files and for code that predicts
// what a read would do. docs/recovery.md is this table in words.
#pragma once

#include <cstdint>

#include "api/include/KxPfwRule.h"
#include "persistence/FileHead.h"

enum class Remedy
{
    GoOn,   // go on without the file: a first start, or no macros
    Stop,   // the read fails with Result; nothing is moved or written
    BackUp, // master file: it and all rule set files move into a dated directory
    Rescue  // rule set file: it is copied, and a rescue set takes its place
};

struct Recovery
{
    FileKind Kind;
    FileDefect Defect;
    Remedy What;
    int32_t Result;   // of the operation that found it
    const char* Line; // its trace line; null: none of its own
    const char* Text; // master file: the text in brackets in the next line; null: none
};

inline constexpr Recovery kRecoveries[] = {
    // A missing master file beside rule set files is treated alike; without rule set files it is a first start.
    {FileKind::Master, FileDefect::Missing, Remedy::BackUp, KXRULE_OK,
     "Master file open failed. But ruleset file exists.", "Garbage ruleset file exists"},
    {FileKind::Master, FileDefect::Busy, Remedy::Stop, KXRULE_E_FILE_OPEN, nullptr, nullptr},
    {FileKind::Master, FileDefect::Unreadable, Remedy::BackUp, KXRULE_OK, "\tMasterFile read error", "Read fail"},
    {FileKind::Master, FileDefect::WrongMagic, Remedy::BackUp, KXRULE_OK, "\tMasterFile does not match magic",
     "Wrong magic"},
    {FileKind::Master, FileDefect::WrongVersion, Remedy::BackUp, KXRULE_OK, "\tMasterFile does not match file version",
     "Wrong version"},
    {FileKind::Master, FileDefect::Damaged, Remedy::BackUp, KXRULE_OK, "\tCEncryptFile exception occurs", nullptr},

    {FileKind::Macros, FileDefect::Missing, Remedy::GoOn, KXRULE_OK, nullptr, nullptr},
    {FileKind::Macros, FileDefect::Busy, Remedy::Stop, KXRULE_E_FILE_OPEN, nullptr, nullptr},
    {FileKind::Macros, FileDefect::Unreadable, Remedy::Stop, KXRULE_E_FILE_READ, "\tMacroFile read error", nullptr},
    {FileKind::Macros, FileDefect::WrongMagic, Remedy::Stop, KXRULE_E_MACRO_FORMAT, "\tMacroFile does not match magic",
     nullptr},
    // kept: these two lines about the macro file mention the master file.
    {FileKind::Macros, FileDefect::WrongVersion, Remedy::Stop, KXRULE_E_MACRO_FORMAT,
     "\tMasterFile does not match version", nullptr},
    {FileKind::Macros, FileDefect::DamagedItem, Remedy::Stop, KXRULE_E_FILE_READ, "\tMasterFile read value error",
     nullptr},
    {FileKind::Macros, FileDefect::Damaged, Remedy::Stop, KXRULE_E_FILE_READ, "\tCEncryptFile exception occurs",
     nullptr},

    {FileKind::RuleSet, FileDefect::Missing, Remedy::Rescue, KXRULE_E_FILE_OPEN, "\tFile open error", nullptr},
    {FileKind::RuleSet, FileDefect::Busy, Remedy::Rescue, KXRULE_E_FILE_OPEN, "\tFile open error", nullptr},
    {FileKind::RuleSet, FileDefect::Unreadable, Remedy::Rescue, KXRULE_E_FILE_READ, "\tFile read error", nullptr},
    {FileKind::RuleSet, FileDefect::WrongMagic, Remedy::Rescue, KXRULE_E_RULESET_FORMAT, "\tFile magic does not match",
     nullptr},
    {FileKind::RuleSet, FileDefect::WrongVersion, Remedy::Rescue, KXRULE_E_RULESET_FORMAT,
     "\tFile version does not match", nullptr},
    {FileKind::RuleSet, FileDefect::Damaged, Remedy::Rescue, KXRULE_E_FILE_READ, "\tCEncryptFile exception occurs",
     nullptr},
    {FileKind::RuleSet, FileDefect::DamagedItem, Remedy::Rescue, KXRULE_E_FILE_READ, "\tFile read error [Body]",
     nullptr},
    {FileKind::RuleSet, FileDefect::NoIndex, Remedy::Rescue, KXRULE_E_FILE_READ, "\tFile index is 0", nullptr},
};

/// The row for a defect that the kind of file can have; there is none for FileDefect::None.
[[nodiscard]] constexpr const Recovery& RecoveryOf(FileKind kind, FileDefect defect) noexcept
{
    const Recovery* found = &kRecoveries[1]; // anything unforeseen stops the read
    for (const Recovery& row : kRecoveries)
    {
        if (row.Kind == kind && row.Defect == defect)
            found = &row;
    }
    return *found;
}
static_assert(RecoveryOf(FileKind::Master, FileDefect::None).What == Remedy::Stop);
