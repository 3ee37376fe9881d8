// A rule's record: copied in, normalised, copied out. The layout is in api/include/KxPfwRule.h.
#include "rules/Rule.h"

#include <cstring>

#include "common/srclib/KxComn_Trace.h"
#include "rules/Normalise.h"
#include "rules/RuleText.h"

CRule::CRule() noexcept
{
    std::memset(&m_Rule, 0, sizeof m_Rule);
}

CRule::CRule(const PFW_RULE& record) : m_Rule(record)
{
    TakeOver();
}

void CRule::TakeOver()
{
    Normalise::NormaliseRule(m_Rule);
    if (Normalise::IsAccessRule(m_Rule))
        static_cast<void>(FillHash()); // a rule whose application cannot be hashed now is still a rule
}

int32_t CRule::GetRule(PFW_RULE* out) const
{
    if (out == nullptr)
    {
        KX_TRACE(KxCommon::kTraceError, "CRule::GetRule(): Pointer to rule structure (parameter) is NULL.");
        return KXRULE_E_NULL_POINTER;
    }
    *out = m_Rule;
    return KXRULE_OK;
}

int32_t CRule::GetRuleString(RuleText::Line& line) const noexcept
{
    return RuleText::Render(m_Rule, line);
}
