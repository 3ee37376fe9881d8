// Security of named objects; the tests for version, account and session.
#include "common/srclib/KxComn_SecurityAttributes.h"

#include "common/srclib/KxComn_Windows.h"
#include <aclapi.h>
#include <sddl.h>

#include "common/srclib/KxComn_DynLib.h"

namespace KxCommon
{

namespace
{

constexpr char kUsersAccess[] = "D:(A;OICI;GA;;;AU)"; // authenticated users: full access, inherited
constexpr char kLowLabel[] = "S:(ML;;NW;;;LW)";       // low integrity, no write-up
constexpr DWORD kSidSize = 68;                        // the longest SID there is
constexpr DWORD kLocalSystemSid = 22;                 // WinLocalSystemSid

struct SystemVersion
{
    bool Known = false;
    uint32_t Platform = 0;
    uint32_t Major = 0;
    uint32_t Minor = 0;
};

#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4996) // the classes are those of old systems, which the deprecated call reports correctly
#endif
SystemVersion QueryVersion() noexcept
{
    OSVERSIONINFOA info = {};
    info.dwOSVersionInfoSize = sizeof info;
    if (::GetVersionExA(&info) == FALSE)
        return {};
    return {true, info.dwPlatformId, info.dwMajorVersion, info.dwMinorVersion};
}
#if defined(_MSC_VER)
#pragma warning(pop)
#endif
const SystemVersion g_Version = QueryVersion();

UniqueLocalMemory Convert(const char* sddl) noexcept
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl, SDDL_REVISION_1, &descriptor, nullptr) == FALSE)
        return UniqueLocalMemory();
    return UniqueLocalMemory(descriptor);
}

bool SetUsersAccess(HANDLE object) noexcept
{
    const UniqueLocalMemory descriptor = Convert(kUsersAccess);
    BOOL isPresent = FALSE;
    BOOL isDefaulted = FALSE;
    PACL list = nullptr;
    return descriptor && ::GetSecurityDescriptorDacl(descriptor.get(), &isPresent, &list, &isDefaulted) != FALSE &&
           ::SetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, list, nullptr) ==
               ERROR_SUCCESS;
}

bool SetLabel(HANDLE object, PSECURITY_DESCRIPTOR descriptor) noexcept
{
    BOOL isPresent = FALSE;
    BOOL isDefaulted = FALSE;
    PACL list = nullptr;
    return ::GetSecurityDescriptorSacl(descriptor, &isPresent, &list, &isDefaulted) != FALSE &&
           ::SetSecurityInfo(object, SE_KERNEL_OBJECT, LABEL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, list) ==
               ERROR_SUCCESS;
}

// The two calls that not every system has, bound when needed.
class TokenTest
{
public:
    TokenTest()
    {
        if (!m_Library.Load("advapi32.dll"))
            return;
        m_CreateSid = m_Library.Find<decltype(::CreateWellKnownSid)>("CreateWellKnownSid");
        m_CheckMembership = m_Library.Find<decltype(::CheckTokenMembership)>("CheckTokenMembership");
    }
    [[nodiscard]] bool IsReady() const noexcept { return m_CreateSid != nullptr && m_CheckMembership != nullptr; }
    /// ERROR_SUCCESS, or the error of the call that failed.
    [[nodiscard]] DWORD Check(bool* isMember) const noexcept
    {
        const UniqueLocalMemory sid(::LocalAlloc(LPTR, kSidSize));
        DWORD size = kSidSize;
        BOOL answer = FALSE;
        if (!sid ||
            m_CreateSid(static_cast<WELL_KNOWN_SID_TYPE>(kLocalSystemSid), nullptr, sid.get(), &size) == FALSE ||
            m_CheckMembership(nullptr, sid.get(), &answer) == FALSE)
            return ::GetLastError();
        *isMember = answer != FALSE;
        return ERROR_SUCCESS;
    }

private:
    DynLib m_Library;
    decltype(::CreateWellKnownSid)* m_CreateSid = nullptr;
    decltype(::CheckTokenMembership)* m_CheckMembership = nullptr;
};

