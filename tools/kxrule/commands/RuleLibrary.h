// KxPfwRul.dll, loaded at run time as a program would load it.
#pragma once

#include <string>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Windows.h"

namespace Tool
{

/// Loaded from the tool's own directory and nowhere else.
class RuleLibrary : public KXRULE_LIBRARY
{
public:
    /// Throws Failure if the library or one of its functions is missing.
    RuleLibrary();
    ~RuleLibrary();
    RuleLibrary(const RuleLibrary&) = delete;
    RuleLibrary& operator=(const RuleLibrary&) = delete;

    /// The directory of the tool and of the library, with a backslash at its end.
    [[nodiscard]] static std::wstring OwnDirectory();

private:
    HMODULE m_Module = nullptr;
};

} // namespace Tool
