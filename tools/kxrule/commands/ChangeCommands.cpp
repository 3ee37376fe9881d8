// Commands that change single things: rule sets, rules, the active list, macros, hashes.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Names.h"
#include "policy/Apply.h"
#include "policy/RecordText.h"
#include "policy/ResultCodes.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

bool IsThere(const std::string& path)
{
    return !path.empty() && ::GetFileAttributesW(AbsolutePath(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

/// Whether a rule is bound to the program, whose path the library compares ignoring case.
bool IsNamed(const Policy& policy, const std::wstring& application)
{
    for (const RuleSetRecord& ruleSet : policy.RuleSets)
    {
        for (const PFW_RULE& rule : ruleSet.Rules)
        {
            if (rule.dwKind == KXRULE_KIND_ACCESS &&
                KxCommon::String::EqualNoCase(FromUtf8(WideFieldText(&rule.Access.wszAppName, KXRULE_APP_NAME_UNITS)),
                                              application))
                return true;
        }
    }
    return false;
}

/// A rule whose hash was set, as the callback sees it.
struct Refreshed
{
    uint32_t RuleSetIndex;
    uint16_t RuleIndex;
    std::string Application;
};

int32_t TakeRefreshed(uint32_t ruleSetIndex, const PFW_RULE* rule, void* context)
{
    try
    {
        static_cast<std::vector<Refreshed>*>(context)->push_back(
            {ruleSetIndex, rule->wRuleIndex, WideFieldText(&rule->Access.wszAppName, KXRULE_APP_NAME_UNITS)});
    }
    catch (...) // no exception may leave a callback; the list then lacks one entry
    {
        return 1;
    }
    return 0;
}

} // namespace

int AddRuleSet(Session& session, const std::string& name, std::optional<uint16_t> index)
{
    const KxCommon::WideString wide = RuleSetName(name);
    session.OpenToChange();
    Policy store = session.Read();
    for (const RuleSetRecord& ruleSet : store.RuleSets)
    {
        // Adding at an index in use would leave the library's lock with this thread.
        if (ruleSet.Index == index)
            throw Failure("rule set " + std::to_string(*index) + " already exists");
    }
    std::vector<unsigned char> block = RuleSetBytes(0, wide, {});
    PFW_RULESET* const record = reinterpret_cast<PFW_RULESET*>(block.data());
    session.BeginChange();
    Check(session.Library().kxRuleAddRuleSet(index.value_or(0), record), "adding the rule set");
    session.Write();
    const uint16_t given = record->wRuleSetIndex;
    session.Terminal().Out(session.Options().Json ? Json({{"index", given}}).dump() + "\n"
                                                  : "rule set " + std::to_string(given) + " added\n");
    return ExitDone;
}

int DeleteRuleSets(Session& session, const std::vector<uint16_t>& indexes, bool all)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      for (const uint16_t index : indexes)
                          static_cast<void>(FindRuleSet(wanted, index));
                      std::erase_if(
                          wanted.RuleSets, [&indexes, all](const RuleSetRecord& ruleSet)
                          { return all || std::find(indexes.begin(), indexes.end(), ruleSet.Index) != indexes.end(); });
                      wanted.Active.reset(); // what is deleted leaves the list
                  });
}

