// The command line. The only file that sees the option parser.
#include "tools/kxrule/commands/CommandLine.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <sstream>
#include <utility>

#include <CLI/CLI.hpp>

#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/Completion.h"
#include "tools/kxrule/commands/Confirmation.h"
#include "tools/kxrule/commands/Manual.h"

#if !defined(KX_VERSION) // the build gives it
#define KX_VERSION "unknown"
#endif

namespace Tool
{
namespace
{

using Command = std::function<int(Session&)>;

/// A whole number, whose range the help does not repeat after every name.
CLI::Validator InRange(int least, int most)
{
    return CLI::Range(least, most).description("");
}

/// How many letters have to be changed, added or removed to turn one word into the other.
size_t Distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i)
    {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j)
            diagonal =
                std::exchange(row[j + 1], std::min({row[j] + 1, row[j + 1] + 1, diagonal + (a[i] == b[j] ? 0 : 1)}));
    }
    return row.back();
}

/// Everything that can be written before or after a command.
class CommandLine
{
public:
    CommandLine()
    {
        m_App.name("kxrule");
        m_App.require_subcommand(1);
        m_App.allow_windows_style_options(false); // a path may begin with a slash
        m_App.fallthrough();
        m_App.add_option("--dir", m_Options.Directory, "The rule directory; by default the library's own")
            ->type_name("DIR");
        m_App.add_option("--master", m_Options.Master, "The name of the master file in it")->type_name("NAME");
        m_App.add_flag("--json", m_Options.Json, "Print JSON for other programs; errors, too, on standard error");
        m_App.add_flag("--no-color", m_Options.NoColour, "No colours, as with the environment variable NO_COLOR");
        m_App.add_flag("--force", m_Options.Force, "Change the store even if another process uses it or it is damaged");
        m_App
            .add_option("--wait", m_Options.Wait,
                        "How long to wait while another process changes the store; 10 if not given")
            ->check(InRange(0, 86400))
            ->type_name("SECONDS");
        m_App
            .add_option("--max-size", m_Options.MaxSize,
                        "The largest file that is read, in megabytes; 256 if not given")
            ->check(InRange(1, 1023))
            ->type_name("MB");
        m_App
            .add_option("--keep", m_Options.Keep,
                        "How many of its own copies below RuleBackup to retain when it makes another; all if not given")
            ->check(InRange(1, 10000))
            ->type_name("N");
        m_App.set_version_flag("--version", "kxrule " KX_VERSION);
        m_App.footer("Example:\n  kxrule --dir C:\\ProgramData\\Firewall\\Rules list\n\n"
                     "Exit codes: 0 done, 1 failed, 2 usage error, 3 import --check, diff or verify --against found "
                     "differences, "
                     "4 interrupted before anything was changed.");
        AddLook();
        AddPolicies();
        AddChanges();
        AddCare();
        AddManual();
    }

    int Run(std::vector<std::string> arguments, Console& console)
    {
        if (!arguments.empty() && arguments.front() == "help") // as with other tools
        {
            arguments.erase(arguments.begin());
            arguments.push_back("--help");
        }
        if (!arguments.empty() && arguments.front() == "complete") // the shells ask; nobody types that
        {
            arguments.erase(arguments.begin());
            console.Out(CompletedWords(m_App, arguments, console));
            return ExitDone;
        }
        std::reverse(arguments.begin(), arguments.end()); // the parser takes them from the end
        try
        {
            m_App.parse(std::move(arguments));
        }
        catch (const CLI::ParseError& error)
        {
            std::ostringstream out;
            std::ostringstream problems;
            if (m_App.exit(error, out, problems) != 0)
            {
                const bool unknown = m_App.get_subcommands().empty() && !m_App.remaining().empty();
                throw Failure((unknown ? "\"" + m_App.remaining().front() + "\" is not " +
                                             (m_App.remaining().front()[0] == '-' ? "an option" : "a command") +
                                             Suggestion(m_App.remaining().front())
                                       : error.what()) +
                                  "; see --help",
                              ExitUsage);
            }
            console.Out(out.str());
            return ExitDone;
        }
        if (m_Options.NoColour)
            console.DisableColour();
        Session session(m_Options, console);
        return m_Command(session);
    }

private:
    CLI::App* Add(CLI::App& parent, const char* name, const char* summary, const char* example, const Command& command)
    {
        CLI::App* const added = parent.add_subcommand(name, summary);
        added->footer(std::string("Example:\n  ") + example);
        added->fallthrough();
        if (command)
            added->callback([this, command] { m_Command = command; });
        return added;
    }

