// Makes objects accessible from other sessions and to ordinary users; the account, session and version tests that this
// depends on.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/srclib/KxComn_Exception.h"
#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Windows.h"

namespace KxCommon
{

enum class VersionClass : uint32_t
{
    Consumer = 0,    // the 16/32-bit consumer family
    Nt = 1,          // the NT family, any version
    Nt4 = 2,         // NT 4
    Nt5Minor1 = 3,   // NT 5 with a minor version of at least 1
    Nt51OrLater = 4, // NT 5.1 or later
    Nt6OrLater = 5   // NT 6 or later
};

/// Whether a system of that platform id and version belongs to a class.
[[nodiscard]] bool IsVersion(VersionClass wanted, uint32_t platform, uint32_t major, uint32_t minor) noexcept;
/// The same for the running system, queried once per process. False for every class if the query fails.
[[nodiscard]] bool IsVersion(VersionClass wanted) noexcept;

/// The name of an object in the global namespace: "Global\" and the name. The narrow form leaves the name as it is on
/// NT 4, which has no such namespace; the wide form ignores the version.
[[nodiscard]] std::string GlobalName(std::string_view name);
[[nodiscard]] std::wstring GlobalName(std::wstring_view name);

/// Gives authenticated users full access to a kernel object and labels it with low integrity. False if either fails; if
/// the label cannot be set, the access list stays. (If the system does not even support the text of the label, the
/// access list alone counts as success.)
bool Harden(HANDLE object) noexcept;

/// Whether the calling thread's token is a member of LocalSystem.
/// @param isMember  set only on success
/// @param error     may be null; ERROR_NOT_SUPPORTED if the system lacks the calls, otherwise the failing call's error
bool IsLocalSystem(bool* isMember, DWORD* error) noexcept;

/// Whether the process runs in the service session; after any failure, false.
[[nodiscard]] bool IsServiceSession() noexcept;

namespace AccessControl
{

class Exception final : public KxCommon::Exception::Base
{
public:
    explicit Exception(uint32_t code) noexcept
        : KxCommon::Exception::Base(code, "..\\..\\..\\Common\\srclib\\KxComn_SecurityAttributes.cpp")
    {
    }
};

/// Owns a security descriptor and the attributes record that points to it. Not copyable: the record points inside.
class SecurityAttributes
{
public:
    /// State of an object that stands for the system's default security.
    static constexpr uint32_t kStateNone = ERROR_NO_MORE_FILES; // 18

    SecurityAttributes() noexcept = default;
    /// A descriptor from its SDDL text. Throws AccessControl::Exception when the text cannot be converted.
    explicit SecurityAttributes(const char* sddl);
    SecurityAttributes(const SecurityAttributes&) = delete;
    SecurityAttributes& operator=(const SecurityAttributes&) = delete;

    /// Makes it a descriptor that gives everyone full access (a present but null access list). False if the system
    /// refuses; the object then stands for default security.
    bool AllowEveryone() noexcept;

    /// kStateNone, or 0 when there is a descriptor.
    [[nodiscard]] uint32_t State() const noexcept { return m_Record.lpSecurityDescriptor == nullptr ? kStateNone : 0; }
    /// For the creating call: null for default security, otherwise a record with an inheritable handle. Valid as long
    /// as this object.
    [[nodiscard]] SECURITY_ATTRIBUTES* Record() const noexcept { return State() == kStateNone ? nullptr : &m_Record; }

private:
    mutable SECURITY_ATTRIBUTES m_Record = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE}; // the calls want it writable
    SECURITY_DESCRIPTOR m_Everyone = {};
    UniqueLocalMemory m_Converted;
};

/// Default security, where attributes are required.
extern const SecurityAttributes DefSecAttr;

} // namespace AccessControl
} // namespace KxCommon