int AddRule(Session& session, uint16_t ruleSetIndex, const std::string& rule, bool replace, const RulePlace& place)
{
    // The name of a file may begin like JSON, or look like a rule's line.
    const size_t begin = rule.find_first_not_of(" \t\r\n");
    const bool isText =
        begin != std::string::npos && (rule[begin] == '{' || rule[begin] == '[' || IsRuleLine(rule)) && !IsThere(rule);
    PFW_RULE record{};
    RulePlace where = place;
    bool hasIndex = true;
    std::vector<Diagnostic> diagnostics;
    if (!ReadAnyRule(isText ? rule : ReadTextFile(session, rule), record, hasIndex, diagnostics))
        return TellDiagnostics(session, isText ? "RULE" : rule, diagnostics);
    if (hasIndex && !place.Before && !place.After)
        where.Index = uint16_t{record.wRuleIndex};
    return Change(session,
                  [&](Policy& wanted)
                  {
                      RuleSetRecord& ruleSet = FindRuleSet(wanted, ruleSetIndex);
                      const auto existing = std::find_if(ruleSet.Rules.begin(), ruleSet.Rules.end(),
                                                         [&where](const PFW_RULE& other)
                                                         { return where.Index == uint16_t{other.wRuleIndex}; });
                      if (existing == ruleSet.Rules.end())
                          InsertRule(ruleSet, record, where);
                      else if (replace)
                          *existing = record;
                      else
                          throw Failure("rule set " + std::to_string(ruleSetIndex) + " already has a rule " +
                                        std::to_string(uint16_t{record.wRuleIndex}) + "; use --replace");
                  });
}

int DeleteRules(Session& session, uint16_t ruleSetIndex, const std::vector<uint16_t>& indexes, bool all)
{
    return Change(session,
                  [&](Policy& wanted)
                  {
                      RuleSetRecord& ruleSet = FindRuleSet(wanted, ruleSetIndex);
                      for (const uint16_t index : indexes)
                          ruleSet.Rules.erase(FindRule(ruleSet, index));
                      if (all)
                          ruleSet.Rules.clear();
                  });
}

int Activate(Session& session, const std::vector<uint16_t>& indexes)
{
    session.OpenToChange();
    Policy store = session.Read();
    std::vector<uint16_t> ruleSets;
    for (const RuleSetRecord& ruleSet : store.RuleSets)
        ruleSets.push_back(ruleSet.Index);
    // The library would accept any index; a slip here opens the firewall.
    if (const std::string mistake = ActiveListMistake(indexes, ruleSets); !mistake.empty())
        throw Failure(mistake);
    Policy wanted;
    wanted.Active = indexes;
    return ApplyPolicy(session, store, wanted, MergeMode::Merge);
}

int ClearMacros(Session& session)
{
    return Change(session, [](Policy& wanted) { wanted.Macros->clear(); });
}

int RefreshHashes(Session& session, const std::string& application)
{
    session.OpenToChange();
    const std::wstring path = FromUtf8(application);
    if (!path.empty() && !IsNamed(session.Read(), path))
        throw Failure("no rule is bound to " + application);
    std::vector<Refreshed> refreshed;
    session.BeginChange();
    const int32_t result = session.Library().kxRuleUpdateHashValue(path.empty() ? nullptr : path.c_str(), nullptr,
                                                                   TakeRefreshed, &refreshed);
    if (!refreshed.empty()) // including those before a failure
    {
        session.CopyFiles();
        session.Write();
        session.RemoveOldCopies();
    }
    if (session.Options().Json)
    {
        Json json = Json::array();
        for (const Refreshed& rule : refreshed)
            json.push_back(
                {{"ruleSet", rule.RuleSetIndex}, {"rule", rule.RuleIndex}, {"application", rule.Application}});
        session.Terminal().Out(json.dump(2) + "\n");
    }
    else
    {
        for (const Refreshed& rule : refreshed)
            session.Terminal().Out("rule set " + std::to_string(rule.RuleSetIndex) + ", rule " +
                                   std::to_string(rule.RuleIndex) + "  " + Printable(rule.Application) + "\n");
        session.Terminal().Out(std::to_string(refreshed.size()) + (refreshed.size() == 1 ? " hash" : " hashes") +
                               " computed\n");
    }
    if (result != KXRULE_OK)
        throw Failure("computing hashes: " + ResultText(result) +
                          (result == KXRULE_E_HASH_LIBRARY
                               ? std::string("; it is looked for in the directory that the registry value InstallPath "
                                             "of HKLM\\") +
                                     ToUtf8(KxCommon::Names::kRegistryKey) + " names"
                               : std::string()),
                      ExitFailed, result);
    return ExitDone;
}

} // namespace Tool
