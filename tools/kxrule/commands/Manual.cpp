// The manual and the shells' completion, from the same source as --help.
#include "tools/kxrule/commands/Manual.h"

#include <algorithm>
#include <vector>

#include <CLI/CLI.hpp>

namespace Tool
{
namespace
{

/// Follows the generated parts: what the options do not say. docs/kxrule.md is the whole text.
constexpr char kGuide[] = R"(## Policies as JSON

[policy.schema.json](policy.schema.json) is the JSON Schema of a policy; editors use it to complete and check a file that
names it in `"$schema"`. [workstation.json](../examples/workstation.json) is a complete example.

Addresses and ports are written as text:

| Text | Meaning |
|---|---|
| `any` | every address, every port |
| `10.0.0.1`, `fe80::1` | one address |
| `10.0.0.0/8`, `fe80::/10` | a prefix |
| `10.0.0.0/255.0.0.0` | an address with a mask |
| `10.0.0.1-10.0.0.9` | a range |
| `!10.0.0.0/8` | everything else (not for names and lists) |
| `80`, `1000-2000`, `!80` | a port, a range of ports, every port but one |
| `80,443,1000-2000` | a list of ports; `list:80` is a list with one port |
| `@web` | the name `web`, for example of a macro |
| `none` | an item that was never set |

Values that have names (`tcp`, `accept`, …) may also be written as numbers. Whatever cannot be expressed as a name or text,
such as spare bytes, is in `"raw"` as lines `"offset: hexadecimal bytes"`; it appears only where it is needed. So importing
an exported file restores every record byte for byte. Narrow texts (macro names, lists, extension and stream texts) are
stored in the machine's active code page; a character that is not in it is refused.

`import` checks the whole file before it touches anything, and reports everything that is wrong with line and column; where
the file stops being JSON, that place alone. It changes only what differs: the second import of the same file writes
nothing. Without `--replace` nothing is removed that the file does not name. Rule sets, active list and macros stay as they
are when the file does not mention them; an empty `"ruleSets"` removes every rule set only with `--allow-empty`. Files are
read in UTF-8, or in UTF-16 with a byte order mark; reading stops at what a store cannot hold, after a thousand mistakes and
at `--max-size`.

Some policies are possible, but hardly meant: a rule that names a macro which is not there, two macros of one name, ports of
the protocol icmp, IPv4 and IPv6 addresses in one rule, numbers of actions or protocols that are not known, a program without
a path, address bits under a mask. `kxrule lint FILE` tells them, `kxrule lint` those of the store; `import` warns of them, and
refuses them with `--strict`. An active list with a rule set that does not exist, or twice, is refused by `import` as by
`activate`.

## Rules as text

What `show` prints for a rule is what `add-rule`, `import` and `edit` take; `export --text` writes a whole policy so:

```
rules 1
active 1

macro web
  port=80,443
  address=10.0.0.0/8

set 1 "Home office"
  # a comment
  10  ACCESS,TCP,,web,,80|8080,DROP  (off)  description="No web"  application=C:\a.exe
  20  ACCESS,ANY,fe80::/10,,,,ACCEPT
```

A rule is its index, the library's line, and what the line does not carry: members of the JSON form as `key=value`. A
value is bare or JSON; bare lists have commas, `null` takes a member away. In the line an empty place means any, ranges
have a colon and lists of ports `|`; what begins neither with a digit nor with `!` is a name. A line without an index gets
the one after the rule above it. `macros` or `sets` alone in a line say that there are none. What can be said in JSON can be
said in text, so both restore every record byte for byte. `edit` shows what differs and asks before it applies that.

## Which rule decides

The library stores rules and filters nothing. `explain`, `find` and `report` assume that the product does this with them:

- The rule sets of the active list are asked in their order, the rules of each by ascending index. The first rule that
  matches decides: `accept` allows, `drop`, `reject` and `reset` refuse, `ask` leaves it to the user.
- Only access rules that are on decide. Rules of the other kinds apply beside that; `explain` names those.
- The first address and port of a rule are where traffic comes from, the second where it goes. `!` means the other
  addresses of the same family, or the other ports. A rule with ports matches TCP and UDP only.
- A name stands for the macros that bear it: everything that their items of the right type mean, without what those with
  `!` leave out; items with `!` alone mean everything else. A name that no macro explains cannot be told.
- A rule for a program matches its path, in any letter case. Hashes are not compared.

A rule that has an extension, or a name or a value that cannot be told, may decide: `explain` says "perhaps" and goes on.
Where several rules decide, each about a part of what was asked for, it names all of them.

## What is kept safe

Before a command removes or replaces a rule, a rule set or the macros, it copies the store's files to a dated directory
below `RuleBackup`, and says where. `kxrule backups` lists these directories,
`kxrule restore` brings one back, and `kxrule undo` the newest; what that replaces is copied as well. With `--keep N` only the
newest N of them stay.

Every copy has a manifest, `KxRulMan.txt`, with the SHA-256, the size and the name of each file. `restore` refuses a copy that
is not what was copied, and `backups` says so. `verify --against BACKUP` tells which files of the store differ from it. That
sees every changed bit; the rule files alone do not show all of them: with a changed bit a rule can be another rule.

A damaged store is not changed: the command ends and says what is wrong. `restore` brings a copy back,
`import FILE --replace` makes the store what a policy says, and with `--force` any other change goes on with what can be
read. All three copy the damaged files first. `import --replace --check` says what it would mend, and ends with 3, so that a
machine that imports every hour heals itself.

One `kxrule` at a time changes a directory; another one waits for it as long as `--wait` says. Commands that only look read
the files themselves and wait for nobody. Ctrl-C ends a command before its first change, with exit code 4; afterwards it is
held until the change is complete and the command ends as usual, so what lies there is old or new, never a mixture. (A crash
of the machine can leave new macros beside old rule sets; the same import again repairs that.) `tidy` looks into what it would remove, and leaves what nothing else holds.

## Many machines

`import` can be repeated safely, so any tool that distributes files can manage the rules of many machines. With Ansible:

```yaml
- name: Firewall rules
  hosts: workstations
  tasks:
    - name: The policy
      ansible.windows.win_copy:
        src: workstation.json
        dest: C:\ProgramData\Firewall\workstation.json
    - name: What would change
      ansible.windows.win_command: >-
        "C:\Program Files\Firewall\kxrule.exe" --dir C:\ProgramData\Firewall\Rules
        import C:\ProgramData\Firewall\workstation.json --replace --check
      register: check
      changed_when: check.rc == 3
      failed_when: check.rc not in [0, 3]
    - name: The store
      when: check.rc == 3
      block:
        - name: Stop the product
          ansible.windows.win_service:
            name: Firewall
            state: stopped
        - name: Import
          ansible.windows.win_command: >-
            "C:\Program Files\Firewall\kxrule.exe" --dir C:\ProgramData\Firewall\Rules
            import C:\ProgramData\Firewall\workstation.json --replace
      always:
        - name: Start it again
          ansible.windows.win_service:
            name: Firewall
            state: started
```

As a scheduled task that applies a file from a share:

```
schtasks /Create /TN "Firewall policy" /SC HOURLY /RU SYSTEM /TR "C:\ProgramData\Firewall\follow.cmd"
```

with this `follow.cmd`, which only administrators may write, like the file on the share: whoever writes either decides what
every machine lets through. It stops the product only when something differs.

```bat
@echo off
set tool="C:\Program Files\Firewall\kxrule.exe" --dir C:\ProgramData\Firewall\Rules
set policy=\\server\policy\workstation.json
%tool% import %policy% --replace --check >nul
if not %errorlevel% == 3 exit /b %errorlevel%
net stop Firewall
%tool% import %policy% --replace
set result=%errorlevel%
net start Firewall
exit /b %result%
```

A process that has the library initialised does not see what another one writes, and writes its own state over it later.
`kxrule` therefore refuses to change a store while one runs, and names it where the system tells: stop the product first, or
use `--force` and restart it.

## Completion

PowerShell: add `kxrule completion powershell | Out-String | Invoke-Expression` to the profile. Bash: add
`source <(kxrule completion bash)` to `~/.bashrc`.
)";

constexpr char kErrors[] =
    R"(What goes wrong is told on standard error: a line for people, or with `--json` an object with `"error"` in words and
`"exitCode"`; `"result"` and `"name"` are the library's code, where it was the library that failed. Everything that
is wrong in a policy is an element of `"diagnostics"`, with `"file"`, `"line"`, `"column"`, `"where"` and `"text"`. Before
it there may be an object with `"waiting"`, while somebody else changes the store, and one with `"warning"` about a damaged
store: what was wrong in `"files"`, and where they lie now in `"copies"`; or about a policy, with its `"findings"`. Where a command copied the store's files, its own
output says so in `"copies"`, too. [kxrule.schema.json](kxrule.schema.json) is the JSON Schema of what each command prints.

)";

