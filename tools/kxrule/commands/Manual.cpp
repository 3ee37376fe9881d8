// The manual and the completion for shells, from the same source as --help.
#include "tools/kxrule/commands/Manual.h"

#include <algorithm>
#include <vector>

#include <CLI/CLI.hpp>

namespace Tool
{
namespace
{

/// Follows the generated parts and covers what the option descriptions do not. docs/kxrule.md is the whole text.
constexpr char kGuide[] = R"(## Policies as JSON

[policy.schema.json](policy.schema.json) is the JSON Schema of a policy; editors use it for completion and checking in a
file that names it in `"$schema"`. [workstation.json](../examples/workstation.json) is a complete example.

Addresses and ports are written as text:

| Text | Meaning |
|---|---|
| `any` | every address, every port |
| `10.0.0.1`, `fe80::1` | one address |
| `10.0.0.0/8`, `fe80::/10` | a prefix |
| `10.0.0.0/255.0.0.0` | an address with a mask |
| `10.0.0.1-10.0.0.9` | a range |
| `!10.0.0.0/8` | everything else (not for names and lists) |
| `80`, `1000-2000`, `!80` | a port, a range of ports, every port except one |
| `80,443,1000-2000` | a list of ports; `list:80` is a list with one port |
| `@web` | the name `web`, for example of a macro |
| `none` | an item that was never set |

Values that have names (`tcp`, `accept`, …) may also be written as numbers. Whatever cannot be expressed as a name or as
text, such as spare bytes, is written to `"raw"` as lines of the form `"offset: hexadecimal bytes"`; this member appears
only where it is needed. Importing an exported file therefore restores every record byte for byte. Narrow texts (macro
names, lists, extension and stream texts) are stored in the machine's active code page; characters outside it are
refused.

`import` checks the whole file before it changes anything, and reports every error with its line and column; a JSON
syntax error ends the reading and is then the only one reported. `import` changes only what differs: importing the same
file a second time writes nothing. Without `--replace`, nothing that the file does not name is removed. Rule sets,
active list and macros stay as they are if the file does not mention them; an empty `"ruleSets"` removes every rule set
only with `--allow-empty`. Files are read as UTF-8, or as UTF-16 with a byte order mark; reading stops at whatever
exceeds what a store can hold, after a thousand errors, and at `--max-size`.

Some policies are valid but probably not what was intended: a rule that names a macro that does not exist, two macros
with the same name, ports with the protocol icmp, IPv4 and IPv6 addresses in one rule, unknown numbers for actions or
protocols, a program without a path, address bits outside the mask. `kxrule lint FILE` reports these, `kxrule lint`
those in the store; `import` warns of them, or with `--strict` refuses the policy. Like `activate`, `import` refuses an
active list that names a rule set twice, or one that does not exist.

## Rules as text

`add-rule`, `import` and `edit` accept rules in the form in which `show` prints them; `export --text` writes a whole
policy this way:

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

A rule consists of its index, the library's text for it, and whatever that text does not include: members of the JSON
form as `key=value`. A value is written bare or as JSON; items of a bare list are separated by commas, and `null`
removes a member. In the library's text an empty field means any, ranges are written with a colon and lists of ports
with `|`; whatever begins with neither a digit nor `!` is a name. A line without an index gets the index after that of
the rule above it. `macros` or `sets` alone on a line says that there are none. Whatever can be expressed in JSON can be
expressed in text, so both restore every record byte for byte. `edit` shows the differences and asks before it applies
them.

## Which rule decides

The library stores rules and filters nothing. `explain`, `find` and `report` assume that the product applies them as
follows:

- The rule sets in the active list are consulted in the order of the list, the rules of each by ascending index. The
  first rule that matches decides: `accept` allows the traffic, `drop`, `reject` and `reset` refuse it, `ask` leaves it
  to the user.
- Only access rules that are on decide. Rules of the other kinds apply as well, without deciding; `explain` names them.
- The first address and port of a rule are the traffic's source, the second its destination. `!` means the other
  addresses of the same family, or the other ports. A rule with ports matches TCP and UDP only.
- A name stands for the macros that have it: everything their items of the right type mean, except what those with `!`
  exclude; if all items have `!`, everything else. What a name without a macro means is unknown.
- A rule for a program is matched by path, ignoring case. Hashes are not compared.

A rule with an extension, or with a name or value of unknown meaning, may decide: `explain` says "perhaps" and goes on.
If several rules decide, each about part of the traffic in question, it names all of them.

The page that `report` writes begins with what is allowed, refused, asked and undecided for each service and program, with
links to the rules that decide; "less" lists what earlier rules decide otherwise. A rule that never takes effect although
it says something else is told apart from one that is redundant; both name the rules that cover them. The page works
without script for up to 2,000 rules. What was not checked or is not shown, it says.

## Backups and damage

Before a command removes or replaces a rule, a rule set or the macros, it copies the store's files to a dated directory
below `RuleBackup` and says where. `kxrule backups` lists these directories, `kxrule restore` restores one of them, and
`kxrule undo` the newest; what these replace is copied as well. With `--keep N` only the newest N of them are retained.

Every copy has a manifest, `KxRulMan.txt`, with the SHA-256, the size and the name of each file. `restore` refuses a
copy that no longer matches its manifest, and `backups` says so. `verify --against BACKUP` reports which files of the
store differ from the copy. This detects every changed bit, which a check of the rule files alone cannot: a changed bit
can turn a rule into another valid one.

A damaged store is not changed: the command ends and says what is wrong. `restore` brings a copy back,
`import FILE --replace` makes the store match a policy, and with `--force` any other change goes ahead with what can be
read. All three copy the damaged files first. `import --replace --check` reports what it would repair and exits with 3,
so a machine that imports every hour repairs itself.

Only one `kxrule` at a time changes a directory; another one waits for it for up to `--wait` seconds. Commands that only
read do not wait. Ctrl-C before the first change ends a command with exit code 4; after that it is deferred until the
change is complete and the command ends as usual, so the store is either old or new, never a mixture. (A crash of the
machine can leave new macros with old rule sets; running the same import again repairs that.) `tidy` examines what it
would remove, and leaves anything that exists nowhere else.

## Imports that have to be confirmed

`kxrule import FILE --confirm 60` applies a policy and reverts it after 60 seconds unless `kxrule confirm` is run first:
for rules that may cut off the administrator who sets them. A second `kxrule` process waits in the background. It
survives the end of the console and of a remote shell; if the shell's job would end it, the import is refused. Until the
import is confirmed or reverted, every other change is refused, a second import included, and commands that read a store
warn about it. `kxrule undo` reverts the import at once. Reverting restores the files bit by bit from the copy below
`RuleBackup` and copies what it replaces, so `kxrule undo` can bring the import back. An import that fails halfway is
reverted as well.

The pending import is recorded in the file `KxRulCfm.txt` in the rule directory. After an import was reverted, commands
say so until the next command that may change the store, or `kxrule confirm`, which then exits with 1. If reverting
failed, they say why; it is tried again every ten seconds.

A restart of the machine, a power failure or signing off ends the waiting process, and Windows does not start another:
the new rules stay, every other change is refused, and commands say so until `kxrule confirm` or `kxrule undo` decides. A
scheduled task can revert whatever is pending when the machine starts; it does nothing otherwise:

```
schtasks /Create /TN "Firewall unconfirmed" /SC ONSTART /RU SYSTEM /TR "'C:\Program Files\Firewall\kxrule.exe' --force --dir C:\ProgramData\Firewall\Rules undo --unconfirmed"
```

Only the files are reverted. A product that has read the new rules keeps using them until it is restarted, and may write
them again: the commands name the processes that had the library loaded at that time.

## Many machines

`import` can be repeated safely, so any tool that distributes files can manage the rules of many machines. With Ansible:

```yaml
- name: Firewall rules
  hosts: workstations
  tasks:
    - name: Copy the policy
      ansible.windows.win_copy:
        src: workstation.json
        dest: C:\ProgramData\Firewall\workstation.json
    - name: Check what would change
      ansible.windows.win_command: >-
        "C:\Program Files\Firewall\kxrule.exe" --dir C:\ProgramData\Firewall\Rules
        import C:\ProgramData\Firewall\workstation.json --replace --check
      register: check
      changed_when: check.rc == 3
      failed_when: check.rc not in [0, 3]
    - name: Update the store
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

with this `follow.cmd`. Only administrators may have write access to it and to the file on the share: whoever can write
either decides what every machine lets through. It stops the product only if something differs.

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

A process that has initialised the library does not see what another process writes, and later overwrites it with its
own state. `kxrule` therefore refuses to change a store while such a process is running, and names it if the system can
tell which one it is: stop the product first, or use `--force` and restart it.

## Completion

Commands, options, and the numbers of the rule sets and rules of the store that the command line names:

| | |
|---|---|
| PowerShell | add `kxrule completion powershell \| Out-String \| Invoke-Expression` to the profile |
| Bash | add `source <(kxrule completion bash)` to `~/.bashrc` |
| Zsh | add `source <(kxrule completion zsh)` to `~/.zshrc`, after `compinit` |
| Fish | `kxrule completion fish > ~/.config/fish/completions/kxrule.fish` |
)";

constexpr char kErrors[] =
    R"(Errors are reported on standard error: as a line of text, or with `--json` as an object with the message in
`"error"` and the exit code in `"exitCode"`; if it was the library that failed, `"result"` and `"name"` are its result
code. Each problem in a policy is an element of `"diagnostics"`, with `"file"`, `"line"`, `"column"`, `"where"` and
`"text"`. The error object may be preceded by one with `"waiting"`, while another process is changing the store, and by
one with `"warning"`: about a damaged store, with the problems in `"files"` and the place of the copies in `"copies"`,
about a policy, with its `"findings"`, or about an import to be confirmed, in `"unconfirmed"`. A command that copied the
store's files also names the copy in `"copies"` of its own output. [kxrule.schema.json](kxrule.schema.json) is the JSON
Schema of what each command prints.

)";

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
    if (!ShownCommands(command).empty())
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
    for (const CLI::App* const inner : ShownCommands(command))
        AppendCommand(out, *inner, name + " " + inner->get_name(), heading + "#");
}

} // namespace

std::vector<const CLI::App*> ShownCommands(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

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
    for (const CLI::App* const command : ShownCommands(app))
        AppendCommand(out, *command, "kxrule " + command->get_name(), "###");
    return out + kGuide;
}

} // namespace Tool
