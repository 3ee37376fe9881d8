// The hash of a rule's application: filled in when the rule is made from a record, refreshed on request. (In trace
// formats %ls is %S in the form that the compiler can check.)
#include <algorithm>
#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_Trace.h"
#include "rules/HashDll.h"
#include "rules/Rule.h"

namespace
{

using Path = KxCommon::Record::WideField<KXRULE_APP_NAME_UNITS>;

bool IsZero(const uint8_t* hash) noexcept
{
    return std::all_of(hash, hash + KXRULE_HASH_BYTES, [](uint8_t byte) { return byte == 0; });
}

template <class Block>
int32_t Fill(Block& block)
{
    if (block.wszAppName[0] == 0 || block.dwSystem != 0 || !IsZero(block.abAppHash))
        return KXRULE_OK;
    CHashDll library;
    if (!library.Init())
        return KXRULE_E_HASH_LIBRARY;
    return library.GetHashValue(&block.wszAppName, &block.abAppHash);
}

// Whether the hash is to be set, depending on the kind of application and the given hash. Only two values of dwSystem
// mean anything; rules with any other are left alone.
bool WantsHash(const PFW_ACCESS& access, const uint8_t* given) noexcept
{
    const bool isGiven = given != nullptr && !IsZero(given);
    switch (access.dwSystem)
    {
    case 0:
        return !isGiven || std::memcmp(given, access.abAppHash, KXRULE_HASH_BYTES) != 0;
    case 1:
        return isGiven;
    default:
        return false;
    }
}

bool IsSelected(const PFW_ACCESS& access, const Path& name, const KXWCHAR* applicationPath) noexcept
{
    if (applicationPath == nullptr)
        return access.dwSystem == 0;
    // One unit more than a name can have, so that a longer path equals no name, not even its own beginning.
    const size_t length = KxCommon::Record::WideLength(applicationPath, KXRULE_APP_NAME_UNITS + 1);
    return !name.View().empty() && KxCommon::String::EqualNoCase(name.View(), {applicationPath, length});
}

} // namespace

int32_t CRule::FillHash()
{
    return m_Rule.dwKind == KXRULE_KIND_ACCESS2 ? Fill(m_Rule.Access2) : Fill(m_Rule.Access);
}

// kept: whatever the rule's kind, the bytes where an access rule has these fields are read and written.
int32_t CRule::UpdateHash(uint16_t ruleSetIndex, const KXWCHAR* applicationPath, const uint8_t* hash,
                          KXRULE_HASH_CALLBACK callback, void* context, std::vector<uint16_t>& changed,
                          CLock& recordLock)
{
    PFW_ACCESS& access = m_Rule.Access;
    if (!WantsHash(access, hash))
        return KXRULE_OK;
    const Path name(&access.wszAppName);
    if (!IsSelected(access, name, applicationPath))
        return KXRULE_OK;
    if (name.View().empty())
    {
        KX_TRACE(KxCommon::kTraceDetail, "CRule::UpdateHash, m_Rule.Access.wszAppName is empty RuleSet(%d) Rule(%d)",
                 ruleSetIndex, m_Rule.wRuleIndex);
        return KXRULE_OK;
    }
    KX_TRACE(KxCommon::kTraceDetail, "CRule::UpdateHash, Updating hash RuleSet(%d) Rule(%d) (%ls)", ruleSetIndex,
             m_Rule.wRuleIndex, name.c_str());

    uint8_t value[KXRULE_HASH_BYTES] = {};
    if (access.dwSystem != 0)
        std::memcpy(value, hash, sizeof value);
    else
    {
        // Without the record lock: hashing a file may take long, and readers must not wait for it.
        CHashDll library;
        if (!library.Init())
            return KXRULE_E_HASH_LIBRARY;
        if (const int32_t status = library.GetHashValue(name.c_str(), value); status != 0)
            return status;
    }

    // Listed first, since only this can fail: no set changes without being listed.
    if (std::find(changed.begin(), changed.end(), ruleSetIndex) == changed.end())
        changed.push_back(ruleSetIndex);
    {
        const KxCommon::Synchronize::ScopedLock<CLock> guard(recordLock);
        std::memcpy(access.abAppHash, value, sizeof value);
    }
    if (callback != nullptr)
    {
        KX_TRACE(KxCommon::kTraceDetail, "Call callback function");
        callback(ruleSetIndex, &m_Rule, context);
    }
    return KXRULE_OK;
}
