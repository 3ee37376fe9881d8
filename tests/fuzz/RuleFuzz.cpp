// Bytes as a rule or a macro: normalised, rendered, written, read back, shown as JSON. The first byte says which; after
// it comes the record, followed by zeros, or the macro's name and its items.
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "common/srclib/KxComn_Record.h"
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
std::string TextOf(const Item& item, void (*append)(std::string&, const Item&))
{
    const auto alone = std::make_unique<Item>(item);
    std::string text;
    append(text, *alone);
    return text;
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
    std::string line = "before";
    const uint32_t kind = rule.dwKind;
    if (RuleText::Render(*alone, line) != KXRULE_OK)
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
    std::string again;
    KX_REQUIRE(RuleText::Render(*alone, again) == KXRULE_OK && again == line);
}

void CheckRanges(const PFW_RULE& rule)
{
    for (const RULE_ADDR& item : rule.Access.Addr)
    {
        const bool isRange = item.dwType == KXRULE_ADDR_RANGE;
        KX_REQUIRE(!isRange || item.dwFamily != KXRULE_FAMILY_IPV4 || item.Addr1.dwIPv4 <= item.Addr2.dwIPv4);
        KX_REQUIRE(!isRange || item.dwFamily != KXRULE_FAMILY_IPV6 ||
                   std::memcmp(item.Addr1.abIPv6, item.Addr2.abIPv6, sizeof item.Addr1) <= 0);
    }
    for (const RULE_PORT& item : rule.Access.Port)
        KX_REQUIRE(item.nType != KXRULE_PORT_RANGE || item.wPort1 <= item.wPort2);
}

void CheckNormalised(const PFW_RULE& given, const PFW_RULE& rule)
{
    const bool isAccess = given.dwKind == KXRULE_KIND_ACCESS;
    if (!isAccess && given.dwKind != KXRULE_KIND_ACCESS2)
        return KX_REQUIRE(Same(given, rule));
    CheckRanges(rule);
    KX_REQUIRE((isAccess ? rule.Access.wszAppName : rule.Access2.wszAppName)[KXRULE_APP_NAME_UNITS - 1] == 0);
    KX_REQUIRE(Same(CRule(rule).Record(), rule));
    // Except for ranges, the name's end, the hash and the flag after it, nothing changes.
    const size_t ends = isAccess ? offsetof(PFW_RULE, Access.dwSystem) : offsetof(PFW_RULE, Access2.dwSystem);
    const uint8_t* const before = reinterpret_cast<const uint8_t*>(&given);
    const uint8_t* const after = reinterpret_cast<const uint8_t*>(&rule);
    const auto same = [=](size_t begin, size_t end)
    { return std::memcmp(before + begin, after + begin, end - begin) == 0; };
    KX_REQUIRE(same(0, offsetof(PFW_RULE, Access.Addr)));
    KX_REQUIRE(same(offsetof(PFW_RULE, Access.dwAction), ends - KXRULE_HASH_BYTES - sizeof(KXWCHAR)));
    KX_REQUIRE(same(ends + sizeof(uint32_t), sizeof rule));
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

void CheckRule(Fuzz::Input& input)
{
    const auto given = std::make_unique<PFW_RULE>();
    std::memset(static_cast<void*>(given.get()), 0, sizeof *given);
    input.TakeInto(given.get(), sizeof *given);
    const CRule rule(*given);
    CheckNormalised(*given, rule.Record());
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

    std::vector<uint8_t> copy(macro.RecordBytes());
    macro.CopyRecord(copy.data());
    const CMacro copied(*reinterpret_cast<const PFW_MACRO*>(copy.data()));
    KX_REQUIRE(copied.Name() == macro.Name() && SameRecords(copied.Items(), macro.Items()));

    FileContent content, read;
    content.Macros.assign(2, {macro.Name(), macro.Items()});
    MemoryStream stream(content.Write(FileContent::Kind::Macros));
    KX_REQUIRE(read.Read(FileContent::Kind::Macros, stream).empty() && read == content);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FakeHashDll library;
    library.Hash.fill(0xAB);
    Fuzz::Input input(data, size);
    if (input.Take<uint8_t>() % 2 == 0)
        CheckRule(input);
    else
        CheckMacro(input);
    return 0;
}
