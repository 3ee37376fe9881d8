#include <memory>
#include <string>
#include <tuple>

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
    const std::tuple<uint32_t, uint32_t, uint32_t, std::string> rows[] = {
        // platform, version; the numbers of the classes that it belongs to
        {1, 4, 10, "0"},  {2, 3, 51, "1"},  {2, 4, 0, "12"},  {2, 5, 0, "1"},    {2, 5, 1, "134"},
        {2, 5, 2, "134"}, {2, 6, 0, "145"}, {2, 6, 2, "145"}, {2, 10, 0, "145"}, {0, 5, 1, ""},
    };
    for (const auto& [platform, major, minor, expected] : rows)
    {
        std::string classes;
        for (uint32_t number = 0; number < 7; ++number)
        {
            if (IsVersion(static_cast<VersionClass>(number), platform, major, minor))
                classes += static_cast<char>('0' + number);
        }
        EXPECT_EQ(classes, expected) << platform << ' ' << major << '.' << minor;
    }
    EXPECT_TRUE(IsVersion(VersionClass::Nt6OrLater));
}

TEST(SecurityAttributes, GivesTheRecordForACreatingCall)
{
    EXPECT_EQ(DefSecAttr.State(), 18u);
    EXPECT_EQ(DefSecAttr.Record(), nullptr);
    SecurityAttributes attributes("D:(A;;GA;;;AU)");
    const UniqueKernelObject event(::CreateEventW(attributes.Record(), TRUE, FALSE, nullptr));
    EXPECT_NE(AccessOf(event.get()).find(";;;AU)"), std::string::npos) << AccessOf(event.get());

    ASSERT_TRUE(attributes.AllowEveryone());
    EXPECT_EQ(attributes.State(), 0u);
    ASSERT_NE(attributes.Record(), nullptr);
    EXPECT_EQ(attributes.Record()->nLength, 24u);
    EXPECT_TRUE(attributes.Record()->bInheritHandle);
    BOOL isPresent = FALSE;
    BOOL isDefaulted = TRUE;
    PACL list = reinterpret_cast<PACL>(&list);
    EXPECT_TRUE(
        ::GetSecurityDescriptorDacl(attributes.Record()->lpSecurityDescriptor, &isPresent, &list, &isDefaulted));
    EXPECT_TRUE(isPresent && list == nullptr);
    EXPECT_TRUE(UniqueKernelObject(::CreateMutexW(attributes.Record(), FALSE, nullptr)));
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
    EXPECT_NE(access.find(";;;AU)"), std::string::npos) << access;
    EXPECT_EQ(access.find('('), access.rfind('(')) << "one entry: " << access;
    HANDLE copy = nullptr; // without the right to change the access list
    ASSERT_TRUE(
        ::DuplicateHandle(::GetCurrentProcess(), event.get(), ::GetCurrentProcess(), &copy, SYNCHRONIZE, FALSE, 0));
    EXPECT_FALSE(Harden(UniqueKernelObject(copy).get()));
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
    EXPECT_TRUE(SetGlobalEvent(std::string_view(name)) && isSet());
    EXPECT_TRUE(ResetGlobalEvent(std::wstring_view(wideName)) && !isSet());
    EXPECT_TRUE(SetGlobalEvent(std::wstring_view(wideName)) && isSet());
    EXPECT_TRUE(ResetGlobalEvent(std::string_view(name)) && !isSet());
}

TEST(SecurityAttributes, KnowsWhoRuns)
{
    bool isMember = true;
    DWORD error = 7;
    EXPECT_TRUE(IsLocalSystem(&isMember, &error));
    EXPECT_EQ(error, 7u) << "success leaves it alone";
    char user[256] = {};
    DWORD size = sizeof user;
    DWORD session = 0;
    EXPECT_TRUE(::GetUserNameA(user, &size) && ::ProcessIdToSessionId(::GetCurrentProcessId(), &session));
    EXPECT_EQ(isMember, std::string(user) == "SYSTEM");
    EXPECT_EQ(IsServiceSession(), session == 0);
}

} // namespace
