// Application hashes: when the hash library is called, and what happens to its result.
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

// The application's fields begin at 784 in the first layout and at 788 in the second.
PFW_RULE RuleFor(uint32_t kind, size_t offset, const WideString& application, uint32_t system, int hash)
{
    PFW_RULE rule = Rule(kind, 7);
    char* const fields = reinterpret_cast<char*>(&rule) + offset;
    SetText(fields, 261, application);
    fields[541] = static_cast<char>(hash);
    std::memcpy(fields + 542, &system, 4);
    return rule;
}

const WideString kApp = KXW("C:\\a.exe");
const WideString kLong(261, 'L');   // fills the field: no terminator
const WideString kLonger(262, 'L'); // no name has so many
constexpr int kComputed = 0xCC;     // what the library answers

TEST(RuleHash, IsFilledInWhenARuleIsMade)
{
    const struct
    {
        const char* Name;
        uint32_t Kind;
        size_t Offset;
        WideString Application;
        uint32_t System;
        int Hash, Loads;
        uint32_t SystemAfter;
        int HashAfter;
    } cases[] = {
        {"application", 1, 784, kApp, 0, 0, 1, 0, kComputed},
        {"second layout", 6, 788, kApp, 0, 0, 1, 0, kComputed},
        {"second layout, text up to its name", 6, 784, KXW("ab"), 0, 0, 0, 0, 0},
        {"other kind", 2, 784, kApp, 0, 0, 0, 0, 0},
        {"system", 1, 784, KXW("SYSTEM"), 0, 5, 0, 1, 0},
        {"system, second layout", 6, 788, KXW("SYSTEM"), 9, 5, 0, 1, 0},
        {"other case", 1, 784, KXW("System"), 0, 0, 1, 0, kComputed},
        {"longer name", 1, 784, KXW("SYSTEM.exe"), 0, 0, 1, 0, kComputed},
        {"hash known", 1, 784, kApp, 0, 5, 0, 0, 5},
        {"once a system rule", 1, 784, kApp, 1, 0, 0, 1, 0},
        {"no application", 1, 784, {}, 0, 0, 0, 0, 0},
        {"no terminator", 1, 784, kLong, 0, 0, 1, 0, kComputed},
    };
    for (const auto& c : cases)
        for (const int32_t status : {0, 5}) // what a failing library leaves in the field stays there
        {
            FakeHashDll library;
            library.Hash = HashOf(kComputed);
            library.Status = status;
            const CRule rule(RuleFor(c.Kind, c.Offset, c.Application, c.System, c.Hash));
            PFW_RULE expected = RuleFor(c.Kind, c.Offset, c.Application.substr(0, 260), c.SystemAfter, c.HashAfter);
            EXPECT_EQ(std::memcmp(&rule.Record(), &expected, 2845), 0) << c.Name;
            EXPECT_EQ(library.LoadCount, c.Loads) << c.Name;
            EXPECT_TRUE(c.Loads == 0 || library.Hashed[0] == c.Application.substr(0, 260)) << c.Name;
        }
    const CRule rule(RuleFor(1, 784, kApp, 0, 0)); // no library
    EXPECT_EQ(+rule.Record().Access.abAppHash[19], 0);
}

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

struct UpdateCase
{
    const char* Name;
    uint32_t System;
    WideString Application;
    int Hash;
    const KXWCHAR* Path; // null: every rule
    int Given;           // -1: null
    Outcome Expected;
    int HashAfter;
};

const UpdateCase kUpdates[] = {
    {"every application", 0, kApp, 5, nullptr, -1, Changes, kComputed},
    {"path in other case", 0, kApp, 5, KXW("c:\\A.EXE"), -1, Changes, kComputed},
    {"longer path", 0, kApp, 5, KXW("C:\\a.exe2"), -1, Untouched, 5},
    {"zero hash given", 0, kApp, 5, nullptr, 0, Changes, kComputed},
    {"other hash given: computed all the same", 0, kApp, 5, nullptr, 6, Changes, kComputed},
    {"hash as stored given", 0, kApp, 5, nullptr, 5, Untouched, 5},
    {"computed as stored", 0, kApp, kComputed, nullptr, 6, Changes, kComputed},
    {"no name", 0, {}, 5, nullptr, -1, Nameless, 5},
    {"no name, hash as stored", 0, {}, 5, nullptr, 5, Untouched, 5},
    {"no name, path given", 0, {}, 5, KXW(""), -1, Untouched, 5},
    {"no terminator", 0, kLong, 5, kLong.c_str(), -1, Changes, kComputed},
    {"path longer than any name", 0, kLong, 5, kLonger.c_str(), -1, Untouched, 5},
    {"system, hash given", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), 6, Changes, 6},
    {"system, hash as stored", 1, KXW("SYSTEM"), 6, KXW("system"), 6, Changes, 6},
    {"system, zero hash", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), 0, Untouched, 5},
    {"system, no hash", 1, KXW("SYSTEM"), 5, KXW("SYSTEM"), -1, Untouched, 5},
    {"system, no path", 1, KXW("SYSTEM"), 5, nullptr, 6, Untouched, 5},
    {"unknown system value", 2, kApp, 5, nullptr, -1, Untouched, 5},
    {"unknown system value, path given", 2, kApp, 5, KXW("C:\\a.exe"), 6, Untouched, 5},
};

// The context is the expected record.
int32_t CheckCallback(uint32_t ruleSetIndex, const PFW_RULE* rule, void* context)
{
    EXPECT_EQ(ruleSetIndex, 3u);
    EXPECT_EQ(std::memcmp(rule, context, 2845), 0) << "called after the change";
    return -1; // no concern of the library's
}

// Whatever the kind, the offsets of the first layout are used.
void CheckUpdate(const UpdateCase& c, uint32_t kind, Outcome outcome, FakeHashDll& library, int32_t result)
{
    CRule rule;
    rule.SetRule(RuleFor(kind, 784, c.Application, c.System, c.Hash));
    const bool isChanged = outcome == Changes;
    const KXRULE_HASH_CALLBACK callback = kind == 6 ? nullptr : CheckCallback;
    PFW_RULE expected = RuleFor(kind, 784, c.Application, c.System, isChanged ? c.HashAfter : c.Hash);
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
    EXPECT_EQ(rule.UpdateHash(3, c.Path, c.Given < 0 ? nullptr : given.data(), callback, &expected, changed, lock),
              result)
        << c.Name;
    EXPECT_EQ(trace.Take(), lines) << c.Name;
    EXPECT_EQ(std::memcmp(&rule.Record(), &expected, 2845), 0) << c.Name << ", kind " << kind;
    EXPECT_EQ(lock.Count, isChanged ? 1 : 0) << c.Name;
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