    static CLI::Option* AddRuleSet(CLI::App* command, std::optional<uint16_t>& index, const char* what)
    {
        return command->add_option("SET", index, what)->check(InRange(1, KXRULE_MAX_RULESET_INDEX))->type_name("");
    }
    static CLI::Option* AddRule(CLI::App* command, std::optional<uint16_t>& index, const char* what)
    {
        return command->add_option("RULE", index, what)->check(InRange(0, 65535))->type_name("");
    }

    void AddLook()
    {
        CLI::App* const list = Add(m_App, "list", "List the rule sets: index, rules, whether active, name",
                                   "kxrule list --json", [this](Session& session) { return List(session, m_Filter); });
        list->add_flag("--active", m_Filter.Active, "Only those that are active");
        CLI::App* const show =
            Add(m_App, "show", "Show rules and macros as lines of text", "kxrule show 3 120",
                [this](Session& session) { return Show(session, m_RuleSetIndex, m_RuleIndex, m_Filter); });
        AddRuleSet(show, m_RuleSetIndex, "Only this rule set");
        AddRule(show, m_RuleIndex, "Only this rule, with all its fields");
        show->add_flag("--active", m_Filter.Active, "Only rule sets that are active");
        show->add_option("--action", m_Filter.Action, "Only rules with this action, such as drop")->type_name("ACTION");
        show->add_option("--app", m_Filter.Application, "Only rules whose program contains this")->type_name("TEXT");
        show->add_flag("--off", m_Filter.Off, "Only rules that are off");
        CLI::App* const find =
            Add(m_App, "find", "Find the rules and macros that mention a text, an address or a port",
                "kxrule find 10.20.0.0/16", [this](Session& session) { return FindCommand(session, m_Text, m_All); });
        find->add_option("QUERY", m_Text, "A text, an address, a prefix, a range of addresses, a port or ports")
            ->required()
            ->type_name("");
        find->add_flag("--any", m_All, "Items that mean any address or port, too");
        CLI::App* const explain =
            Add(m_App, "explain", "Show which active rule decides about traffic, and why the others do not",
                "kxrule explain tcp 10.1.2.3:50000 10.20.0.2:445 --app C:\\a.exe",
                [this](Session& session) { return Explain(session, m_Explain); });
        explain->add_option("PROTOCOL", m_Explain.Protocol, "any, icmp, tcp, udp, tcpudp or a number")
            ->required()
            ->type_name("");
        explain
            ->add_option("FROM", m_Explain.From,
                         "Where it comes from: ADDRESS, ADDRESS:PORT, [IPV6]:PORT, :PORT or any")
            ->type_name("");
        explain->add_option("TO", m_Explain.To, "Where it goes; what is left out is any")->type_name("");
        explain->add_option("--app", m_Explain.Application, "The program's path")->type_name("PATH");
        Add(m_App, "active", "Show which rule sets are active, in their order", "kxrule active",
            [](Session& session) { return Active(session); });
        CLI::App* const report =
            Add(m_App, "report", "Write the store as one page for a browser", "kxrule report -o rules.html",
                [this](Session& session) { return Report(session, m_File); });
        AddOutput(report)->required();
    }

