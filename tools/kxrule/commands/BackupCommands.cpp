// The copies below RuleBackup: backups, undo.
#include <nlohmann/json.hpp>

#include "persistence/Copies.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/Confirmation.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

/// The date and time in the name of a dated directory.
std::string Date(const std::string& digits)
{
    const auto part = [&digits](size_t at) { return digits.substr(2 * at, 2); };
    return "20" + part(0) + "-" + part(1) + "-" + part(2) + " " + part(3) + ":" + part(4) + ":" + part(5);
}

std::wstring PathOf(const Session& session, const Copies::Dated& copy)
{
    return session.Directory() + FromUtf8(NarrowToUtf8(copy.Name));
}

} // namespace

int Backups(Session& session)
{
    RequireDirectory(session.Directory());
    session.TellUnconfirmed();
    Json json = Json::array();
    std::vector<std::vector<std::string>> rows = {{"made", "rule sets", "rules", "directory"}};
    for (const Copies::Dated& copy : Copies::FindBackups(session.Store()))
    {
        Policy policy;
        size_t rules = 0;
        const RuleDirectory backup = StoreAt(PathOf(session, copy), session.Options().Master);
        const StoreReport report =
            CheckStore(backup, session.Terminal(), false, &policy,
                       [&rules](const Policy&, const RuleSetRecord& ruleSet) { rules += ruleSet.Rules.size(); });
        const auto changes = Copies::Compare(backup, backup);
        const bool isGood = !report.IsDamaged() && changes && changes->empty();
        const std::string path = ToUtf8(PathOf(session, copy));
        json.push_back({{"made", Date(copy.Digits)},
                        {"ruleSets", policy.RuleSets.size()},
                        {"rules", rules},
                        {"damaged", !isGood},
                        {"directory", path}});
        rows.push_back({Date(copy.Digits), std::to_string(policy.RuleSets.size()), std::to_string(rules),
                        Printable(path) + (isGood ? "" : "  (damaged)")});
    }
    if (session.Options().Json)
    {
        session.Terminal().Out(json.dump(2) + "\n");
        return ExitDone;
    }
    if (json.empty())
        session.Terminal().Out("no copies\n");
    for (const std::string& line : json.empty() ? std::vector<std::string>() : Aligned(rows, {1, 2}))
        session.Terminal().Out(line + "\n");
    return ExitDone;
}

int Undo(Session& session, bool isOnlyUnconfirmed)
{
    RequireDirectory(session.Directory());
    const std::optional<Unconfirmed> unconfirmed = FindUnconfirmed(session.Store());
    if (isOnlyUnconfirmed && (!unconfirmed || unconfirmed->IsTakenBack))
    {
        session.Terminal().Out(session.Options().Json ? "{\"restored\": []}\n" : "nothing to take back\n");
        return ExitDone;
    }
    if (TakeBackUnconfirmed(session))
        return ExitDone;
    // The library copies what it finds damaged; only the copies of this tool were made before a change.
    for (const Copies::Dated& copy : Copies::FindBackups(session.Store()))
    {
        if (copy.Number > 0)
            return RestoreDirectory(session, PathOf(session, copy));
    }
    throw Failure("there is no copy made by kxrule in " + ToUtf8(session.Directory()) + FileFormat::kBackupDirectory);
}

} // namespace Tool
