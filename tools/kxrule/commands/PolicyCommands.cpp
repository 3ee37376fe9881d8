// Policies in and out: import and export.
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include <nlohmann/json.hpp>

#include "policy/LibraryStore.h"
#include "policy/Lint.h"
#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/Confirmation.h"
#include "tools/kxrule/console/Columns.h"
#include "tools/kxrule/console/Interrupt.h"

namespace Tool
{
namespace
{

struct CloseFile
{
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

std::string ReadStream(std::FILE* file, size_t most, const std::string& name)
{
    std::string text;
    // The size of a file is known; a text that grows is briefly in memory twice.
    if (const __int64 size = ::_filelengthi64(::_fileno(file)); size > 0)
        text.reserve(std::min(static_cast<size_t>(size), most) + 1);
    char piece[1 << 16];
    for (size_t got = 0; (got = std::fread(piece, 1, sizeof piece, file)) > 0;)
    {
        text.append(piece, got);
        if (text.size() > most)
            throw Failure(name + " is larger than " + std::to_string(most >> 20) + " MB; --max-size reads larger ones");
    }
    return text;
}

/// Shells here often write UTF-16 with a byte order mark.
std::string AsUtf8(std::string text)
{
    const bool isLittle = text.starts_with("\xFF\xFE");
    if ((!isLittle && !text.starts_with("\xFE\xFF")) || text.size() % 2 != 0 ||
        text.substr(2, 2) == std::string_view("\0\0", 2))
        return text;
    std::wstring wide;
    wide.reserve(text.size() / 2);
    for (size_t i = 2; i < text.size(); i += 2)
    {
        const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
        wide += static_cast<wchar_t>(isLittle ? byte(i) | byte(i + 1) << 8 : byte(i + 1) | byte(i) << 8);
    }
    text.clear();
    text.shrink_to_fit();
    return ToUtf8(wide);
}

/// The store's limits, checked before anything is changed.
void CheckLimits(const Policy& store, const PolicyDiff& diff)
{
    const std::string excess = ExcessText(store, diff);
    if (!excess.empty())
        throw Failure(excess);
}

const char* ChangeWord(bool before, bool after) noexcept
{
    return !before ? "added" : after ? "changed" : "removed";
}

} // namespace

Json DiffAsJson(const PolicyDiff& diff, bool isCheck)
{
    Json json = {{"changed", !diff.IsEmpty()}, {"check", isCheck}, {"ruleSets", Json::array()}};
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
            entry["change"] = ChangeWord(rule.Before != nullptr, rule.After != nullptr);
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

namespace
{

/// The store of a session. If the session ends without a write, the files stay as they were.
class SessionStore final : public LibraryStore
{
public:
    explicit SessionStore(Session& session) : LibraryStore(session.Library()), m_Session(session) {}
    void Write() override
    {
        m_Writing.Show(0, 0);
        m_Session.Write();
    }
    void CopyFiles() override { m_Session.CopyFiles(); }

private:
    void BeginChange() override { m_Session.BeginChange(); }

    Session& m_Session;
    Progress m_Writing{m_Session.Terminal(), "writing the store"};
};

/// Refuses an invalid active list, and with --strict whatever lint would report; otherwise warns of that.
void RefuseOrWarn(Session& session, const Policy& store, const Policy& policy, MergeMode mode,
                  const ImportOptions& options)
{
    const Policy beside = Remaining(store, policy, mode);
    std::vector<uint16_t> indexes;
    for (const Policy* const each : {&policy, &beside})
    {
        for (const RuleSetRecord& ruleSet : each->RuleSets)
            indexes.push_back(ruleSet.Index);
    }
    const std::string mistake = policy.Active ? ActiveListMistake(*policy.Active, indexes) : "";
    if (!mistake.empty())
        throw Failure(options.File + ": " + mistake);
    const std::vector<LintFinding> findings = Lint(policy, &beside);
    if (findings.empty())
        return;
    std::string lines;
    for (const LintFinding& finding : findings)
        lines += "\n  " + finding.Where() + " " + Printable(finding.Text);
    if (options.Strict)
        throw Failure(options.File + " is refused by --strict" + lines);
    const std::string text = options.File + " is probably not what was intended";
    session.Terminal().Error(session.Options().Json
                                 ? JsonLine(Json({{"warning", text}, {"findings", FindingsAsJson(findings)}})) + "\n"
                                 : "kxrule: " + text + lines + "\n");
}

} // namespace

bool ReadPolicyFile(Session& session, const std::string& file, Policy& policy)
{
    std::vector<Diagnostic> diagnostics;
    Progress progress(session.Terminal(), "reading " + file);
    progress.Show(0, 0);
    if (ReadAnyPolicy(ReadTextFile(session, file), policy, diagnostics))
        return true;
    TellDiagnostics(session, file, diagnostics);
    return false;
}

Json FindingsAsJson(const std::vector<LintFinding>& findings)
{
    Json json = Json::array();
    for (const LintFinding& finding : findings)
    {
        Json& entry = json.emplace_back(Json({{"where", finding.Where()}, {"code", finding.Code}}));
        if (finding.RuleSetIndex != 0)
            entry["ruleSet"] = finding.RuleSetIndex;
        if (finding.RuleIndex)
            entry["rule"] = *finding.RuleIndex;
        if (finding.Macro)
            entry["macro"] = NarrowToUtf8(*finding.Macro);
        entry["text"] = finding.Text;
    }
    return json;
}

std::string ReadTextFile(const Session& session, const std::string& path)
{
    const size_t most = size_t{session.Options().MaxSize} << 20;
    if (path == "-")
    {
        ::_setmode(::_fileno(stdin), _O_BINARY);
        return AsUtf8(ReadStream(stdin, most, "standard input"));
    }
    if (path.empty())
        throw Failure("the name of the file is empty");
    const std::wstring full = AbsolutePath(path);
    const DWORD attributes = ::GetFileAttributesW(full.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        throw Failure(path + " is a directory, not a file");
    const std::unique_ptr<std::FILE, CloseFile> file(::_wfopen(full.c_str(), L"rb"));
    if (!file)
        throw Failure(path + " cannot be opened: " + SystemText(::GetLastError()));
    std::string text = ReadStream(file.get(), most, path);
    if (std::ferror(file.get()) != 0)
        throw Failure(path + " cannot be read");
    return AsUtf8(std::move(text));
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

namespace
{

void WriteWhole(HANDLE file, const std::string& path, std::string_view text)
{
    constexpr size_t kPiece = size_t{1} << 24;
    for (size_t done = 0; done < text.size();)
    {
        DWORD written = 0;
        const DWORD piece = static_cast<DWORD>(std::min(kPiece, text.size() - done));
        if (::WriteFile(file, text.data() + done, piece, &written, nullptr) == FALSE)
            throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
        if (written == 0)
            throw Failure(path + " cannot be written: " + SystemText(ERROR_DISK_FULL));
        done += written;
    }
}

/// Through a temporary file with a unique name in the same directory.
void PutFile(const std::wstring& file, const std::string& path, std::string_view text)
{
    wchar_t unfinished[MAX_PATH + 1];
    const std::wstring directory = file.substr(0, file.find_last_of(L'\\') + 1);
    if (::GetTempFileNameW(directory.c_str(), L"kxr", 0, unfinished) == 0)
        throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
    try
    {
        {
            const KxCommon::UniqueFile stream(
                ::CreateFileW(unfinished, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            if (!stream)
                throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
            WriteWhole(stream.get(), path, text);
            if (::FlushFileBuffers(stream.get()) == FALSE)
                throw Failure(path + " cannot be written: " + SystemText(::GetLastError()));
        }
        if (::MoveFileExW(unfinished, file.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) == FALSE)
            throw Failure(path + " cannot be replaced: " + SystemText(::GetLastError()));
    }
    catch (const Failure&)
    {
        ::DeleteFileW(unfinished);
        throw;
    }
}

/// Whether something that is there now is removed or changed.
bool IsRemoving(const PolicyDiff& diff)
{
    return (diff.Macros && !diff.MacrosBefore.empty()) ||
           std::any_of(diff.RuleSets.begin(), diff.RuleSets.end(),
                       [](const RuleSetChange& change)
                       {
                           return change.NameBefore &&
                                  (change.NameBefore != change.NameAfter ||
                                   std::any_of(change.Rules.begin(), change.Rules.end(),
                                               [](const RuleChange& rule) { return rule.Before != nullptr; }));
                       });
}

void RefuseEmptying(const Policy& store, const PolicyDiff& diff, const ImportOptions& options)
{
    if (!options.AllowEmpty && IsEmptying(store, diff))
        throw Failure("the import would remove every rule set; --allow-empty allows this");
}

} // namespace

void TellWritten(Session& session, const std::string& file)
{
    if (session.Options().Json && !file.empty() && file != "-")
        session.Terminal().Out(JsonLine(Json({{"written", ToUtf8(AbsolutePath(file))}})) + "\n");
}

void WriteTextFile(Session& session, const std::string& path, std::string_view text)
{
    if (path.empty() || path == "-")
        return session.Terminal().Out(text);
    const std::wstring file = AbsolutePath(path);
    {
        // A device cannot be replaced by a file. (Nor can an open file.)
        const KxCommon::UniqueFile target(::CreateFileW(file.c_str(), GENERIC_WRITE,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (target && ::GetFileType(target.get()) != FILE_TYPE_DISK)
            return WriteWhole(target.get(), path, text);
    }
    HoldInterrupts();
    PutFile(file, path, text);
}

int ApplyPolicy(Session& session, Policy& store, const Policy& wanted, MergeMode mode, const ImportOptions& options)
{
    PolicyDiff diff = Compare(store, wanted, mode);
    CheckLimits(store, diff);
    const bool isToConfirm = options.Confirm > 0 && !diff.IsEmpty();
    if (IsRemoving(diff) || isToConfirm)
        session.CopyFiles();
    Unconfirmed unconfirmed;
    if (isToConfirm)
    {
        static_cast<void>(session.Library()); // what cannot even begin need not be taken back
        unconfirmed = BeginUnconfirmed(session, options.File, options.Confirm);
    }
    if (!session.Options().Json) // then nothing needs the previous rules, and the library needs the memory
        DropRules(store, diff);
    if (!diff.IsEmpty())
    {
        SessionStore target(session);
        Progress progress(session.Terminal(), "changing the store");
        Apply(target, store, diff, [&progress](size_t done, size_t all) { progress.Show(done, all); });
    }
    Json json = session.Options().Json ? DiffAsJson(diff, false) : Json();
    if (!isToConfirm)
        return TellChange(session, DiffSummary(diff), std::move(json));
    StartTheTime(session, unconfirmed);
    json["unconfirmed"] = UnconfirmedAsJson(unconfirmed);
    return TellChange(session, DiffSummary(diff), std::move(json), UnconfirmedText(session, unconfirmed) + "\n");
}

int TellChange(Session& session, const std::string& text, Json json, const std::string& after)
{
    const std::string copies = session.Copies();
    if (!copies.empty())
        json["copies"] = copies;
    const std::string note = copies.empty() ? "" : "; what was there before is in " + Printable(copies);
    session.Terminal().Out(session.Options().Json ? json.dump(2) + "\n" : text + note + "\n" + after);
    session.RemoveOldCopies();
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
        session.OpenToChange(options.Replace ? Session::OnDamage::Mend : Session::OnDamage::Refuse);
        Policy store = session.Read();
        RefuseEmptying(store, Compare(store, policy, mode), options);
        RefuseOrWarn(session, store, policy, mode, options);
        return ApplyPolicy(session, store, policy, mode, options);
    }
    Policy store; // a directory that does not exist yet is empty
    StoreReport report;
    if (session.DirectoryExists())
    {
        session.TellUnconfirmed();
        report = CheckStore(session.Store(), session.Terminal(), false, &store);
    }
    if (report.IsDamaged() && !options.Replace)
        throw Failure(
            "the store is damaged; --replace would repair it, and \"kxrule verify\" shows what the library would "
            "do with it" +
            report.Problems());
    const PolicyDiff diff = Compare(store, policy, mode);
    CheckLimits(store, diff);
    RefuseEmptying(store, diff, options);
    RefuseOrWarn(session, store, policy, mode, options);
    if (report.IsDamaged())
        session.Warn("the store is damaged; the import would copy its files and restore what is missing", report);
    Json json = DiffAsJson(diff, true);
    std::string text = diff.IsEmpty() ? "nothing would change\n" : DiffText(diff);
    if (options.Confirm > 0 && !diff.IsEmpty())
    {
        json["unconfirmed"] = {{"file", options.File}, {"seconds", options.Confirm}};
        text += "it would be taken back after " + Count(options.Confirm, "second") +
                " unless \"kxrule confirm\" came before\n";
    }
    session.Terminal().Out(session.Options().Json ? json.dump(2) + "\n" : text);
    return diff.IsEmpty() && !report.IsDamaged() ? ExitDone : ExitDifferent;
}

int ImportMacros(Session& session, const ImportOptions& options)
{
    Policy policy;
    if (!ReadPolicyFile(session, options.File, policy))
        return ExitFailed;
    if (!policy.Macros)
        throw Failure(options.File + " contains no macros");
    session.OpenToChange();
    Policy store = session.Read();
    Policy wanted;
    wanted.Macros = options.Replace ? policy.Macros : Compare(store, policy, MergeMode::Merge).Macros;
    return ApplyPolicy(session, store, wanted, MergeMode::Merge);
}

int Export(Session& session, const std::vector<uint16_t>& ruleSetIndexes, const std::string& file, bool asText)
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
    WriteTextFile(session, file, asText ? PolicyToText(policy) : PolicyToJson(policy));
    TellWritten(session, file);
    return ExitDone;
}

} // namespace Tool
