// Policies in and out: import and export.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <memory>

#include <nlohmann/json.hpp>

#include "policy/Apply.h"
#include "policy/RuleJson.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

struct CloseFile
{
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

std::string ReadStream(std::FILE* file)
{
    std::string text;
    char piece[1 << 16];
    for (size_t got = 0; (got = std::fread(piece, 1, sizeof piece, file)) > 0;)
        text.append(piece, got);
    return text;
}

/// The store's limits, checked before anything is changed.
void CheckLimits(const Policy& store, const PolicyDiff& diff)
{
    if (RuleSetsAfter(store, diff) > KXRULE_MAX_RULESETS)
        throw Failure("the store would hold " + Count(RuleSetsAfter(store, diff), "rule set") + "; the limit is " +
                      std::to_string(KXRULE_MAX_RULESETS));
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (change.RulesAfter.size() > KXRULE_MAX_RULES)
            throw Failure("rule set " + std::to_string(change.Index) + " would hold " +
                          Count(change.RulesAfter.size(), "rule") + "; the limit is " +
                          std::to_string(KXRULE_MAX_RULES));
    }
}

const char* ChangeWord(bool before, bool after) noexcept
{
    return !before ? "added" : after ? "changed" : "removed";
}

Json DiffAsJson(const PolicyDiff& diff)
{
    Json json = {{"changed", !diff.IsEmpty()}, {"ruleSets", Json::array()}};
    for (const RuleSetChange& change : diff.RuleSets)
    {
        Json& set = json["ruleSets"].emplace_back();
        set["index"] = change.Index;
        set["change"] = ChangeWord(change.NameBefore.has_value(), change.NameAfter.has_value());
        set["name"] = ToUtf8(change.NameAfter ? *change.NameAfter : *change.NameBefore);
        set["rules"] = Json::array();
        for (const RuleChange& rule : change.Rules)
        {
            Json& entry = set["rules"].emplace_back();
            entry["index"] = rule.Index;
            entry["change"] = ChangeWord(rule.Before.has_value(), rule.After.has_value());
            if (rule.Before)
                entry["before"] = RuleAsJson(*rule.Before);
            if (rule.After)
                entry["after"] = RuleAsJson(*rule.After);
        }
    }
    if (diff.Macros)
        json["macros"] = MacrosAsJson(*diff.Macros);
    if (diff.Active)
        json["active"] = *diff.Active;
    return json;
}

/// The store of a session. If the session ends without a write, the files stay as they were.
class SessionStore final : public PolicyStore
{
public:
    explicit SessionStore(Session& session) noexcept : m_Session(session) {}

    int32_t AddRuleSet(uint16_t index, PFW_RULESET* record) override { return Changing().AddRuleSet(index, record); }
    int32_t DeleteRuleSet(uint16_t index) override { return Changing().DeleteRuleSet(index); }
    int32_t AddRule(uint16_t ruleSetIndex, uint16_t ruleIndex, const PFW_RULE* rule) override
    {
        return Changing().AddRule(ruleSetIndex, ruleIndex, rule);
    }
    int32_t DeleteRule(uint16_t ruleSetIndex, uint16_t ruleIndex) override
    {
        return Changing().DeleteRule(ruleSetIndex, ruleIndex);
    }
    int32_t AddMacro(const PFW_MACRO* record) override { return Changing().AddMacro(record); }
    int32_t DeleteMacro() override { return Changing().DeleteMacro(); }
    int32_t SetActiveRuleSet(const uint16_t* indexes, int32_t count) override
    {
        return Changing().SetActiveRuleSet(indexes, count);
    }
    void Write() override { m_Session.Write(); }
    void KeepCopy() override { m_Session.KeepCopy(); }

private:
    RuleLibrary& Changing()
    {
        m_Session.BeginChange();
        return m_Session.Library();
    }

    Session& m_Session;
};

/// False when something is wrong with the file, which has then been printed.
bool ReadPolicyFile(Session& session, const std::string& file, Policy& policy)
{
    std::vector<Diagnostic> diagnostics;
    if (ReadPolicy(ReadTextFile(file), policy, diagnostics))
        return true;
    TellDiagnostics(session, file, diagnostics);
    return false;
}

} // namespace

std::string ReadTextFile(const std::string& path)
{
    if (path == "-")
    {
        ::_setmode(::_fileno(stdin), _O_BINARY);
        return ReadStream(stdin);
    }
    const std::unique_ptr<std::FILE, CloseFile> file(::_wfopen(AbsolutePath(path).c_str(), L"rb"));
    if (!file)
        throw Failure(path + " cannot be opened: " + SystemText(::GetLastError()));
    std::string text = ReadStream(file.get());
    if (std::ferror(file.get()) != 0)
        throw Failure(path + " cannot be read");
    return text;
}

