// A store whose files are known byte by byte before and after a change: encryption is deterministic, so the directory
// must afterwards be in one of the two states.
#pragma once

#include <map>

#include "common/srclib/KxComn_Windows.h"
#include "tests/api/StoreFixture.h"
#include "tests/torture/Scale.h"

class TortureTest : public StoreTest
{
protected:
    using Files = std::map<std::string, std::string>; // path below the rule directory, content

    /// Two sets, of 3 rules and of many, a macro and an active list.
    static void FillStore(uint16_t many)
    {
        std::vector<PFW_RULE> rules;
        for (uint16_t i = 0; i < many; ++i)
            rules.push_back(Build::Access(i));
        ASSERT_EQ(AddSet(1, {rules.begin(), rules.begin() + 3}, L"small"), 0);
        ASSERT_EQ(AddSet(2, rules, L"large"), 0);
        ASSERT_EQ(kxRuleAddMacro(Build::Macro("web", {Build::Item("a")}).get()), 0);
        const uint16_t active[] = {1};
        ASSERT_EQ(kxRuleSetActiveRuleSet(active, 1), 0);
    }
    /// Touches every file.
    static void ChangeStore()
    {
        const PFW_RULE rule = Build::Access(7);
        ASSERT_EQ(kxRuleAddRule(1, 100, &rule), 0);
        ASSERT_EQ(kxRuleDeleteRule(2, 5), 0);
        ASSERT_EQ(AddSet(3, {rule}, L"new"), 0);
        ASSERT_EQ(kxRuleAddMacro(Build::Macro("mail", {Build::Item("b")}).get()), 0);
    }
    [[nodiscard]] Files Snapshot() const
    {
        Files files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Directory()))
        {
            if (entry.is_regular_file() && entry.path().extension() != ".tmp")
                files[entry.path().string().substr(Directory().size())] = ReadBytes(entry.path());
        }
        return files;
    }
    /// The directory holds exactly these files afterwards.
    void Restore(const Files& files) const
    {
        for (const auto& entry : std::filesystem::directory_iterator(Directory()))
            std::filesystem::remove_all(entry.path());
        for (const auto& [name, content] : files)
            WriteFile(name, content);
    }
    [[nodiscard]] static DWORD Handles()
    {
        DWORD count = 0;
        ::GetProcessHandleCount(::GetCurrentProcess(), &count);
        return count;
    }
    /// Every file is one of two states, and none is missing that both have.
    static void ExpectOldOrNew(const Files& now, const Files& before, const Files& after)
    {
        for (const auto& [name, content] : now)
        {
            const auto old = before.find(name), fresh = after.find(name);
            EXPECT_TRUE((old != before.end() && old->second == content) ||
                        (fresh != after.end() && fresh->second == content))
                << name << " is neither as before nor as after, " << content.size() << " bytes";
        }
        for (const auto& [name, content] : before)
            EXPECT_TRUE(now.count(name) != 0 || after.count(name) == 0) << name << " is missing";
    }
    /// Nothing is lost: every former content is still somewhere below the directory.
    static void ExpectNothingLost(const Files& now, const Files& before)
    {
        for (const auto& [name, content] : before)
        {
            bool isFound = false;
            for (const auto& entry : now)
                isFound = isFound || entry.second == content;
            EXPECT_TRUE(isFound) << name << " is lost";
        }
    }
};
