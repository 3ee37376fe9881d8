// first-steps.cpp: the rule store from C++20. Reads the given rule directory, adds a rule of each common kind and a
// macro, and prints the contents.
#include <cstdio>

#include <KxPfwRule.hpp>

namespace
{

using kxrule::Result;

Result AddRules(kxrule::Store& store)
{
    kxrule::RuleSet set(L"Büro", 0);
    if (const Result result = store.addRuleSet(set); !result)
        return result;
    // Literals are checked by the compiler: "10.0.0.256" would not build.
    for (const PFW_RULE& rule : {
             PFW_RULE(kxrule::access().index(10).tcp().from("10.0.0.0/8").port("80,443").accept()),
             PFW_RULE(kxrule::access().index(20).app(L"C:\\Windows\\System32\\ftp.exe").description(L"no FTP").drop()),
             PFW_RULE(kxrule::nat()
                          .index(30)
                          .tcp()
                          .to("192.0.2.1")
                          .port("8080")
                          .translated("10.0.0.5")
                          .natType(KXRULE_NAT_DNAT)),
             PFW_RULE(kxrule::throttle().index(40).udp().port("53").limits({10, 20, 30, 40, 50, 60})),
         })
        if (const Result result = store.addRule(set.index(), rule); !result)
            return result;
    if (const Result result = store.addMacro(kxrule::Macro("servers").add(kxrule::Address("10.0.0.1-10.0.0.9")));
        !result)
        return result;
    const uint16_t active[] = {set.index()};
    return store.setActiveRuleSets(active);
}

int Run(const char* directory)
{
    kxrule::Store store;
    Result result = store.open(directory);
    if (result)
        result = store.read();
    if (result && store.ruleSets().empty())
        result = AddRules(store);
    if (result)
        result = store.flush();
    if (!result)
    {
        std::fprintf(stderr, "%s (%d): %s\n", result.name().data(), result.code(), result.message().data());
        return 1;
    }
    for (const uint16_t index : store.ruleSets())
        if (const auto set = store.ruleSet(index))
            for (const PFW_RULE& rule : set->rules())
                if (const auto text = kxrule::text(rule))
                    std::printf("%u/%u %s\n", index, rule.wRuleIndex, text->c_str());
    for (const PFW_MACRO& macro : store.macros())
        if (const auto text = kxrule::text(macro))
            std::printf("%s\n", text->c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    return Run(argc > 1 ? argv[1] : nullptr);
}
