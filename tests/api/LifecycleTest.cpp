// Stop, unloading, and the locks that outlive a call. docs/threads.md.
#include "tests/api/Lives.h"
#include "tests/api/StoreFixture.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "common/srclib/KxComn_Handle.h"
#include "tests/support/OtherProcess.h"

TEST_F(StoreTest, EverybodySeesThatTheLibraryIsInUse)
{
    const auto open = []
    {
        return KxCommon::UniqueKernelObject(
            ::OpenMutexW(READ_CONTROL | SYNCHRONIZE, FALSE, L"Global\\KxPfwRuleDllLockMutex"));
    };
    BOOL isPresent = FALSE, isDefaulted = FALSE;
    PACL list = nullptr;
    alignas(8) unsigned char descriptor[1000] = {};
    DWORD size = 0;
    EXPECT_TRUE(
        ::GetKernelObjectSecurity(open().get(), DACL_SECURITY_INFORMATION, descriptor, sizeof descriptor, &size));
    EXPECT_TRUE(::GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefaulted));
    EXPECT_TRUE(isPresent && list == nullptr) << "no access list, so everybody has access";
    // Owned by whoever made it. If that was another process with the library, it ends at some time.
    const auto look = [&] { return ::WaitForSingleObject(open().get(), 0); };
    DWORD seen = std::async(std::launch::async, look).get();
    for (int i = 0; i < 500 && seen != WAIT_TIMEOUT && !HasFatalFailure(); ++i)
    {
        ::Sleep(100);
        Reopen();
        seen = std::async(std::launch::async, look).get();
    }
    EXPECT_EQ(seen, DWORD{WAIT_TIMEOUT}) << "owned";
}

// Files are opened with the rights of the process even on a thread that impersonates a client. For an anonymous client,
// whose token could not be restored, nothing is opened.
TEST_F(StoreTest, AClientHasNoSayInTheFiles)
{
    ASSERT_EQ(AddSet(1), 0);
    ASSERT_TRUE(::ImpersonateSelf(SecurityAnonymous));
    EXPECT_EQ(kxRuleRead(), KXRULE_E_FILE_OPEN);
    EXPECT_EQ(kxRuleWrite(), KXRULE_E_FILE_OPEN);
    EXPECT_EQ(kxRuleFlush(), KXRULE_E_FILE_OPEN);
    EXPECT_EQ(kxRuleDeleteRuleSet(1), KXRULE_E_FILE_OPEN);
    EXPECT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), KXRULE_E_MUTEX);
    EXPECT_EQ(SetIndexes(), Indexes{1}) << "nothing changes";
    EXPECT_TRUE(std::filesystem::is_empty(Directory()));
    ASSERT_TRUE(::ImpersonateSelf(SecurityIdentification)); // with this he could open nothing
    EXPECT_EQ(kxRuleFlush(), 0);
    HANDLE client = nullptr;
    EXPECT_TRUE(::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, &client)) << "not put back";
    const KxCommon::UniqueKernelObject owner(client);
    ::RevertToSelf();
    EXPECT_TRUE(Exists("KxRl0001.dat"));
}

