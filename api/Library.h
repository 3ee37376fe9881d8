// Shared by DllMain and the exports.
#pragma once

#include "common/srclib/KxComn_Windows.h"

/// The library's own module, stored when loaded; null in a program that links the library statically.
extern HMODULE g_ModuleHandle;

/// The one store of the process.
class CRuleMaster;
extern CRuleMaster& g_RuleMaster;
