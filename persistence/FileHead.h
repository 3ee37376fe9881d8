// The head of a rule file, the same in all three kinds: a magic number of four plain bytes, and the version.
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
    Missing,      // does not exist, or cannot be opened for a reason that is not temporary
    Busy,         // open in another program for longer than the library waits: it exists and may be undamaged
    Unreadable,   // the system cannot read its first bytes
    WrongMagic,   // or the file is shorter than that
    WrongVersion, // one that this kind does not have
    Damaged,      // a field cannot be read
    DamagedItem,  // a rule or a macro's item cannot be read
    NoIndex       // a rule set with index 0, which means "none" and "all" everywhere else
};

/// The first four bytes of a file of that kind.
[[nodiscard]] const char* MagicOf(FileKind kind) noexcept;

struct FileHead
{
    bool IsKnown = false; // the magic is one of the three
    FileKind Kind = FileKind::Master;
    uint32_t Version = 0;
    FileDefect Defect = FileDefect::None; // None, Unreadable, WrongMagic, WrongVersion or Damaged
};

/// Reads the head of a file of any kind. Throws only std::bad_alloc, if the system lacks memory.
[[nodiscard]] FileHead ReadHead(CEncryptStream& stream);
/// The same for a file of a given kind; another kind's magic number is a wrong one.
[[nodiscard]] FileHead ReadHead(CEncryptStream& stream, FileKind expected);
