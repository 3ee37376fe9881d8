// Constants of the three file formats, for readers and writers alike. docs/format.md describes the files byte by byte.
// All of them are on customers' disks: none may ever change.
#pragma once

#include <cstddef>
#include <cstdint>

namespace FileFormat
{

inline constexpr size_t kMagicBytes = 4; // plain, at offset 0
inline constexpr char kMasterMagic[kMagicBytes + 1] = "KRSM";
inline constexpr char kMacroMagic[kMagicBytes + 1] = "KMAC";
inline constexpr char kRuleSetMagic[kMagicBytes + 1] = "KRSF";

inline constexpr uint32_t kVersion = 0x00020000;    // the one that is written
inline constexpr uint32_t kOldVersion = 0x00010000; // rule set files only: narrow name, rules not read

// The key of every record of every file. It keeps files from being read by accident, not on purpose: docs/security.md.
inline constexpr uint8_t kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                     0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

inline constexpr char kMasterFileName[] = "KxRulMas.dat"; // unless kxRuleInitialize was given another
inline constexpr char kMacroFileName[] = "KxRulMac.dat";  // unless the master file names another
inline constexpr char kRuleSetPrefix[] = "KxRl";          // then the index as four upper-case hexadecimal digits
inline constexpr char kRuleSetExtension[] = ".dat";

inline constexpr char kBackupDirectory[] = "RuleBackup"; // in the rule directory
inline constexpr char kBrokenExtension[] = ".brk";

// Prefixes of temporary files in the rule directory.
inline constexpr char kMasterTemporary[] = "Mas";
inline constexpr char kMacroTemporary[] = "Mac";
inline constexpr char kRuleSetTemporary[] = "Rul";

} // namespace FileFormat