bool SessionOfProcess(DWORD* session) noexcept
{
    const HMODULE kernel = ::GetModuleHandleA("kernel32.dll"); // never unloaded
    if (kernel == nullptr)
        return false;
    void* const address = reinterpret_cast<void*>(::GetProcAddress(kernel, "ProcessIdToSessionId"));
    const auto sessionOf = reinterpret_cast<decltype(::ProcessIdToSessionId)*>(address);
    return sessionOf != nullptr && sessionOf(::GetCurrentProcessId(), session) != FALSE;
}

} // namespace

bool IsVersion(VersionClass wanted, uint32_t platform, uint32_t major, uint32_t minor) noexcept
{
    const bool isNt = platform == VER_PLATFORM_WIN32_NT;
    switch (wanted)
    {
    case VersionClass::Consumer:
        return platform == VER_PLATFORM_WIN32_WINDOWS;
    case VersionClass::Nt:
        return isNt;
    case VersionClass::Nt4:
        return isNt && major == 4;
    case VersionClass::Nt5Minor1:
        return isNt && major == 5 && minor >= 1;
    case VersionClass::Nt51OrLater:
        return isNt && (major > 5 || (major == 5 && minor >= 1));
    case VersionClass::Nt6OrLater:
        return isNt && major >= 6;
    }
    return false;
}

bool IsVersion(VersionClass wanted) noexcept
{
    return g_Version.Known && IsVersion(wanted, g_Version.Platform, g_Version.Major, g_Version.Minor);
}

std::string GlobalName(std::string_view name)
{
    return (IsVersion(VersionClass::Nt4) ? "" : "Global\\") + std::string(name);
}

std::wstring GlobalName(std::wstring_view name)
{
    return L"Global\\" + std::wstring(name);
}

bool Harden(HANDLE object) noexcept
{
    if (!SetUsersAccess(object))
        return false;
    const UniqueLocalMemory label = Convert(kLowLabel);
    return !label || SetLabel(object, label.get());
}

bool IsLocalSystem(bool* isMember, DWORD* error) noexcept
{
    DWORD reason = ERROR_NOT_SUPPORTED;
    try
    {
        const TokenTest test;
        if (IsVersion(VersionClass::Nt51OrLater) && test.IsReady()) // the first systems with both calls
            reason = test.Check(isMember);
    }
    catch (...)
    {
        reason = ERROR_NOT_ENOUGH_MEMORY;
    }
    if (reason != ERROR_SUCCESS && error != nullptr)
        *error = reason;
    return reason == ERROR_SUCCESS;
}

bool IsServiceSession() noexcept
{
    if (IsVersion(VersionClass::Nt6OrLater)) // since then services have session 0 to themselves
    {
        DWORD session = 0;
        return SessionOfProcess(&session) && session == 0;
    }
    bool isMember = false;
    return IsLocalSystem(&isMember, nullptr) && isMember;
}

namespace AccessControl
{

const SecurityAttributes DefSecAttr;

SecurityAttributes::SecurityAttributes(const char* sddl) : m_Converted(Convert(sddl))
{
    const DWORD error = ::GetLastError(); // the memory for the exception may change it
    if (!m_Converted)
        throw new Exception(error);
    m_Record.lpSecurityDescriptor = m_Converted.get();
}

bool SecurityAttributes::AllowEveryone() noexcept
{
    m_Converted.reset();
    m_Record.lpSecurityDescriptor = nullptr;
    if (::InitializeSecurityDescriptor(&m_Everyone, SECURITY_DESCRIPTOR_REVISION) == FALSE ||
        ::SetSecurityDescriptorDacl(&m_Everyone, TRUE, nullptr, FALSE) == FALSE)
        return false;
    m_Record.lpSecurityDescriptor = &m_Everyone;
    return true;
}

} // namespace AccessControl
} // namespace KxCommon
