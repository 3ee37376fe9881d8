// Bytes as a rule or a macro: normalised, rendered, written, read back, shown as JSON. The first byte says which; after
// it comes the record, followed by zeros, or the macro's name and its items.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "common/srclib/KxComn_Record.h"
#include "policy/RuleFields.h"
#include "policy/RulesText.h"
#include "rules/Macro.h"
#include "rules/Normalise.h"
#include "rules/Rule.h"
#include "rules/RuleText.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/FakeHashDll.h"
#include "tests/support/FileContent.h"
#include "tests/support/TraceSink.h"

namespace
{

constexpr size_t kUsedHead = offsetof(PFW_RULE, dwKind); // what stands before it is in no line

struct NoLock final : CLock
{
    bool Lock() override { return true; }
    bool Unlock() override { return true; }
};

bool Same(const PFW_RULE& a, const PFW_RULE& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

/// An item's text from a copy in separate memory, so that reading past it shows.
template <class Item>
std::string TextOf(const Item& item, void (*append)(RuleText::Line&, const Item&))
{
    const auto alone = std::make_unique<Item>(item);
    RuleText::Line text;
    append(text, *alone);
    return std::string(text.View());
}

template <class Block>
std::string TrafficOf(const Block& block)
{
    std::string text;
    for (const RULE_ADDR& address : block.Addr)
        text += TextOf(address, RuleText::AppendAddress) + ',';
    if constexpr (requires { block.Port; })
        for (const RULE_PORT& port : block.Port)
            text += TextOf(port, RuleText::AppendPort) + ',';
    return text;
}

struct Shown
{
    std::string Traffic; // what the line says about addresses and ports, after two keywords
    size_t End;          // the first byte after what it shows
};

Shown ShownOf(const PFW_RULE& rule)
{
    switch (rule.dwKind)
    {
    case KXRULE_KIND_ACCESS:
        return {TrafficOf(rule.Access), offsetof(PFW_RULE, Access.wszAppName)};
    case KXRULE_KIND_NAT:
        return {TrafficOf(rule.Nat), offsetof(PFW_RULE, Nat.dwNatType) + sizeof(uint32_t)};
    case KXRULE_KIND_THROTTLE:
        return {TrafficOf(rule.Throttle), offsetof(PFW_RULE, Throttle.szExtText) + KXRULE_EXT_TEXT_BYTES};
    case KXRULE_KIND_STREAM:
        return {TrafficOf(rule.Stream), sizeof rule};
    default:
        return {TrafficOf(rule.GenStream), sizeof rule};
    }
}

void CheckLine(const PFW_RULE& rule)
{
    const auto alone = std::make_unique<PFW_RULE>(rule);
    RuleText::Line rendered;
    rendered += "before";
    const uint32_t kind = rule.dwKind;
    const int32_t result = RuleText::Render(*alone, rendered);
    const std::string line(rendered.View());
    if (result != KXRULE_OK)
    {
        KX_REQUIRE(line == "before" && (kind < KXRULE_KIND_ACCESS || kind > KXRULE_KIND_GENSTREAM));
        return;
    }
    KX_REQUIRE(line.find('\0') == std::string::npos);
    const size_t start = line.find(',', line.find(',') + 1) + 1;
    const Shown shown = ShownOf(rule);
    KX_REQUIRE(line.compare(start, shown.Traffic.size(), shown.Traffic) == 0);

    // A field without a terminator must not bring its neighbours into the line.
    uint8_t* const bytes = reinterpret_cast<uint8_t*>(alone.get());
    std::fill_n(bytes, kUsedHead, 'x');
    std::fill(bytes + shown.End, bytes + sizeof rule, static_cast<uint8_t>('x'));
    KX_REQUIRE(RuleText::Render(*alone, rendered) == KXRULE_OK && rendered.View() == line);
}

/// What a rule made of the record holds: of an access rule, ranges in order, a program's name with an end, and the hash
/// that is missing. Everything else stays as it is.
PFW_RULE Stored(PFW_RULE rule, const FakeHashDll* library)
{
    if (rule.dwKind != KXRULE_KIND_ACCESS && rule.dwKind != KXRULE_KIND_ACCESS2)
        return rule;
    for (RULE_ADDR& item : rule.Access.Addr)
    {
        const bool isIPv4 = item.dwFamily == KXRULE_FAMILY_IPV4;
        const bool isReversed = isIPv4 ? item.Addr1.dwIPv4 > item.Addr2.dwIPv4
                                       : item.dwFamily == KXRULE_FAMILY_IPV6 &&
                                             std::memcmp(&item.Addr1, &item.Addr2, sizeof item.Addr1) > 0;
        if (item.dwType == KXRULE_ADDR_RANGE && isReversed)
            std::swap_ranges(item.Addr1.abIPv6, item.Addr1.abIPv6 + (isIPv4 ? 4 : 16), item.Addr2.abIPv6);
    }
    for (RULE_PORT& item : rule.Access.Port)
    {
        const uint16_t first = item.wPort1;
        if (item.nType == KXRULE_PORT_RANGE && first > item.wPort2)
        {
            item.wPort1 = item.wPort2;
            item.wPort2 = first;
        }
    }
    const auto store = [&](auto& block)
    {
        block.wszAppName[KXRULE_APP_NAME_UNITS - 1] = 0;
        const KxCommon::WideString program = KxPolicy::ApplicationOf(rule);
        uint8_t* const hash = block.abAppHash;
        if (program == KXW("SYSTEM"))
        {
            block.dwSystem = 1;
            std::fill_n(hash, KXRULE_HASH_BYTES, uint8_t{0});
        }
        const bool isMissing = std::count(hash, hash + KXRULE_HASH_BYTES, 0) == KXRULE_HASH_BYTES;
        if (library != nullptr && isMissing && !program.empty() && block.dwSystem == 0)
            std::copy(library->Hash.begin(), library->Hash.end(), hash);
    };
    if (rule.dwKind == KXRULE_KIND_ACCESS)
        store(rule.Access);
    else
        store(rule.Access2);
    return rule;
}

void CheckStored(const PFW_RULE& given, FakeHashDll& library)
{
    library.LoadFails = true;
    const PFW_RULE unhashed = CRule(given).Record();
    KX_REQUIRE(Same(unhashed, Stored(given, nullptr)));
    library.LoadFails = false;
    const PFW_RULE stored = Stored(given, &library);
    const bool isAsked = !Same(stored, unhashed);
    for (const int32_t status : {5, 0}) // what a failing library leaves in the field stays there
    {
        library.Status = status;
        library.LoadCount = 0;
        library.Hashed.clear();
        KX_REQUIRE(Same(CRule(given).Record(), stored));
        KX_REQUIRE(library.LoadCount == (isAsked ? 1 : 0) && library.Hashed.size() == (isAsked ? 1u : 0u));
        KX_REQUIRE(!isAsked || library.Hashed[0] == KxPolicy::ApplicationOf(stored));
    }
    KX_REQUIRE(Same(CRule(stored).Record(), stored));
}

void CheckHash(CRule rule)
{
    const PFW_RULE before = rule.Record();
    const TraceSink trace; // the lines show the application's name
    std::vector<uint16_t> changed;
    NoLock lock;
    KX_REQUIRE(rule.UpdateHash(1, nullptr, nullptr, nullptr, nullptr, changed, lock) == KXRULE_OK);
    PFW_RULE expected = before;
    if (!changed.empty())
        std::memcpy(expected.Access.abAppHash, rule.Record().Access.abAppHash, KXRULE_HASH_BYTES);
    KX_REQUIRE(Same(rule.Record(), expected));
    const std::array<uint8_t, KXRULE_HASH_BYTES> hash = {1, 2, 3};
    const KxCommon::WideString name = KxCommon::Record::WideText(&before.Access.wszAppName, KXRULE_APP_NAME_UNITS);
    KX_REQUIRE(rule.UpdateHash(1, name.c_str(), hash.data(), nullptr, nullptr, changed, lock) == KXRULE_OK);
}

void CheckFile(const PFW_RULE& rule)
{
    FileContent content, read;
    content.Rules = {rule};
    MemoryStream stream(content.Write(FileContent::Kind::RuleSet));
    KX_REQUIRE(read.Read(FileContent::Kind::RuleSet, stream).empty() && read == content);
}

void CheckJson(const PFW_RULE& rule)
{
    PFW_RULE read{};
    std::vector<KxPolicy::Diagnostic> errors;
    const bool isRefused = rule.dwKind == KXRULE_KIND_ACCESS && Normalise::HasBlankPortList(rule);
    KX_REQUIRE(KxPolicy::ReadRule(KxPolicy::RuleToJson(rule), read, errors) != isRefused);
    KX_REQUIRE(errors.size() == (isRefused ? 1 : 0) && Same(read, rule));
    bool hasIndex = false;
    read = {};
    const std::string text = std::to_string(rule.wRuleIndex) + "  " + KxPolicy::RuleToText(rule);
    KX_REQUIRE(KxPolicy::ReadAnyRule(text, read, hasIndex, errors) != isRefused && hasIndex);
    KX_REQUIRE(errors.size() == (isRefused ? 1 : 0) && Same(read, rule));
}

void CheckRule(Fuzz::Input& input, FakeHashDll& library)
{
    const auto given = std::make_unique<PFW_RULE>();
    std::memset(static_cast<void*>(given.get()), 0, sizeof *given);
    input.TakeInto(given.get(), sizeof *given);
    CheckStored(*given, library);
    const CRule rule(*given);
    CheckLine(rule.Record());
    CheckHash(rule);
    CheckFile(rule.Record());
    CheckJson(rule.Record());
}

void CheckMacro(Fuzz::Input& input)
{
    std::vector<uint8_t> record = input.TakeBytes(sizeof(PFW_MACRO));
    const size_t count = (input.Left() + sizeof(MACRO_ITEM) - 1) / sizeof(MACRO_ITEM);
    const std::vector<uint8_t> items = input.TakeBytes(count * sizeof(MACRO_ITEM));
    record.insert(record.end(), items.begin(), items.end());
    PFW_MACRO& head = *reinterpret_cast<PFW_MACRO*>(record.data());
    if (head.nItemCount > 0) // how many there are is the caller's word
        head.nItemCount = static_cast<int32_t>(count);
    const CMacro macro(head);
    KX_REQUIRE(macro.Items().size() == (head.nItemCount > 0 ? count : 0));
    KX_REQUIRE(macro.Name() == std::string(head.szName, ::strnlen(head.szName, sizeof head.szName - 1)));

    std::string text = "before";
    const int32_t result = macro.GetMacroString(text);
    KX_REQUIRE(macro.Items().empty() ? result == KXRULE_E_MACRO_TEXT && text == "before" : result == KXRULE_OK);
    std::string expected;
    for (const MACRO_ITEM& item : macro.Items())
    {
        expected += expected.empty() ? macro.Name() + '=' : std::string(",");
        if (item.dwItemType == KXRULE_ITEM_ADDR)
            expected += TextOf(item.Addr, RuleText::AppendAddress);
        else if (item.dwItemType == KXRULE_ITEM_PORT)
            expected += TextOf(item.Port, RuleText::AppendPort);
        else if (item.dwItemType == KXRULE_ITEM_TEXT)
            expected += std::string(item.szText, ::strnlen(item.szText, sizeof item.szText));
    }
    KX_REQUIRE(macro.Items().empty() || text == expected);

    std::vector<uint8_t> copy(KXRULE_MACRO_BYTES(macro.Items().size()), 'x');
    KX_REQUIRE(macro.RecordBytes() == copy.size());
    macro.CopyRecord(copy.data());
    const CMacro copied(*reinterpret_cast<const PFW_MACRO*>(copy.data()));
    KX_REQUIRE(copied.Name() == macro.Name() && SameRecords(copied.Items(), macro.Items()));

    FileContent content, read;
    content.Macros.assign(2, {macro.Name(), macro.Items()});
    MemoryStream stream(content.Write(FileContent::Kind::Macros));
    KX_REQUIRE(read.Read(FileContent::Kind::Macros, stream).empty() && read == content);
}

} // namespace

extern "C" int RuleFuzz(const uint8_t* data, size_t size)
{
    FakeHashDll library;
    library.Hash.fill(0xAB);
    Fuzz::Input input(data, size);
    if (input.Take<uint8_t>() % 2 == 0)
        CheckRule(input, library);
    else
        CheckMacro(input);
    return 0;
}
