// A rule directory as a read would find it, without a store and without changing anything.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "persistence/Recovery.h"
#include "persistence/RuleDirectory.h"
#include "persistence/RuleFile.h"

/// One file, read without excluding other programs.
struct LookedAt
{
    std::string Name;
    RuleFile File;
    uint64_t Bytes = 0;
    uint32_t Error = 0; // the system's, for a file that could not be opened

    [[nodiscard]] bool IsWhole() const noexcept { return File.Head.Defect == FileDefect::None; }
    [[nodiscard]] bool IsUnopened() const noexcept
    {
        return File.Head.Defect == FileDefect::Missing || File.Head.Defect == FileDefect::Busy;
    }
};

/// Without a kind, the magic decides which it is.
[[nodiscard]] LookedAt LookAt(const RuleDirectory& directory, const std::string& name,
                              std::optional<FileKind> kind = {}, CStreamBuffer* lent = nullptr);

enum class Sight
{
    Master,    // these three, in this order, are what kxRuleRead reads
    Macros,    //
    RuleSet,   // one that the master file lists
    MacroName, // of the master file: it names a macro file with an unusable name
    BadName,   // of the master file: it lists Name, which is not usable for a rule set file
    Twice,     // of the master file: it lists Name twice
    NoSuchSet, // of the master file: Index is active, but no file holds that rule set
    Unlisted,  // a rule set file that the master file does not list
    Temporary  // what an unfinished write has left
};

struct Surveyed : LookedAt
{
    Sight What = Sight::Master;
    uint16_t Index = 0;
    bool IsThere = true;        // there is something of that name, though it may not be a file
    Remedy Then = Remedy::GoOn; // what a read would do about a defect
    int32_t Result = KXRULE_OK; // what it would return then
    bool IsMoved = false;       // it would be moved away with the master file
    bool HasRescue = false;     // a rescue set would take its place
    bool IsRepeated = false;    // an earlier file has the same index; the later one counts
    bool IsOnlyCopy = false; // for files that are not read: it is whole, and no file that is read has the same contents
    size_t Position = 0, Last = 0; // among the rule set files that the master file lists
};

/// Reads every file once and retains none: take may move its contents out. NoSuchSet is not reported after a damaged
/// file, which may be the reason for it. May throw bad_alloc like CEncryptFile.
void Survey(const RuleDirectory& directory, const std::function<void(Surveyed&)>& take);