std::vector<const CLI::App*> Commands(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App*) { return true; });
}

bool IsHelp(const CLI::Option* option)
{
    return option->get_name().find("--help") != std::string::npos;
}

std::string Written(const CLI::Option* option)
{
    std::string text = option->get_positional() ? option->get_name() : option->get_name(false, true);
    if (!option->get_positional() && option->get_items_expected_max() > 0 && !option->get_type_name().empty())
        text += " " + option->get_type_name();
    return text;
}

std::string Usage(const CLI::App& command, const std::string& name)
{
    std::string text = name;
    for (const CLI::Option* const option : command.get_options())
    {
        if (IsHelp(option))
            continue;
        std::string written = Written(option);
        const size_t comma = written.find(',');
        if (!option->get_positional() && comma != std::string::npos) // one of its names will do
            written.erase(comma, std::min(written.find(' '), written.size()) - comma);
        if (option->get_positional() && option->get_items_expected_max() > 1)
            written += "...";
        text += option->get_required() ? " " + written : " [" + written + "]";
    }
    if (!Commands(command).empty())
        text += " [COMMAND]";
    return text;
}

void AppendCommand(std::string& out, const CLI::App& command, const std::string& name, const std::string& heading)
{
    out += heading + " " + name.substr(name.find(' ') + 1) + "\n\n" + command.get_description() + ".\n\n```\n" +
           Usage(command, name) + "\n```\n\n";
    std::string rows;
    for (const CLI::Option* const option : command.get_options())
    {
        if (!IsHelp(option))
            rows += "| `" + Written(option) + "` | " + option->get_description() + " |\n";
    }
    if (!rows.empty())
        out += "| | |\n|---|---|\n" + rows + "\n";
    const std::string footer = command.get_footer();
    const size_t example = footer.find("\n  ");
    if (example != std::string::npos)
        out += "Example: `" + footer.substr(example + 3) + "`\n\n";
    for (const CLI::App* const inner : Commands(command))
        AppendCommand(out, *inner, name + " " + inner->get_name(), heading + "#");
}

