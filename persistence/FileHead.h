// The head of a rule file, the same in all three kinds: a magic of four plain bytes and the version.
#pragma once

#include <cstdint>

#include "persistence/EncryptStream.h"

enum class FileKind
{
    Master,
    Macros,
    RuleSet
};

/// What can be wrong with a rule file, in the order in which a reader finds it.
enum class FileDefect
{
    None,
    Missing,      // not there, or not to be opened for a reason that does not pass
    Busy,         // held by somebody for longer than the library waits: it is there, and may be whole
    Unreadable,   // the system refuses its first bytes
    WrongMagic,   // a shorter file too
    WrongVersion, // one that this kind does not have
    Damaged,      // a field cannot be read
    DamagedItem,  // a rule or a macro's item cannot be read
    NoIndex       // a rule set with index 0, which means "none" and "all" everywhere else
};

/// The four bytes in front of a file of a kind.
[[nodiscard]] const char* MagicOf(FileKind kind) noexcept;

struct FileHead
{
    bool IsKnown = false; // the magic is one of the three
    FileKind Kind = FileKind::Master;
    uint32_t Version = 0;
    FileDefect Defect = FileDefect::None; // None, Unreadable, WrongMagic, WrongVersion or Damaged
};

/// Reads the head of a file of whatever kind. Throws nothing but what the system's lack of memory throws.
[[nodiscard]] FileHead ReadHead(CEncryptStream& stream);
/// The same for a file that is to be of a kind; another kind's magic is a wrong one.
[[nodiscard]] FileHead ReadHead(CEncryptStream& stream, FileKind expected);