// The holder and all readers go on, changes wait, and everything ends when the holder finalises.
TEST_F(StoreTest, ALockThatIsHeldOnStopsNeitherItsHolderNorReaders)
{
    ASSERT_EQ(AddSet(1, {Build::Access(1)}), 0);
    ASSERT_EQ(AddSet(1), KXRULE_E_NO_RULESET); // this thread keeps the lock from here on
    ASSERT_EQ(AddSet(1), KXRULE_E_NO_RULESET); // twice

    const PFW_RULE rule = Build::Access();
    const uint16_t active[] = {1};
    auto macro = Build::Macro("m", {});
    const std::function<int32_t()> changes[] = {
        kxRuleFinalize,
        kxRuleRead,
        kxRuleWrite,
        kxRuleFlush,
        kxRuleDeleteMacro,
        [&] { return kxRuleSetActiveRuleSet(active, 1); },
        [] { return AddSet(0); },
        [] { return kxRuleDeleteRuleSet(1); },
        [&] { return kxRuleAddRule(1, 2, &rule); },
        [] { return kxRuleDeleteRule(1, 1); },
        [] { return kxRuleUpdateHashValue(nullptr, nullptr, nullptr, nullptr); },
        [&] { return kxRuleAddMacro(macro.get()); },
    };
    std::atomic<size_t> begun = 0;
    std::atomic<uint32_t> ended = 0; // a bit each
    std::vector<std::thread> changers;
    for (const auto& change : changes)
    {
        changers.emplace_back(
            [&]
            {
                ++begun;
                static_cast<void>(change());
                ended |= 1u << (&change - changes);
            });
    }
    std::thread(
        [&]
        {
            EXPECT_EQ(kxRuleAddRule(1, 1, nullptr), KXRULE_E_NULL_POINTER) << "refused at once";
            EXPECT_EQ(kxRuleAddRule(9, 1, &rule), KXRULE_E_NO_RULESET) << "refused at once";
            PFW_RULE got{};
            PFW_RULESET head{};
            const std::function<int32_t()> reads[] = {
                [&] { return kxRuleGetRule(1, 1, &got); },         [&] { return kxRuleGetRuleSet(1, &head, 0); },
                [] { return kxRuleGetActiveRuleSet(nullptr, 0); }, [] { return kxRuleGetRuleSetIndex(nullptr, 0); },
                [] { return kxRuleGetRuleTopIndex(1); },           [] { return kxRuleGetRuleBottomIndex(1); },
                [] { return kxRuleIsRuleActive(1, 1); },           [] { return kxRuleGetRuleString(1, 1, nullptr, 0); },
                [] { return kxRuleGetMacro(nullptr, 0); },         kxRuleGetMacroCount,
            };
            while (begun < std::size(changes))
                std::this_thread::yield();
            for (int i = 0; i < 100; ++i)
                for (const auto& read : reads) // on another thread
                    ASSERT_GE(read(), 0) << &read - reads;
        })
        .join();
    for (uint16_t i = 100; i < 600; ++i)
        ASSERT_EQ(kxRuleAddRule(1, i, &rule), 0) << "the holder's own change";
    EXPECT_EQ(kxRuleWrite(), 0);
    EXPECT_EQ(ended, 0u) << "did not wait";
    EXPECT_EQ(kxRuleFinalize(), 0);
    for (std::thread& changer : changers)
        changer.join();
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
    ASSERT_EQ(kxRuleRead(), 0);
    EXPECT_EQ(Rules(1).size(), 501u);
}

TEST_F(StoreTest, AFailedReadKeepsTheLockToo)
{
    WriteFile("KxRulMac.dat", "damaged");
    EXPECT_EQ(kxRuleRead(), KXRULE_E_MACRO_FORMAT);
    EXPECT_EQ(std::async(std::launch::async, kxRuleFinalize).get(), 0) << "nothing is left to write";
    Open(KXRULE_E_MACRO_FORMAT);
    std::filesystem::remove(PathOf("KxRulMac.dat"));
    EXPECT_EQ(kxRuleRead(), 0) << "releases nothing that a former one held on to";
    std::future<int32_t> added = std::async(std::launch::async, [] { return AddSet(5); });
    EXPECT_EQ(AddSet(1), 0) << "the holder goes on";
    EXPECT_EQ(added.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout) << "did not wait";
    EXPECT_EQ(kxRuleFinalize(), 0);
    EXPECT_EQ(added.get(), 0);
}

TEST_F(StoreTest, AHolderThatHasEndedStopsNobody)
{
    ASSERT_EQ(AddSet(1), 0);
    std::thread([] { EXPECT_EQ(AddSet(1), KXRULE_E_NO_RULESET); }).join(); // keeps the lock and ends
    const PFW_RULE rule = Build::Access();
    EXPECT_EQ(kxRuleAddRule(1, 1, &rule), 0);
    std::thread([] { EXPECT_EQ(AddSet(1), KXRULE_E_NO_RULESET); }).join();
    EXPECT_EQ(kxRuleFinalize(), 0);
    EXPECT_EQ(AddSet(1), KXRULE_E_NO_RULESET) << "left over, but nothing is held on without a life";
    ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), 0);
    std::thread([] { EXPECT_EQ(AddSet(1), 0); }).join();
}

// While the timer's thread sleeps.
TEST(UnloadTest, UnloadedBeforeItIsFinalised)
{
    const TempDir folder;
    LoadedLibrary first(TestFolder() / "KxPfwRul.dll", folder.Path());
    ASSERT_EQ(KX_CALL_OF(first, kxRuleInitialize, folder.Path().string().c_str(), nullptr), 0);
    EXPECT_FALSE(first.Release()) << "a thread runs in it";
    LoadedLibrary second(folder / "KxPfwRul.dll");
    EXPECT_EQ(KX_CALL_OF(second, kxRuleFinalize), 0);
    EXPECT_TRUE(second.Release());
}

// The other half of the next test.
TEST(UnloadTest, DISABLED_EndsTheProcess)
{
    const TempDir folder;
    EXPECT_EQ(kxRuleInitialize(folder.Path().string().c_str(), nullptr), 0);
}

TEST(UnloadTest, EndsWithItsProcess)
{
    EXPECT_EQ(ExitCodeOfOtherProcess(L"EndsTheProcess"), 0u);
}