int TellDiagnostics(Session& session, const std::string& path, const std::vector<Diagnostic>& diagnostics)
{
    const std::string name = path == "-" ? "standard input" : path;
    if (session.Options().Json)
    {
        Json json = {{"error", name + " has errors"}, {"exitCode", ExitFailed}, {"diagnostics", Json::array()}};
        for (const Diagnostic& found : diagnostics)
            json["diagnostics"].push_back({{"file", name},
                                           {"line", found.Line},
                                           {"column", found.Column},
                                           {"where", found.Path},
                                           {"text", found.Text}});
        // Whatever is not UTF-8 in a text comes from the file.
        session.Terminal().Error(json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
        return ExitFailed;
    }
    std::string lines;
    for (const Diagnostic& found : diagnostics)
        lines += name + ":" + std::to_string(found.Line) + ":" + std::to_string(found.Column) + ": " +
                 (found.Path.empty() ? "" : found.Path + ": ") + Printable(found.Text) + "\n";
    session.Terminal().Error(lines);
    return ExitFailed;
}

void WriteTextFile(Session& session, const std::string& path, std::string_view text)
{
    if (path.empty() || path == "-")
        return session.Terminal().Out(text);
    const std::wstring file = AbsolutePath(path);
    const std::wstring unfinished = file + L".tmp";
    {
        const std::unique_ptr<std::FILE, CloseFile> stream(::_wfopen(unfinished.c_str(), L"wb"));
        if (!stream)
            throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
        if (std::fwrite(text.data(), 1, text.size(), stream.get()) != text.size() || std::fflush(stream.get()) != 0)
            throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
    }
    if (::MoveFileExW(unfinished.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING) == FALSE)
        throw Failure(path + " cannot be replaced: " + SystemText(::GetLastError()));
}

int ApplyPolicy(Session& session, const Policy& store, const Policy& wanted, MergeMode mode)
{
    const PolicyDiff diff = Compare(store, wanted, mode);
    CheckLimits(store, diff);
    if (!diff.IsEmpty())
    {
        SessionStore target(session);
        Progress progress(session.Terminal(), "changing the store");
        Apply(target, store, diff, [&progress](size_t done, size_t all) { progress.Show(done, all); });
    }
    session.Terminal().Out(session.Options().Json ? DiffAsJson(diff).dump(2) + "\n" : DiffSummary(diff) + "\n");
    return ExitDone;
}

int Import(Session& session, const ImportOptions& options)
{
    Policy policy;
    if (!ReadPolicyFile(session, options.File, policy))
        return ExitFailed;
    const MergeMode mode = options.Replace ? MergeMode::Replace : MergeMode::Merge;
    if (!options.Check)
    {
        session.OpenToChange();
        return ApplyPolicy(session, session.Read(), policy, mode);
    }
    Policy store; // a directory that does not exist yet holds nothing
    if (session.DirectoryExists())
    {
        session.OpenToLook();
        store = session.Read();
    }
    const PolicyDiff diff = Compare(store, policy, mode);
    CheckLimits(store, diff);
    session.Terminal().Out(session.Options().Json ? DiffAsJson(diff).dump(2) + "\n"
                           : diff.IsEmpty()       ? "nothing would change\n"
                                                  : DiffText(diff));
    return diff.IsEmpty() ? ExitDone : ExitDifferent;
}

int ImportMacros(Session& session, const ImportOptions& options)
{
    Policy policy;
    if (!ReadPolicyFile(session, options.File, policy))
        return ExitFailed;
    if (!policy.Macros)
        throw Failure(options.File + " contains no macros");
    session.OpenToChange();
    const Policy store = session.Read();
    Policy wanted;
    wanted.Macros = options.Replace ? policy.Macros : Compare(store, policy, MergeMode::Merge).Macros;
    return ApplyPolicy(session, store, wanted, MergeMode::Merge);
}

int Export(Session& session, const std::vector<uint16_t>& ruleSetIndexes, const std::string& file)
{
    session.OpenToLook();
    Policy policy = session.Read();
    if (!ruleSetIndexes.empty())
    {
        Policy some;
        for (const uint16_t index : ruleSetIndexes)
            some.RuleSets.push_back(FindRuleSet(policy, index));
        policy = std::move(some);
    }
    WriteTextFile(session, file, PolicyToJson(policy));
    return ExitDone;
}

} // namespace Tool
