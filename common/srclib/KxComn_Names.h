// Names that are shared with the rest of the product: registry, INI file, mutex, libraries, rescue rules.
// docs/settings.md explains the settings.
#pragma once

#include "common/srclib/KxComn_Port.h"

namespace KxCommon::Names
{

inline constexpr KXWCHAR kRegistryKey[] = KXW("SOFTWARE\\Quelvane\\VQR\\PFW"); // under HKEY_LOCAL_MACHINE
inline constexpr KXWCHAR kInstallPathValue[] = KXW("InstallPath");
inline constexpr KXWCHAR kHashNetworkFilesValue[] = KXW("HashNetworkFiles");
inline constexpr char kWriteIntervalValue[] = "RuleWriteInterval";

inline constexpr char kSettingsFile[] = "KxPfw.ini"; // beside the library
inline constexpr char kTraceName[] = "PfwRule";

inline constexpr KXWCHAR kMutexName[] = KXW("KxPfwRuleDllLockMutex"); // in the global namespace

inline constexpr char kHashLibrary[] = "KxHash.dll";
inline constexpr char kHashFunction[] = "kxCfwGetHashValue";
inline constexpr char kTraceLibrary[] = "KxVqrDbg.dll";

// The description of the rules that replace a rule set which could not be read; the tool recognises them by it.
inline constexpr KXWCHAR kRescueDescription[] = KXW("This is a rescue rule. This rule file had been broken/deleted.");

} // namespace KxCommon::Names