    void AddPolicies()
    {
        CLI::App* const import = Add(m_App, "import", "Apply the policy in a file, JSON or text, to the store",
                                     "kxrule import workstation.json --replace --check",
                                     [this](Session& session) { return Import(session, m_Import); });
        AddImport(import);
        import->add_flag("--check", m_Import.Check,
                         "Show what would change and change nothing; exit code 3 when something would");
        import->add_flag("--allow-empty", m_Import.AllowEmpty, "Let --replace remove every rule set");
        import->add_flag("--strict", m_Import.Strict, "Refuse a policy that lint would report");
        import
            ->add_option("--confirm", m_Import.Confirm,
                         "Take the import back after this time unless \"kxrule confirm\" comes before")
            ->check(InRange(1, kMostConfirmSeconds))
            ->type_name("SECONDS");
        Add(m_App, "confirm", "Keep an import that would be taken back otherwise", "kxrule confirm",
            [](Session& session) { return Confirm(session); });
        Add(m_App, "await-confirmation", "What import --confirm starts", "",
            [](Session& session) { return AwaitConfirmation(session); })
            ->group("");
        CLI::App* const lint =
            Add(m_App, "lint",
                "Report what in a policy file, or in the store, is probably not intended; exit code 1 if anything is",
                "kxrule lint workstation.json", [this](Session& session) { return LintCommand(session, m_File); });
        lint->add_option("FILE", m_File, "The file; - for standard input; the store if not given")->type_name("");
        CLI::App* const exported = Add(m_App, "export", "Write the store, or some rule sets, as JSON or as text",
                                       "kxrule export --text -o policy.rules",
                                       [this](Session& session) { return Export(session, m_Indexes, m_File, m_All); });
        exported->add_flag("--text", m_All, "As lines of text");
        AddRuleSets(exported, "Only these rule sets, without macros and active list");
        AddOutput(exported);
        CLI::App* const edit =
            Add(m_App, "edit", "Open the store, or one rule set, as text in an editor, and apply what was changed",
                "kxrule edit 3", [this](Session& session) { return Edit(session, m_RuleSetIndex, m_Edit); });
        AddRuleSet(edit, m_RuleSetIndex, "Only this rule set");
        edit->add_option("--editor", m_Edit.Editor,
                         "The editor; by default VISUAL or EDITOR in the environment, else notepad")
            ->type_name("COMMAND");
        edit->add_flag("--yes", m_Edit.Yes, "Do not ask");
        CLI::App* const diff = Add(
            m_App, "diff", "Show what differs between two stores, backups or policies; exit code 3 when something does",
            "kxrule diff workstation.json", [this](Session& session) { return Diff(session, m_Texts); });
        diff->add_option("PATH", m_Texts,
                         "Directories with rule files, copies below RuleBackup by name, or policies; one "
                         "alone is compared with the store")
            ->required()
            ->expected(1, 2)
            ->type_name("");
        CLI::App* const macros = Add(m_App, "macros", "Show the macros, or change them", "kxrule macros",
                                     [this](Session& session) { return m_Inner ? m_Inner(session) : Macros(session); });
        macros->require_subcommand(0, 1);
        CLI::App* const importMacros = AddInner(macros, "import", "Apply only the macros of the policy in a JSON file",
                                                "kxrule macros import workstation.json",
                                                [this](Session& session) { return ImportMacros(session, m_Import); });
        AddImport(importMacros);
        AddInner(macros, "clear", "Remove every macro", "kxrule macros clear",
                 [](Session& session) { return ClearMacros(session); });
    }

