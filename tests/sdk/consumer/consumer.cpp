// The C++ layer as a program meets it that includes the Windows headers with all their macros, against the real DLL.
#undef NDEBUG // every assertion counts
#include <algorithm>
#include <array>
#include <cassert>
#include <filesystem>
#include <iterator>
#include <memory>
#include <ranges>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include <windows.h>

#undef min
#undef max
#define min(a, b) (((a) < (b)) ? (a) : (b)) // as the Windows SDK has them, also for C++
#define max(a, b) (((a) > (b)) ? (a) : (b))

#include <KxPfwRule.hpp>

namespace
{

using kxrule::Outcome;
using kxrule::Result;

static_assert(!std::is_constructible_v<bool, Outcome<bool>>); // true for an inactive rule, it would be
static_assert(std::forward_iterator<kxrule::Macros::Iterator> && std::ranges::forward_range<kxrule::Macros>);
static_assert(!std::is_constructible_v<kxrule::Macro, std::string>); // a name that may be too long goes through parse

// What a Store says of a store, and of what is not in it.
void Values(kxrule::Store& store, uint16_t set)
{
    assert(store.addRule(set, 5, kxrule::access().app(L"C:\\tool.exe").active(false).description(L"off").drop()));
    assert(store.isActive(set, 5).has_value() && !store.isActive(set, 5).value_or(true));
    assert(store.isActive(set, 6).error() == KXRULE_E_NO_RULE && store.isActive(set, 6).value_or(true));
    assert(store.rule(set, 6).error() == Result(KXRULE_E_NO_RULE) && !store.rule(set, 6));
    const PFW_RULE rule = *store.rule(set, 5);
    assert(kxrule::application(rule) == L"C:\\tool.exe" && kxrule::description(rule) == L"off");
    const Result twice = store.addRule(set, 5, rule);
    assert(std::error_code(twice).message() == "KXRULE_E_RULE_EXISTS: the rule index is in use in the rule set");
    assert(twice != store.deleteRule(set, 0) && twice.message() == "the rule index is in use in the rule set");
}

void MacrosAreARange(kxrule::Store& store)
{
    assert(store.addMacro(
        kxrule::Macro("first").add(kxrule::Port("80,8080")).add(kxrule::Address("10.1.1.1")).addText("x")));
    assert(store.addMacro(kxrule::Macro("second").add(kxrule::Address("10.0.0.1"))));
    const kxrule::Macros macros = store.macros();
    const auto found = std::ranges::find(
        macros, "second", [](const PFW_MACRO& macro) { return kxrule::field(macro, &PFW_MACRO::szName); });
    assert(found != macros.end() && kxrule::text(*found).value_or("") == "second=10.0.0.1");
    assert(kxrule::text(*macros.begin()).value_or("") == "first=80|8080,10.1.1.1,x");
}

// A failed open leaves nothing running: the log of the trace can be opened for this program alone. Nobody else can open
// a store in the meantime.
void FailedOpenStopsTheTrace()
{
    std::filesystem::remove("log\\VQR_KxPfw.log");
    const HANDLE other = ::CreateEventW(nullptr, TRUE, FALSE, L"Global\\KxPfwRuleDllLockMutex"); // not a mutex
    assert(other != nullptr);
    kxrule::Store store;
    assert(store.open("rules-closed") == KXRULE_E_MUTEX);
    ::CloseHandle(other);
    assert(store.deleteAllMacros());
    std::error_code error;
    const auto before = std::filesystem::file_size("log\\VQR_KxPfw.log", error);
    assert(!error && store.deleteAllMacros() && std::filesystem::file_size("log\\VQR_KxPfw.log", error) == before);
}

} // namespace

int main(int argc, char**)
{
    if (argc > 1) // no other test runs
        FailedOpenStopsTheTrace();
    else
    {
        kxrule::Store store;
        assert(store.open(L"rules-\u0416\u65E5") == KXRULE_E_FILE_OPEN); // no code page has both
        assert(store.open(L"rules-B\u00FCro") && store.read());
        kxrule::RuleSet set(L"Set", 0);
        assert(store.addRuleSet(set));
        Values(store, set.index());
        MacrosAreARange(store);
        assert(store.flush() && std::filesystem::exists(L"rules-B\u00FCro\\KxRulMas.dat"));
    }
}
