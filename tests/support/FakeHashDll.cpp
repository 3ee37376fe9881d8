// The hash library's wrapper without a library.
#include "tests/support/FakeHashDll.h"

#include <cstring>

#include "common/srclib/KxComn_Record.h"
#include "rules/HashDll.h"

namespace
{

FakeHashDll* g_Fake;

// Only its address is used, as the sign that the function was found.
int32_t Placeholder(const KXWCHAR*, uint8_t*)
{
    return 0;
}

} // namespace

FakeHashDll::FakeHashDll() noexcept
{
    g_Fake = this;
}

FakeHashDll::~FakeHashDll()
{
    g_Fake = nullptr;
}

namespace KxCommon
{

bool DynLib::Load(const std::string&) noexcept
{
    return false;
}

void DynLib::Unload() noexcept {}

void* DynLib::Address(const char*) const noexcept
{
    return nullptr;
}

} // namespace KxCommon

bool CHashDll::Init()
{
    if (g_Fake == nullptr)
        return false;
    ++g_Fake->LoadCount;
    m_GetHashValue = g_Fake->LoadFails ? nullptr : Placeholder;
    return IsReady();
}

int32_t CHashDll::GetHashValue(const void* applicationPath, void* hash) const
{
    const KxCommon::WideString path = KxCommon::Record::WideText(applicationPath, KXRULE_APP_NAME_UNITS);
    if (g_Fake->OnCall)
        g_Fake->OnCall(path);
    g_Fake->Hashed.push_back(path);
    std::memcpy(hash, g_Fake->Hash.data(), g_Fake->Hash.size());
    return g_Fake->Status;
}