    void AddChanges()
    {
        CLI::App* const addSet =
            Add(m_App, "add-set", "Add an empty rule set", "kxrule add-set \"Home office\" --index 4",
                [this](Session& session) { return Tool::AddRuleSet(session, m_Text, m_RuleSetIndex); });
        addSet->add_option("NAME", m_Text, "Its name, at most 64 characters")->required()->type_name("");
        addSet->add_option("--index", m_RuleSetIndex, "Its index; by default a free one")
            ->check(InRange(1, KXRULE_MAX_RULESET_INDEX))
            ->type_name("SET");
        CLI::App* const deleteSet =
            Add(m_App, "delete-set", "Delete rule sets; the store is copied to RuleBackup first", "kxrule delete-set 4",
                [this](Session& session)
                {
                    RequireList("--all");
                    return DeleteRuleSets(session, m_Indexes, m_All);
                });
        AddAll(deleteSet, AddRuleSets(deleteSet, "The rule sets"), "All of them");
        CLI::App* const addRule =
            Add(m_App, "add-rule", "Add a rule, written in JSON or as its line of text",
                "kxrule add-rule 3 \"ACCESS,TCP,,10.0.0.0/8,,80|443,DROP\"",
                [this](Session& session)
                { return Tool::AddRule(session, *m_RuleSetIndex, m_Text, m_Import.Replace, m_Target.Place); });
        AddRuleSet(addRule, m_RuleSetIndex, "The rule set")->required();
        addRule
            ->add_option("RULE", m_Text,
                         "The rule, or a file with it; - for standard input. A line without an index gets the next "
                         "free one")
            ->required()
            ->type_name("");
        addRule->add_flag("--replace", m_Import.Replace, "Replace the rule with the same index");
        AddPlace(addRule);
        AddSmallChanges();
        CLI::App* const deleteRule =
            Add(m_App, "delete-rule", "Delete rules of a rule set", "kxrule delete-rule 3 120 121",
                [this](Session& session)
                {
                    RequireList("--all");
                    return DeleteRules(session, *m_RuleSetIndex, m_Indexes, m_All);
                });
        AddRuleSet(deleteRule, m_RuleSetIndex, "The rule set")->required();
        AddAll(deleteRule,
               deleteRule->add_option("RULE", m_Indexes, "The rules")->check(InRange(0, 65535))->type_name(""),
               "All of them");
        CLI::App* const activate =
            Add(m_App, "activate", "Make exactly these rule sets active, or change the list", "kxrule activate 1 2 3",
                [this](Session& session)
                {
                    RequireList("--none");
                    const bool isEdit = m_Active.Add || m_Active.Remove || m_Active.Before;
                    return isEdit ? EditActive(session, m_Indexes, m_Active) : Activate(session, m_Indexes);
                });
        CLI::Option* const sets = AddRuleSets(activate, "The rule sets in their order");
        CLI::Option* const add = activate->add_flag("--add", m_Active.Add, "Add them to those that are active");
        CLI::Option* const remove =
            activate->add_flag("--remove", m_Active.Remove, "Remove them from those that are active")->excludes(add);
        activate->add_option("--before", m_Active.Before, "Add them before this one")
            ->excludes(remove)
            ->type_name("SET");
        AddAll(activate, sets, "No rule set at all", "--none");
        CLI::App* const refresh =
            Add(m_App, "refresh-hashes", "Compute the hashes of the applications that rules are bound to",
                "kxrule refresh-hashes --app \"C:\\Program Files\\Mail\\mail.exe\"",
                [this](Session& session) { return RefreshHashes(session, m_Text); });
        refresh->add_option("--app", m_Text, "Only for this application")->type_name("PATH");
    }

