// edit: the policy as text in an editor. diff: two policies, wherever they are.
#include <nlohmann/json.hpp>

#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

std::wstring Variable(const wchar_t* name)
{
    wchar_t text[1024];
    const DWORD length = ::GetEnvironmentVariableW(name, text, static_cast<DWORD>(std::size(text)));
    return length < std::size(text) ? std::wstring(text, length) : std::wstring();
}

/// Runs an editor on a file and waits for its end.
void RunEditor(const std::string& editor, const std::wstring& file)
{
    std::wstring command = FromUtf8(editor);
    for (const wchar_t* const name : {L"VISUAL", L"EDITOR"})
        command = command.empty() ? Variable(name) : command;
    command = (command.empty() ? L"notepad.exe" : command) + L" \"" + file + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process) ==
        FALSE)
        throw Failure("the editor cannot be started (" + ToUtf8(command) + "): " + SystemText(::GetLastError()));
    const KxCommon::UniqueKernelObject handle(process.hProcess);
    const KxCommon::UniqueKernelObject thread(process.hThread);
    ::WaitForSingleObject(handle.get(), INFINITE);
}

std::wstring TemporaryFile()
{
    wchar_t directory[MAX_PATH + 1] = {};
    wchar_t file[MAX_PATH + 1] = {};
    if (::GetTempPathW(MAX_PATH, directory) == 0 || ::GetTempFileNameW(directory, L"kxr", 0, file) == 0)
        throw Failure("a temporary file cannot be created: " + SystemText(::GetLastError()));
    return file;
}

/// The text as a policy that is to become the store; false when something is wrong, which has been printed.
bool ReadEdited(Session& session, const std::string& file, const Policy& store, std::optional<uint16_t> ruleSetIndex,
                Policy& wanted)
{
    Policy edited;
    if (!ReadPolicyFile(session, file, edited))
        return false;
    wanted = edited;
    if (!ruleSetIndex)
        return true;
    wanted = store;
    if (edited.RuleSets.size() == 1 && edited.RuleSets[0].Index == *ruleSetIndex)
        return FindRuleSet(wanted, *ruleSetIndex) = edited.RuleSets[0], true;
    session.Terminal().Error("kxrule: the text must hold rule set " + std::to_string(*ruleSetIndex) +
                             " and no other\n");
    return false;
}

/// A directory with rule files, one below RuleBackup by its name, or a file with a policy.
Policy PolicyAt(Session& session, const std::string& path)
{
    std::wstring full = AbsolutePath(path);
    if (::GetFileAttributesW(full.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        const std::wstring copy = session.Directory() + FromUtf8(FileFormat::kBackupDirectory + ("\\" + path));
        full = ::GetFileAttributesW(copy.c_str()) == INVALID_FILE_ATTRIBUTES ? full : copy;
    }
    const DWORD attributes = ::GetFileAttributesW(full.c_str());
    Policy policy;
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    {
        const StoreReport report =
            CheckStore(StoreAt(full + L"\\", session.Options().Master), session.Terminal(), false, &policy);
        if (report.IsDamaged())
            throw Failure(path + " is damaged" + report.Problems());
        return policy;
    }
    if (!ReadPolicyFile(session, path, policy))
        throw Failure(path + " has errors");
    return policy;
}

} // namespace

int Edit(Session& session, std::optional<uint16_t> ruleSetIndex, const EditOptions& options)
{
    session.OpenToLook();
    const Policy store = session.Read();
    Policy shown = store;
    if (ruleSetIndex)
    {
        shown = {};
        shown.RuleSets = {FindRuleSet(store, *ruleSetIndex)};
    }
    Console& console = session.Terminal();
    const std::string before = PolicyToText(shown);
    const std::wstring path = TemporaryFile();
    const std::string file = ToUtf8(path);
    WriteTextFile(session, file, before);
    Policy wanted;
    for (bool isGood = false; !isGood;)
    {
        RunEditor(options.Editor, path);
        isGood = ReadEdited(session, file, store, ruleSetIndex, wanted);
        if (!isGood && !console.Confirm("Edit again?"))
            throw Failure("nothing was changed; the text is in " + file);
    }
    const PolicyDiff diff = Compare(store, wanted, MergeMode::Replace);
    console.Out(DiffText(diff));
    if (!diff.IsEmpty() && !options.Yes && !console.Confirm("Apply?"))
        throw Failure("nothing was changed; the text is in " + file);
    int code = ExitDone;
    if (diff.IsEmpty())
        console.Out("nothing changed\n");
    else
    {
        session.OpenToChange();
        Policy now = session.Read();
        if (!Compare(store, now, MergeMode::Replace).IsEmpty())
            throw Failure("the store was changed by another process meanwhile; the text is in " + file);
        code = ApplyPolicy(session, now, wanted, MergeMode::Replace);
    }
    ::DeleteFileW(path.c_str());
    return code;
}

int Diff(Session& session, const std::vector<std::string>& paths)
{
    Policy from = PolicyAt(session, paths[0]);
    Policy to;
    if (paths.size() > 1)
        to = PolicyAt(session, paths[1]);
    else
    {
        session.OpenToLook();
        to = session.Read();
    }
    // Whatever one of them does not mention is not a difference.
    if (!from.Macros)
        to.Macros.reset();
    if (!from.Active)
        to.Active.reset();
    to.HasRuleSets = to.HasRuleSets && from.HasRuleSets;
    const PolicyDiff diff = Compare(from, to, MergeMode::Replace);
    session.Terminal().Out(session.Options().Json ? DiffAsJson(diff, true).dump(2) + "\n"
                           : diff.IsEmpty()       ? "no difference\n"
                                                  : DiffText(diff));
    return diff.IsEmpty() ? ExitDone : ExitDifferent;
}

} // namespace Tool
