// The copies below RuleBackup: backups, undo.
#include <algorithm>
#include <tuple>

#include <nlohmann/json.hpp>

#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

namespace fs = std::filesystem;

constexpr size_t kDateDigits = 12; // year to second, two digits each

struct DatedCopy
{
    fs::path Path;
    std::string Digits;
    unsigned Number = 0; // 0: made by the library, for what it found damaged

    [[nodiscard]] std::string Date() const
    {
        const auto part = [this](size_t at) { return Digits.substr(2 * at, 2); };
        return "20" + part(0) + "-" + part(1) + "-" + part(2) + " " + part(3) + ":" + part(4) + ":" + part(5);
    }
};

bool IsDigits(const std::string& text)
{
    return !text.empty() && text.size() <= kDateDigits && text.find_first_not_of("0123456789") == std::string::npos;
}

/// The newest first.
std::vector<DatedCopy> FindCopies(const fs::path& ruleDirectory)
{
    std::vector<DatedCopy> copies;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(ruleDirectory / FileFormat::kBackupDirectory, error))
    {
        const std::string name = ToUtf8(entry.path().filename().wstring());
        const size_t dash = name.find('-');
        const std::string number = dash == std::string::npos ? "0" : name.substr(dash + 1);
        if (entry.is_directory(error) && name.substr(0, dash).size() == kDateDigits && IsDigits(name.substr(0, dash)) &&
            IsDigits(number) && number.size() < 6)
            copies.push_back({entry.path(), name.substr(0, dash), static_cast<unsigned>(std::stoul(number))});
    }
    std::sort(copies.begin(), copies.end(),
              [](const DatedCopy& a, const DatedCopy& b)
              { return std::tie(a.Digits, a.Number) > std::tie(b.Digits, b.Number); });
    return copies;
}

} // namespace

int Backups(Session& session)
{
    if (!session.DirectoryExists())
        throw Failure(ToUtf8(session.Directory()) + " is not a directory");
    Json json = Json::array();
    std::vector<std::vector<std::string>> rows = {{"made", "rule sets", "rules", "directory"}};
    for (const DatedCopy& copy : FindCopies(session.Directory()))
    {
        Policy policy;
        const StoreReport report =
            CheckStore(StoreAt(copy.Path.wstring(), session.Options().Master), session.Terminal(), false, &policy);
        size_t rules = 0;
        for (const RuleSetRecord& ruleSet : policy.RuleSets)
            rules += ruleSet.Rules.size();
        const std::string path = ToUtf8(copy.Path.wstring());
        json.push_back({{"made", copy.Date()},
                        {"ruleSets", policy.RuleSets.size()},
                        {"rules", rules},
                        {"damaged", report.IsDamaged()},
                        {"directory", path}});
        rows.push_back({copy.Date(), std::to_string(policy.RuleSets.size()), std::to_string(rules),
                        Printable(path) + (report.IsDamaged() ? "  (damaged)" : "")});
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

int Undo(Session& session)
{
    // The library's copies are of what it found damaged; only those of this tool were made before a change.
    for (const DatedCopy& copy : FindCopies(session.Directory()))
    {
        if (copy.Number > 0)
            return RestoreDirectory(session, copy.Path);
    }
    throw Failure("there is no copy that kxrule made in " +
                  ToUtf8((fs::path(session.Directory()) / FileFormat::kBackupDirectory).wstring()));
}

} // namespace Tool