    void AddSmallChanges()
    {
        for (const bool on : {true, false})
        {
            CLI::App* const command =
                Add(m_App, on ? "enable" : "disable", on ? "Switch rules on" : "Switch rules off",
                    on ? "kxrule enable 3 120 121" : "kxrule disable 3 120 121",
                    [this, on](Session& session) { return Switch(session, *m_RuleSetIndex, m_Indexes, on); });
            AddRuleSet(command, m_RuleSetIndex, "The rule set")->required();
            command->add_option("RULE", m_Indexes, "The rules")->required()->check(InRange(0, 65535))->type_name("");
        }
        CLI::App* const set =
            Add(m_App, "set", "Change fields of a rule", "kxrule set 3 120 action=drop ports=any,8080",
                [this](Session& session) { return SetFields(session, *m_RuleSetIndex, *m_RuleIndex, m_Texts); });
        AddRuleSet(set, m_RuleSetIndex, "The rule set")->required();
        AddRule(set, m_RuleIndex, "The rule")->required();
        set->add_option("FIELD=VALUE", m_Texts, "Members of the JSON form; null removes one")
            ->required()
            ->type_name("");
        CLI::App* const rename = Add(m_App, "rename-set", "Rename a rule set", "kxrule rename-set 4 \"Home office\"",
                                     [this](Session& session) { return RenameSet(session, *m_RuleSetIndex, m_Text); });
        AddRuleSet(rename, m_RuleSetIndex, "The rule set")->required();
        rename->add_option("NAME", m_Text, "Its name, at most 64 characters")->required()->type_name("");
        for (const bool move : {false, true})
        {
            CLI::App* const command = Add(m_App, move ? "move" : "copy",
                                          move ? "Move a rule to another place, in its rule set or in another"
                                               : "Copy a rule to another place",
                                          move ? "kxrule move 3 120 --before 100" : "kxrule copy 3 120 4",
                                          [this, move](Session& session)
                                          {
                                              m_Target.Move = move;
                                              return CopyRule(session, *m_RuleSetIndex, *m_RuleIndex, m_Target);
                                          });
            AddRuleSet(command, m_RuleSetIndex, "The rule set")->required();
            AddRule(command, m_RuleIndex, "The rule")->required();
            command->add_option("TO", m_Target.RuleSet, "The rule set it goes to; by default its own")
                ->check(InRange(1, KXRULE_MAX_RULESET_INDEX))
                ->type_name("");
            AddPlace(command)
                ->add_option("--index", m_Target.Place.Index, "Its index there; by default the next free one")
                ->type_name("RULE");
        }
        CLI::App* const renumber =
            Add(m_App, "renumber", "Give the rules of a rule set the indexes 10, 20, 30 and so on, in their order",
                "kxrule renumber 3", [this](Session& session) { return Renumber(session, *m_RuleSetIndex, m_Step); });
        AddRuleSet(renumber, m_RuleSetIndex, "The rule set")->required();
        renumber->add_option("--step", m_Step, "The step; 10 if not given")->check(InRange(1, 65535))->type_name("N");
    }

    CLI::App* AddPlace(CLI::App* command)
    {
        CLI::Option* const before =
            command
                ->add_option("--before", m_Target.Place.Before, "Before this rule; others move up if there is no room")
                ->type_name("RULE");
        command->add_option("--after", m_Target.Place.After, "After this rule")->excludes(before)->type_name("RULE");
        return command;
    }

    void AddCare()
    {
        CLI::App* const verify =
            Add(m_App, "verify", "Check every file in the rule directory and report what is wrong; changes nothing",
                "kxrule --dir D:\\Rules verify", [this](Session& session) { return Verify(session, m_Text); });
        verify->add_option("--against", m_Text, "Report instead which files differ from this backup")
            ->type_name("BACKUP");
        CLI::App* const backup =
            Add(m_App, "backup", "Copy the rule files to an empty directory", "kxrule backup E:\\rules-monday",
                [this](Session& session) { return Backup(session, m_Text); });
        backup->add_option("DIRECTORY", m_Text, "The directory")->required()->type_name("");
        CLI::App* const restore =
            Add(m_App, "restore", "Restore a backup or one file of it; what is replaced is copied to RuleBackup first",
                "kxrule restore RuleBackup\\KxRl0001.dat.brk",
                [this](Session& session) { return Restore(session, m_Text); });
        restore->add_option("SOURCE", m_Text, "A directory with rule files, a rule set file or a macro file")
            ->required()
            ->type_name("");
        Add(m_App, "backups",
            "List the copies below RuleBackup: when they were made, how much they hold, where they are",
            "kxrule backups", [](Session& session) { return Backups(session); });
        CLI::App* const undo =
            Add(m_App, "undo", "Restore the newest copy that kxrule made before a change; can itself be undone",
                "kxrule undo", [this](Session& session) { return Undo(session, m_All); });
        undo->add_flag("--unconfirmed", m_All, "Only an import that waits for its confirmation");
        CLI::App* const tidy =
            Add(m_App, "tidy", "Remove what unfinished writes have left behind, and rule set files that nothing reads",
                "kxrule tidy --yes", [this](Session& session) { return Tidy(session, m_All); });
        tidy->add_flag("--yes", m_All, "Do not ask");
        CLI::App* const dump =
            Add(m_App, "dump", "Show one file of the store field by field", "kxrule dump KxRl0001.dat",
                [this](Session& session) { return Dump(session, m_Text); });
        dump->add_option("FILE", m_Text, "A master file, a macro file or a rule set file")->required()->type_name("");
    }

