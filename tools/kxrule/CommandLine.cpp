// The command line. The only file that sees the option parser.
#include "tools/kxrule/CommandLine.h"

#include <functional>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/kxrule/Commands.h"

#if !defined(KX_VERSION) // the build gives it
#define KX_VERSION "unknown"
#endif

namespace Tool
{
namespace
{

using Command = std::function<int(Session&)>;

/// Everything that can be written in front of or behind a command.
class CommandLine
{
public:
    CommandLine()
    {
        m_App.name("kxrule");
        m_App.require_subcommand(1);
        m_App.fallthrough();
        m_App.add_option("--dir", m_Options.Directory, "The rule directory; the library's own when it is not given")
            ->type_name("DIR");
        m_App.add_option("--master", m_Options.Master, "The name of the master file in it")->type_name("NAME");
        m_App.add_flag("--json", m_Options.Json, "Print JSON for other programs");
        m_App.add_flag("--no-color", m_Options.NoColour, "No colours, as with the environment variable NO_COLOR");
        m_App.add_flag("--force", m_Options.Force, "Change the store even while another process uses it");
        m_App.set_version_flag("--version", "kxrule " KX_VERSION);
        m_App.footer("Example:\n  kxrule --dir C:\\ProgramData\\Firewall\\Rules list\n\n"
                     "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 import --check found differences.");
        AddLook();
        AddPolicies();
    }

    int Run(std::vector<std::string> arguments, Console& console)
    {
        std::reverse(arguments.begin(), arguments.end()); // how the parser takes a vector
        try
        {
            m_App.parse(std::move(arguments));
        }
        catch (const CLI::ParseError& error)
        {
            std::ostringstream out;
            std::ostringstream problems;
            const int code = m_App.exit(error, out, problems);
            console.Out(out.str());
            console.Error(problems.str());
            return code == 0 ? ExitDone : ExitUsage;
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
        return command->add_option("SET", index, what)->check(CLI::Range(1, KXRULE_MAX_RULESET_INDEX))->type_name("");
    }
    static CLI::Option* AddRule(CLI::App* command, std::optional<uint16_t>& index, const char* what)
    {
        return command->add_option("RULE", index, what)->check(CLI::Range(0, 65535))->type_name("");
    }

    void AddLook()
    {
        Add(m_App, "list", "List the rule sets: index, rules, whether active, name", "kxrule list --json",
            [](Session& session) { return List(session); });
        CLI::App* const show = Add(m_App, "show", "Show rules and macros as lines of text", "kxrule show 3 120",
                                   [this](Session& session) { return Show(session, m_RuleSetIndex, m_RuleIndex); });
        AddRuleSet(show, m_RuleSetIndex, "Only this rule set");
        AddRule(show, m_RuleIndex, "Only this rule, with all its fields");
    }

    void AddPolicies()
    {
        CLI::App* const import = Add(m_App, "import", "Bring the policy of a JSON file into the store",
                                     "kxrule import workstation.json --replace",
                                     [this](Session& session) { return Import(session, m_Import); });
        import->add_option("FILE", m_Import.File, "The file; - for standard input")->required()->type_name("");
        CLI::Option* const replace =
            import->add_flag("--replace", m_Import.Replace, "Remove what the file does not name");
        import
            ->add_flag("--merge", m_Import.Merge, "Leave what the file does not name as it is, as without this option")
            ->excludes(replace);
    }

    CLI::App m_App{"Manages the rule store of the firewall: rule sets, rules and macros.", "kxrule"};
    GlobalOptions m_Options;
    Command m_Command;
    std::optional<uint16_t> m_RuleSetIndex;
    std::optional<uint16_t> m_RuleIndex;
    ImportOptions m_Import;
};

} // namespace

int RunCommandLine(const std::vector<std::string>& arguments, Console& console)
{
    CommandLine commandLine;
    return commandLine.Run(arguments, console);
}

} // namespace Tool
