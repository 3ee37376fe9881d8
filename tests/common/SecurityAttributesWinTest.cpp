#include "common/srclib/KxComn_SecurityAttributes.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include <aclapi.h>

#include "tests/support/Thrown.h"

namespace
{

using namespace KxCommon;
using AccessControl::DefSecAttr;
using AccessControl::SecurityAttributes;

/// Whether the access list of a kernel object has one entry, for authenticated users.
bool IsForUsers(HANDLE object)
{
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    void* entry = nullptr;
    ::GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list, nullptr,
                      &descriptor);
    const UniqueLocalMemory owner(descriptor);
    return list != nullptr && list->AceCount == 1 && ::GetAce(list, 0, &entry) != FALSE &&
           ::IsWellKnownSid(&static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart, WinAuthenticatedUserSid) != FALSE;
}

TEST(SecurityAttributes, ClassesOfVersions)
{
    const std::tuple<uint32_t, uint32_t, uint32_t, std::string> rows[] = {
        // platform, version; the numbers of the classes that it belongs to
        {1, 4, 10, "0"},  {2, 3, 51, "1"},  {2, 4, 0, "12"},  {2, 5, 0, "1"},    {2, 5, 1, "134"},
        {2, 5, 2, "134"}, {2, 6, 0, "145"}, {2, 6, 2, "145"}, {2, 10, 0, "145"}, {0, 5, 1, ""},
    };
    for (const auto& [platform, major, minor, expected] : rows)
    {
        std::string classes;
        for (uint32_t number = 0; number < 7; ++number)
            if (IsVersion(static_cast<VersionClass>(number), platform, major, minor))
                classes += static_cast<char>('0' + number);
        EXPECT_EQ(classes, expected) << platform << ' ' << major << '.' << minor;
    }
    EXPECT_TRUE(IsVersion(VersionClass::Nt6OrLater));
}

TEST(SecurityAttributes, GivesTheRecordForACreatingCall)
{
    EXPECT_EQ(DefSecAttr.State(), 18u);
    EXPECT_EQ(DefSecAttr.Record(), nullptr);
    SecurityAttributes attributes("D:(A;;GA;;;AU)");
    EXPECT_TRUE(IsForUsers(UniqueKernelObject(::CreateEventW(attributes.Record(), TRUE, FALSE, nullptr)).get()));
    ASSERT_TRUE(attributes.AllowEveryone());
    EXPECT_EQ(attributes.State(), 0u);
    EXPECT_TRUE(attributes.Record()->nLength == 24 && attributes.Record()->bInheritHandle);
    BOOL isPresent = FALSE, isDefaulted = TRUE;
    PACL list = reinterpret_cast<PACL>(&list);
    EXPECT_TRUE(
        ::GetSecurityDescriptorDacl(attributes.Record()->lpSecurityDescriptor, &isPresent, &list, &isDefaulted));
    EXPECT_TRUE(isPresent && list == nullptr);
    EXPECT_TRUE(UniqueKernelObject(::CreateMutexW(attributes.Record(), FALSE, nullptr)));
    const auto fails = [] { const SecurityAttributes broken("no descriptor"); };
    EXPECT_NE(Thrown<AccessControl::Exception>("SecurityAttributes", fails), 0u);
}

TEST(SecurityAttributes, HardensAnObject)
{
    const std::tuple<DWORD, bool, bool> rows[] = {
        // rights of the handle; whether it is hardened, whether the access list is in place
        {EVENT_ALL_ACCESS, true, true},
        {READ_CONTROL | WRITE_DAC, false, true}, // the label needs WRITE_OWNER; the access list stays
        {READ_CONTROL | WRITE_OWNER, false, false},
        {SYNCHRONIZE, false, false},
    };
    for (const auto& [rights, isHardened, isForUsers] : rows)
    {
        const UniqueKernelObject event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        HANDLE copy = nullptr;
        ASSERT_TRUE(
            ::DuplicateHandle(::GetCurrentProcess(), event.get(), ::GetCurrentProcess(), &copy, rights, FALSE, 0));
        EXPECT_EQ(Harden(UniqueKernelObject(copy).get()), isHardened) << rights;
        EXPECT_EQ(IsForUsers(event.get()), isForUsers) << rights;
    }
}

TEST(SecurityAttributes, KnowsWhoRuns)
{
    EXPECT_EQ(GlobalName(std::string_view("x")), "Global\\x");
    EXPECT_EQ(GlobalName(std::wstring_view(L"x")), L"Global\\x");
    bool isMember = true;
    DWORD error = 7, size = 256, session = 0;
    char user[256] = {};
    EXPECT_TRUE(IsLocalSystem(&isMember, &error) && error == 7) << "success leaves it alone";
    EXPECT_TRUE(::GetUserNameA(user, &size) && ::ProcessIdToSessionId(::GetCurrentProcessId(), &session));
    EXPECT_EQ(isMember, std::string(user) == "SYSTEM");
    EXPECT_EQ(IsServiceSession(), session == 0);
}

} // namespace
