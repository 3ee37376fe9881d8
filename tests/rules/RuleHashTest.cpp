// Hashes of applications when they are refreshed. (How a rule gets one when it is made, tests/fuzz tells from a second
// implementation.)
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "rules/Rule.h"
#include "tests/support/FakeHashDll.h"
#include "tests/support/RecordBuilder.h"
#include "tests/support/TraceSink.h"

namespace
{

using namespace Build;
using KxCommon::WideString;
using Hash = std::array<uint8_t, 20>;

// Hashes differ only in the last byte.
Hash HashOf(int byte)
{
    Hash hash{};
    hash[19] = static_cast<uint8_t>(byte);
    return hash;
}

// Whatever the kind, the places are those of an access rule.
PFW_RULE RuleFor(uint32_t kind, const WideString& application, uint32_t system, int hash)
{
    PFW_RULE rule = Rule(kind, 7);
    char* const fields = reinterpret_cast<char*>(&rule) + 784;
    SetText(fields, 261, application);
    fields[541] = static_cast<char>(hash);
    std::memcpy(fields + 542, &system, 4);
    return rule;
}

const WideString kApp = KXW("C:\\a.exe");
const WideString kLong(261, 'L');   // fills the field: no terminator
const WideString kLonger(262, 'L'); // no name has so many
constexpr int kComputed = 0xCC;     // what the library answers

struct CountingLock final : CLock
{
    bool Lock() override { return IsHeld = ++Count > 0; }
    bool Unlock() override { return !(IsHeld = false); }
    int Count = 0;
    bool IsHeld = false;
};

enum Outcome
{
    Untouched,
    Nameless, // with a line of trace
    Fails,    // the library is asked in vain
    Changes
};

const struct UpdateCase
{
    const char* Name;
    uint32_t System;
    WideString Application;
    int Hash;
    const KXWCHAR* Path; // null: every rule
    int Given;           // -1: null
    Outcome Expected;
} kUpdates[] = {
    {"every application", 0, kApp, 5, nullptr, -1, Changes},
    {"path in other case", 0, kApp, 5, KXW("c:\\A.EXE"), -1, Changes},
    {"longer path", 0, kApp, 5, KXW("C:\\a.exe2"), -1, Untouched},
    {"zero hash given", 0, kApp, 5, nullptr, 0, Changes},
    {"other hash given: computed all the same", 0, kApp, 5, nullptr, 6, Changes},
    {"hash as stored given", 0, kApp, 5, nullptr, 5, Untouched},
    {"computed as stored", 0, kApp, kComputed, nullptr, 6, Changes},
    {"no name", 0, {}, 5, nullptr, -1, Nameless},
    {"no name, hash as stored", 0, {}, 5, nullptr, 5, Untouched},
    {"no name, path given", 0, {}, 5, KXW(""), -1, Untouched},
    {"no terminator", 0, kLong, 5, kLong.c_str(), -1, Changes},
    {"path longer than any name", 0, kLong, 5, kLonger.c_str(), -1, Untouched},
    {"system, hash given", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), 6, Changes},
    {"system, hash as stored", 1, KXW("SYSTEM"), 6, KXW("system"), 6, Changes},
    {"system, zero hash", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), 0, Untouched},
    {"system, no hash", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), -1, Untouched},
    {"system, no path", 1, KXW("SYSTEM"), 5, nullptr, 6, Untouched},
    {"unknown system value", 2, kApp, 5, nullptr, -1, Untouched},
    {"unknown system value, path given", 2, kApp, 5, KXW("C:\\a.exe"), 6, Untouched},
};

struct Call
{
    PFW_RULE Expected;
    int Count = 0;
};

int32_t CheckCall(uint32_t ruleSetIndex, const PFW_RULE* rule, void* context)
{
    ++static_cast<Call*>(context)->Count;
    EXPECT_EQ(ruleSetIndex, 3u);
    EXPECT_EQ(std::memcmp(rule, &static_cast<Call*>(context)->Expected, 2845), 0) << "called after the change";
    return -1; // no concern of the library's
}

void CheckUpdate(const UpdateCase& c, uint32_t kind, Outcome outcome, FakeHashDll& library, int32_t result)
{
    CRule rule;
    rule.SetRule(RuleFor(kind, c.Application, c.System, c.Hash));
    const bool isChanged = outcome == Changes;
    const KXRULE_HASH_CALLBACK callback = kind == 6 ? nullptr : CheckCall;
    const int hashAfter = !isChanged ? c.Hash : c.System != 0 ? c.Given : kComputed;
    Call call{RuleFor(kind, c.Application, c.System, hashAfter)};
    const Hash given = HashOf(c.Given);
    const std::vector<uint16_t> before = kind == 1 ? std::vector<uint16_t>{9} : std::vector<uint16_t>{3, 9};
    std::vector<uint16_t> changed = before;
    CountingLock lock;
    library.OnCall = [&](const WideString&) { EXPECT_FALSE(lock.IsHeld) << c.Name; };
    const std::string name(c.Application.begin(), c.Application.end());
    std::vector<std::string> lines;
    if (outcome == Nameless)
        lines = {"1 CRule::UpdateHash, m_Rule.Access.wszAppName is empty RuleSet(3) Rule(7)"};
    if (outcome == Fails || isChanged)
        lines = {"1 CRule::UpdateHash, Updating hash RuleSet(3) Rule(7) (" + name + ")"};
    if (isChanged && callback != nullptr)
        lines.push_back("1 Call callback function");

    TraceSink trace;
    EXPECT_EQ(rule.UpdateHash(3, c.Path, c.Given < 0 ? nullptr : given.data(), callback, &call, changed, lock), result)
        << c.Name;
    EXPECT_EQ(trace.Take(), lines) << c.Name;
    EXPECT_EQ(std::memcmp(&rule.Record(), &call.Expected, 2845), 0) << c.Name << ", kind " << kind;
    EXPECT_EQ(lock.Count, isChanged ? 1 : 0) << c.Name;
    EXPECT_EQ(call.Count, isChanged && callback != nullptr ? 1 : 0) << c.Name;
    EXPECT_EQ(changed, isChanged && kind == 1 ? (std::vector<uint16_t>{9, 3}) : before) << c.Name;
}

TEST(RuleHash, IsRefreshed)
{
    for (const UpdateCase& c : kUpdates)
        for (const uint32_t kind : {1u, 4u, 6u})
        {
            FakeHashDll library;
            library.Hash = HashOf(kComputed);
            CheckUpdate(c, kind, c.Expected, library, 0);
            const bool isComputed = c.Expected == Changes && c.System == 0;
            EXPECT_EQ(library.Hashed, std::vector<WideString>(isComputed ? 1 : 0, c.Application)) << c.Name;
            if (!isComputed)
                continue;
            library.Status = -77;
            CheckUpdate(c, kind, Fails, library, -77);
            library.LoadFails = true;
            CheckUpdate(c, kind, Fails, library, -10067);
        }
}

} // namespace
