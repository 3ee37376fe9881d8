// A store in a directory of its own, reached through the exports of the built DLL, as a customer reaches it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Record.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/TempDir.h"

using Indexes = std::vector<uint16_t>;

class StoreTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), KXRULE_OK); }
    void TearDown() override { EXPECT_EQ(kxRuleFinalize(), KXRULE_OK); }

    /// With a backslash at its end.
    [[nodiscard]] std::string Directory() const { return m_Directory.Path().string() + '\\'; }
    [[nodiscard]] std::string PathOf(const std::string& name) const { return Directory() + name; }

    /// Finalises the library, which writes pending changes, and initialises it again on the same directory.
    void Close() { ASSERT_EQ(kxRuleFinalize(), KXRULE_OK); }
    void Open(int32_t expectedRead = KXRULE_OK)
    {
        ASSERT_EQ(kxRuleInitialize(Directory().c_str(), nullptr), KXRULE_OK);
        ASSERT_EQ(kxRuleRead(), expectedRead);
    }
    void Reopen()
    {
        Close();
        Open();
    }

    static int32_t AddSet(uint16_t index, const std::vector<PFW_RULE>& rules = {},
                          KxCommon::WideStringView name = L"set")
    {
        auto block = Build::RuleSet(index, name, rules);
        return kxRuleAddRuleSet(index, block.get());
    }
    static Indexes SetIndexes()
    {
        Indexes indexes(static_cast<size_t>(kxRuleGetRuleSetIndex(nullptr, 0)));
        kxRuleGetRuleSetIndex(indexes.data(), static_cast<int32_t>(indexes.size()));
        return indexes;
    }
    static Indexes ActiveIndexes()
    {
        Indexes indexes(static_cast<size_t>(kxRuleGetActiveRuleSet(nullptr, 0)));
        kxRuleGetActiveRuleSet(indexes.data(), static_cast<int32_t>(indexes.size()));
        return indexes;
    }
    /// The rules of a set, ascending.
    static std::vector<PFW_RULE> Rules(uint16_t index)
    {
        const int32_t count = kxRuleGetRuleSet(index, nullptr, 0);
        std::vector<unsigned char> bytes(KXRULE_RULESET_BYTES(count < 0 ? 0 : count));
        kxRuleGetRuleSet(index, reinterpret_cast<PFW_RULESET*>(bytes.data()), count);
        const PFW_RULE* const first = KXRULE_RULES(bytes.data());
        return {first, first + (count < 0 ? 0 : count)};
    }
    static Indexes RuleIndexes(uint16_t index)
    {
        Indexes indexes;
        for (const PFW_RULE& rule : Rules(index))
            indexes.push_back(rule.wRuleIndex);
        return indexes;
    }

    [[nodiscard]] std::string ReadFile(const std::string& name) const { return ReadBytes(PathOf(name)); }
    void WriteFile(const std::string& name, const std::string& content) const { WriteBytes(PathOf(name), content); }
    [[nodiscard]] bool Exists(const std::string& name) const { return std::filesystem::exists(PathOf(name)); }

private:
    TempDir m_Directory;
};
