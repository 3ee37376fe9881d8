// The hash library is loaded from the product's folder only: docs/security.md.
#include "rules/HashDll.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

#include "common/srclib/KxComn_Identity.h"
#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_Settings.h"
#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"

namespace
{

// Empty if there is no absolute folder, or if the code page cannot express it: the bare name, or a name with
// substitutes, could be an attacker's file.
std::string LibraryPath()
{
    std::wstring folder = KxCommon::Settings::InstallPath();
    std::replace(folder.begin(), folder.end(), L'/', L'\\'); // the loader needs them to search the library's folder
    KxCommon::AppendSeparator(folder);
    const std::string narrow = KxCommon::String::ToNarrow(folder);
    if (!KxCommon::IsAbsolutePath(folder) || KxCommon::String::ToWide(narrow) != folder)
        return {};
    return narrow + KxCommon::Names::kHashLibrary;
}

} // namespace

bool CHashDll::Init()
{
    m_GetHashValue = nullptr;
    const KxCommon::OwnIdentity identity;
    const std::string path = LibraryPath();
    if (!identity || path.empty() || !Load(path))
    {
        KX_TRACE(KxCommon::kTraceError, "CHashDll::Init load library error");
        return false;
    }
    m_GetHashValue = Find<Function>(KxCommon::Names::kHashFunction);
    if (m_GetHashValue == nullptr)
    {
        KX_TRACE(KxCommon::kTraceError, "CHashDll::Init GetProcAddress error");
        return false;
    }
    return true;
}

int32_t CHashDll::GetHashValue(const void* applicationPath, void* hash) const
{
    if (!IsReady())
        return KXRULE_E_HASH_LIBRARY;
    // Aligned copies: in a record both may lie at odd addresses, and the path may fill its field to the last unit.
    wchar_t path[KXRULE_APP_NAME_UNITS + 1] = {};
    const unsigned char* const field = static_cast<const unsigned char*>(applicationPath);
    for (size_t i = 0; i < KXRULE_APP_NAME_UNITS; ++i)
    {
        path[i] = KxCommon::Record::Load<wchar_t>(field + i * sizeof(wchar_t));
        if (path[i] == L'\0')
            break;
    }
    alignas(8) uint8_t value[KXRULE_HASH_BYTES];
    std::memcpy(value, hash, sizeof value);
    const KxCommon::OwnIdentity identity; // if this were impossible, Init would have failed
    const int32_t status = m_GetHashValue(path, value);
    std::memcpy(hash, value, sizeof value); // kept: what a failing function wrote is copied as well
    return status;
}