std::string Words(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

/// Everything that can follow a command and is not a value.
std::vector<std::string> WordsOf(const CLI::App& command)
{
    std::vector<std::string> words;
    for (const CLI::App* const inner : Commands(command))
        words.push_back(inner->get_name());
    for (const CLI::Option* const option : command.get_options())
    {
        for (const std::string& name : option->get_lnames())
            words.push_back("--" + name);
        for (const std::string& name : option->get_snames())
            words.push_back("-" + name);
    }
    if (command.get_name() == "completion")
        words.insert(words.end(), {"powershell", "bash"});
    return words;
}

} // namespace

std::string Manual(const CLI::App& app)
{
    std::string out =
        "# kxrule\n\n" + app.get_description() +
        " This text is what `kxrule manual` prints.\n\n```\nkxrule [OPTIONS] COMMAND ...\n```\n\n| | |\n|---|---|\n";
    for (const CLI::Option* const option : app.get_options())
        out += "| `" + Written(option) + "` | " + option->get_description() + " |\n";
    out += "\nThese options may come before or after the command; every command takes `--help`.\n\n";
    const std::string footer = app.get_footer();
    out += footer.substr(footer.find("Exit codes")) + "\n\n" + kErrors + "## Commands\n\n";
    for (const CLI::App* const command : Commands(app))
        AppendCommand(out, *command, "kxrule " + command->get_name(), "###");
    return out + kGuide;
}

std::string BashCompletion(const CLI::App& app)
{
    std::string out = "# kxrule: completion for bash\n_kxrule()\n{\n    local word=${COMP_WORDS[COMP_CWORD]} words="
                      "\"" +
                      Words(WordsOf(app)) +
                      "\" at\n    for ((at = 1; at < COMP_CWORD; ++at)); do\n"
                      "        case ${COMP_WORDS[at]} in\n";
    const std::string global = Words(
        [&app]
        {
            std::vector<std::string> options = WordsOf(app);
            std::erase_if(options, [](const std::string& word) { return word.front() != '-'; });
            return options;
        }());
    for (const CLI::App* const command : Commands(app))
        out += "        " + command->get_name() + ") words=\"" + Words(WordsOf(*command)) + " " + global +
               "\"; break ;;\n";
    return out + "        esac\n    done\n    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
                 "    [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n}\n"
                 "complete -o filenames -F _kxrule kxrule kxrule.exe\n";
}

std::string PowerShellCompletion(const CLI::App& app)
{
    const auto quoted = [](const std::vector<std::string>& words)
    {
        std::string text;
        for (const std::string& word : words)
            text += (text.empty() ? "'" : ", '") + word + "'";
        return text;
    };
    std::string out = "# kxrule: completion for PowerShell\n"
                      "Register-ArgumentCompleter -Native -CommandName kxrule, kxrule.exe -ScriptBlock {\n"
                      "    param($wordToComplete, $commandAst, $cursorPosition)\n"
                      "    $global = @(" +
                      quoted(WordsOf(app)) + ")\n    $commands = @{\n";
    for (const CLI::App* const command : Commands(app))
        out += "        '" + command->get_name() + "' = @(" + quoted(WordsOf(*command)) + ")\n";
    return out +
           "    }\n"
           "    $words = $global\n"
           "    foreach ($element in $commandAst.CommandElements | Select-Object -Skip 1) {\n"
           "        $text = $element.ToString()\n"
           "        if ($commands.ContainsKey($text) -and $element.Extent.EndOffset -lt $cursorPosition) {\n"
           "            $words = $commands[$text] + ($global | Where-Object { $_.StartsWith('-') })\n"
           "            break\n"
           "        }\n"
           "    }\n"
           "    $words | Where-Object { $_ -like \"$wordToComplete*\" } | Sort-Object -Unique | ForEach-Object {\n"
           "        [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)\n"
           "    }\n"
           "}\n";
}

} // namespace Tool
