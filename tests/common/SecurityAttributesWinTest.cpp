#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_SecurityAttributes.h"

#include <aclapi.h>
#include <sddl.h>

namespace
{

using namespace KxCommon;
using AccessControl::DefSecAttr;
using AccessControl::SecurityAttributes;

/// The access list of a kernel object as text.
std::string AccessOf(HANDLE object)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr,
                          &descriptor) != ERROR_SUCCESS)
        return "unknown";
    const UniqueLocalMemory owner(descriptor);
    char* text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                           &text, nullptr);
    const UniqueLocalMemory textOwner(text);
    return text == nullptr ? "unknown" : text;
}

TEST(SecurityAttributes, ClassesOfVersions)
{
    struct Row
    {
        uint32_t Platform, Major, Minor;
        std::string Classes; // the numbers of those that it belongs to
    };
    const Row rows[] = {
        {1, 4, 10, "0"},  {2, 3, 51, "1"},  {2, 4, 0, "12"},  {2, 5, 0, "1"},    {2, 5, 1, "134"},
        {2, 5, 2, "134"}, {2, 6, 0, "145"}, {2, 6, 2, "145"}, {2, 10, 0, "145"}, {0, 5, 1, ""},
    };
    for (const Row& row : rows)
    {
        std::string classes;
        for (uint32_t number = 0; number < 7; ++number)
        {
            if (IsVersion(static_cast<VersionClass>(number), row.Platform, row.Major, row.Minor))
                classes += static_cast<char>('0' + number);
        }
        EXPECT_EQ(classes, row.Classes) << row.Platform << ' ' << row.Major << '.' << row.Minor;
    }
    EXPECT_TRUE(IsVersion(VersionClass::Nt6OrLater));
    EXPECT_FALSE(IsVersion(VersionClass::Consumer));
}

TEST(SecurityAttributes, EveryoneMayOpenWhatIsMadeWithIt)
{
    EXPECT_EQ(DefSecAttr.State(), 18u);
    EXPECT_EQ(DefSecAttr.Record(), nullptr);

    SecurityAttributes everyone;
    ASSERT_TRUE(everyone.AllowEveryone());
    EXPECT_EQ(everyone.State(), 0u);
    ASSERT_NE(everyone.Record(), nullptr);
    EXPECT_EQ(everyone.Record()->nLength, 24u);
    EXPECT_TRUE(everyone.Record()->bInheritHandle);
    BOOL isPresent = FALSE;
    BOOL isDefaulted = TRUE;
    PACL list = reinterpret_cast<PACL>(&list);
    DWORD revision = 0;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    PSECURITY_DESCRIPTOR const descriptor = everyone.Record()->lpSecurityDescriptor;
    EXPECT_TRUE(::GetSecurityDescriptorControl(descriptor, &control, &revision));
    EXPECT_EQ(revision, 1u);
    EXPECT_TRUE(::GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefaulted));
    EXPECT_TRUE(isPresent);
    EXPECT_EQ(list, nullptr);
    const UniqueKernelObject mutex(::CreateMutexW(everyone.Record(), FALSE, nullptr));
    DWORD flags = 0;
    EXPECT_TRUE(::GetHandleInformation(mutex.get(), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, DWORD{HANDLE_FLAG_INHERIT});
}

TEST(SecurityAttributes, ComesFromText)
{
    SecurityAttributes users("D:(A;;GA;;;AU)");
    ASSERT_EQ(users.State(), 0u);
    const UniqueKernelObject event(::CreateEventW(users.Record(), TRUE, FALSE, nullptr));
    EXPECT_NE(AccessOf(event.get()).find(";;;AU)"), std::string::npos) << AccessOf(event.get());
    EXPECT_TRUE(users.AllowEveryone());
    try
    {
        const SecurityAttributes broken("no descriptor");
        ADD_FAILURE() << "no exception";
    }
    catch (AccessControl::Exception* e)
    {
        const std::unique_ptr<Exception::Base> owner(e);
        EXPECT_NE(e->Code(), 0u);
        EXPECT_STREQ(e->Source(), "..\\..\\..\\Common\\srclib\\KxComn_SecurityAttributes.cpp");
    }
}

TEST(SecurityAttributes, HardensAnObject)
{
    const UniqueKernelObject event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EXPECT_TRUE(Harden(event.get()));
    const std::string access = AccessOf(event.get());
    EXPECT_TRUE(access == "D:(A;OICI;GA;;;AU)" || access.find(";;;AU)") != std::string::npos) << access;
    EXPECT_EQ(access.find('(', access.find('(') + 1), std::string::npos) << "one entry: " << access;
    // Without the right to label it, the access list stays.
    HANDLE copy = nullptr;
    ASSERT_TRUE(::DuplicateHandle(::GetCurrentProcess(), event.get(), ::GetCurrentProcess(), &copy,
                                  READ_CONTROL | SYNCHRONIZE, FALSE, 0));
    const UniqueKernelObject owner(copy);
    EXPECT_FALSE(Harden(copy)) << "no right to change the access list";
    EXPECT_FALSE(Harden(nullptr));
}

TEST(SecurityAttributes, NamesAndFindsGlobalEvents)
{
    const std::string name = "KxTestEvent" + std::to_string(::GetCurrentProcessId());
    const std::wstring wideName(name.begin(), name.end());
    EXPECT_EQ(GlobalName(std::string_view(name)), "Global\\" + name);
    EXPECT_EQ(GlobalName(std::wstring_view(wideName)), L"Global\\" + wideName);
    EXPECT_FALSE(SetGlobalEvent(std::string_view(name)));
    const UniqueKernelObject event(::CreateEventW(nullptr, TRUE, FALSE, (L"Global\\" + wideName).c_str()));
    const auto isSet = [&] { return ::WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0; };
    EXPECT_TRUE(SetGlobalEvent(std::string_view(name)));
    EXPECT_TRUE(isSet());
    EXPECT_TRUE(ResetGlobalEvent(std::wstring_view(wideName)));
    EXPECT_FALSE(isSet());
    EXPECT_TRUE(SetGlobalEvent(std::wstring_view(wideName)));
    EXPECT_TRUE(ResetGlobalEvent(std::string_view(name)));
    EXPECT_FALSE(isSet());
}

TEST(SecurityAttributes, KnowsWhoRuns)
{
    bool isMember = true;
    DWORD error = 7;
    EXPECT_TRUE(IsLocalSystem(&isMember, &error));
    EXPECT_EQ(error, 7u) << "success leaves it alone";
    char user[256] = {};
    DWORD size = sizeof user;
    ASSERT_TRUE(::GetUserNameA(user, &size));
    EXPECT_EQ(isMember, std::string(user) == "SYSTEM");
    DWORD session = 0;
    ASSERT_TRUE(::ProcessIdToSessionId(::GetCurrentProcessId(), &session));
    EXPECT_EQ(IsServiceSession(), session == 0);
}

} // namespace
