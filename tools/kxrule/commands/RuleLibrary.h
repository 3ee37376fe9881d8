// KxPfwRul.dll, loaded at run time as a customer's program would.
#pragma once

#include <string>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Windows.h"

namespace Tool
{

/// The exports as members. Loaded from the tool's own directory and nowhere else.
class RuleLibrary
{
public:
    /// Throws Failure when the library or one of its functions is missing.
    RuleLibrary();
    ~RuleLibrary();
    RuleLibrary(const RuleLibrary&) = delete;
    RuleLibrary& operator=(const RuleLibrary&) = delete;

    decltype(&kxRuleInitialize) Initialize = nullptr;
    decltype(&kxRuleFinalize) Finalize = nullptr;
    decltype(&kxRuleRead) Read = nullptr;
    decltype(&kxRuleWrite) Write = nullptr;
    decltype(&kxRuleFlush) Flush = nullptr;
    decltype(&kxRuleSetActiveRuleSet) SetActiveRuleSet = nullptr;
    decltype(&kxRuleGetActiveRuleSet) GetActiveRuleSet = nullptr;
    decltype(&kxRuleAddRuleSet) AddRuleSet = nullptr;
    decltype(&kxRuleDeleteRuleSet) DeleteRuleSet = nullptr;
    decltype(&kxRuleGetRuleSetIndex) GetRuleSetIndex = nullptr;
    decltype(&kxRuleGetRuleSet) GetRuleSet = nullptr;
    decltype(&kxRuleAddRule) AddRule = nullptr;
    decltype(&kxRuleDeleteRule) DeleteRule = nullptr;
    decltype(&kxRuleGetRule) GetRule = nullptr;
    decltype(&kxRuleAddMacro) AddMacro = nullptr;
    decltype(&kxRuleDeleteMacro) DeleteMacro = nullptr;
    decltype(&kxRuleGetMacro) GetMacro = nullptr;
    decltype(&kxRuleGetRuleString) GetRuleString = nullptr;
    decltype(&kxRuleGetRuleString2) GetRuleString2 = nullptr;
    decltype(&kxRuleGetMacroString) GetMacroString = nullptr;
    decltype(&kxRuleUpdateHashValue) UpdateHashValue = nullptr;

    /// The directory of the tool and of the library, with a backslash at its end.
    [[nodiscard]] static std::wstring OwnDirectory();

private:
    HMODULE m_Module = nullptr;
};

} // namespace Tool