    void AddManual()
    {
        CLI::App* const completion =
            Add(m_App, "completion", "Print the completion of commands, options and numbers for a shell",
                "kxrule completion powershell | Out-String | Invoke-Expression",
                [this](Session& session)
                {
                    session.Terminal().Out(CompletionScript(m_Text));
                    return ExitDone;
                });
        completion->add_option("SHELL", m_Text, "bash, fish, powershell or zsh")
            ->required()
            ->check(CLI::IsMember(CompletedShells()))
            ->type_name("");
        Add(m_App, "manual", "Print the manual in Markdown", "kxrule manual",
            [this](Session& session)
            {
                session.Terminal().Out(Manual(m_App));
                return ExitDone;
            });
    }

    /// The command closest to a mistyped one, as a question.
    std::string Suggestion(const std::string& word) const
    {
        std::string best;
        size_t least = 3; // changed letters
        for (const CLI::App* const command : ShownCommands(m_App))
        {
            const size_t distance = Distance(word, command->get_name());
            if (distance < least)
                best = command->get_name();
            least = std::min(least, distance);
        }
        return best.empty() ? "" : "; did you mean \"" + best + "\"?";
    }

    CLI::App* AddInner(CLI::App* parent, const char* name, const char* summary, const char* example,
                       const Command& command)
    {
        CLI::App* const added = Add(*parent, name, summary, example, {});
        added->callback([this, command] { m_Inner = command; });
        return added;
    }
    void AddImport(CLI::App* command)
    {
        command->add_option("FILE", m_Import.File, "The file; - for standard input")->required()->type_name("");
        CLI::Option* const replace =
            command->add_flag("--replace", m_Import.Replace, "Remove what the file does not name");
        command->add_flag("--merge", m_Import.Merge, "Leave what the file does not name unchanged; the default")
            ->excludes(replace);
    }
    CLI::Option* AddOutput(CLI::App* command)
    {
        return command->add_option("-o,--output", m_File, "The file to write")->type_name("FILE");
    }
    CLI::Option* AddRuleSets(CLI::App* command, const char* what)
    {
        return command->add_option("SET", m_Indexes, what)->check(InRange(1, KXRULE_MAX_RULESET_INDEX))->type_name("");
    }
    void AddAll(CLI::App* command, CLI::Option* list, const char* what, const char* name = "--all")
    {
        command->add_flag(name, m_All, what)->excludes(list);
    }
    /// A forgotten list must not mean everything or nothing.
    void RequireList(const char* option) const
    {
        if (m_Indexes.empty() && !m_All)
            throw Failure(std::string("say which, or use ") + option + "; see --help", ExitUsage);
    }

    CLI::App m_App{"Manages the rule store of the firewall: rule sets, rules and macros.", "kxrule"};
    GlobalOptions m_Options;
    Command m_Command;
    Command m_Inner;
    std::optional<uint16_t> m_RuleSetIndex;
    std::optional<uint16_t> m_RuleIndex;
    std::vector<uint16_t> m_Indexes;
    std::string m_Text;
    std::string m_File;
    ImportOptions m_Import;
    ExplainOptions m_Explain;
    EditOptions m_Edit;
    Filter m_Filter;
    CopyTarget m_Target;
    ActiveEdit m_Active;
    std::vector<std::string> m_Texts;
    uint16_t m_Step = 10;
    bool m_All = false;
};

} // namespace

int RunCommandLine(const std::vector<std::string>& arguments, Console& console)
{
    CommandLine commandLine;
    return commandLine.Run(arguments, console);
}

} // namespace Tool
