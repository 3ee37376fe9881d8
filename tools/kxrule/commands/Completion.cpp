// Completion: the shells know nothing but to ask.
#include "tools/kxrule/commands/Completion.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "policy/RulesText.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/Manual.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

struct Script
{
    const char* Shell;
    const char* Text;
};

constexpr Script kScripts[] = {
    {"bash", R"~(# kxrule: completion for bash
_kxrule()
{
    local words=("${COMP_WORDS[@]:1:COMP_CWORD}")
    words=("${words[@]//[\"\']/}")
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" complete "${words[@]:0:COMP_CWORD-1}" "${words[COMP_CWORD-1]}." 2>/dev/null |
        tr -d '\r' | cut -f 1)
}
complete -o default -F _kxrule kxrule kxrule.exe
)~"},
    {"fish", R"~(# kxrule: completion for fish
function __kxrule_words
    set -l words (commandline -opc)
    $words[1] complete $words[2..-1] (commandline -ct). 2>/dev/null | string trim -r -c \r
end
complete -c kxrule -c kxrule.exe -n '__kxrule_words | string length -q' -k -f -a '(__kxrule_words)'
)~"},
    {"powershell", R"~(# kxrule: completion for PowerShell
Register-ArgumentCompleter -Native -CommandName kxrule, kxrule.exe -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    $words = @($commandAst.CommandElements | Where-Object { $_.Extent.EndOffset -lt $cursorPosition } |
        ForEach-Object { $_.ToString().Trim('"', "'") })
    $program, $words = $words
    & $program complete @words "$wordToComplete." 2>$null | ForEach-Object {
        $word, $what = $_ -split "`t", 2
        [System.Management.Automation.CompletionResult]::new($word, $word, 'ParameterValue', "$what ")
    }
}
)~"},
    {"zsh", R"~(#compdef kxrule kxrule.exe
# kxrule: completion for zsh
_kxrule()
{
    local -a found
    found=(${(f)"$("${(Q)words[1]}" complete "${(@Q)words[2,CURRENT-1]}" "$PREFIX." 2>/dev/null | tr '\t' ':' | tr -d '\r')"})
    (( $#found )) && _describe -V kxrule found || _files
}
compdef _kxrule kxrule kxrule.exe
)~"},
};

struct Word
{
    std::string Text;
    std::string Meaning;
};

std::vector<Word> RuleSets(Session& session)
{
    std::vector<Word> words;
    for (const RuleSetRecord& ruleSet : session.Look(LeaveOut).RuleSets)
        words.push_back({std::to_string(ruleSet.Index), ToUtf8(ruleSet.Name)});
    return words;
}

std::vector<Word> Rules(Session& session, const std::string& ruleSetIndex)
{
    std::vector<Word> words;
    static_cast<void>(session.Look(
        [&](const Policy&, const RuleSetRecord& ruleSet)
        {
            if (std::to_string(ruleSet.Index) != ruleSetIndex)
                return;
            words.clear();
            for (const PFW_RULE& rule : ruleSet.Rules)
                words.push_back({std::to_string(rule.wRuleIndex), RuleToText(rule, true)});
        }));
    return words;
}

std::vector<Word> Options(const CLI::App& command)
{
    std::vector<Word> words;
    for (const CLI::App* app = &command; app != nullptr; app = app->get_parent())
    {
        for (const CLI::Option* const option : app->get_options())
        {
            for (const std::string& name : option->get_lnames())
            {
                if (app == &command || name != "help")
                    words.push_back({"--" + name, option->get_description()});
            }
        }
    }
    return words;
}

/// The words before the last one, understood as far as that helps.
struct Line
{
    const CLI::App* Command = nullptr;
    std::vector<std::string> Places;      // what stands where no option is
    const CLI::Option* Awaited = nullptr; // whose value comes next
    GlobalOptions Global;

    void Take(const std::string& word)
    {
        const CLI::Option* const option = std::exchange(Awaited, nullptr);
        if (option != nullptr)
            return TakeValue(*option, word);
        if (word.starts_with('-'))
        {
            const size_t equals = word.find('=');
            for (const CLI::App* app = Command; app != nullptr && Awaited == nullptr; app = app->get_parent())
                Awaited = app->get_option_no_throw(word.substr(0, equals));
            if (Awaited != nullptr && Awaited->get_items_expected_max() == 0)
                Awaited = nullptr;
            if (Awaited != nullptr && equals != std::string::npos)
                TakeValue(*std::exchange(Awaited, nullptr), word.substr(equals + 1));
            return;
        }
        for (const CLI::App* const inner : ShownCommands(*Command))
        {
            if (Places.empty() && inner->get_name() == word)
            {
                Command = inner;
                return;
            }
        }
        Places.push_back(word);
    }

    /// What comes next where no option is; null: nothing.
    [[nodiscard]] const CLI::Option* Next() const
    {
        size_t at = Places.size();
        for (const CLI::Option* const option : Command->get_options())
        {
            if (option->get_positional() && (at == 0 || option->get_items_expected_max() > 1))
                return option;
            at -= option->get_positional() ? 1 : 0;
        }
        return nullptr;
    }

private:
    void TakeValue(const CLI::Option& option, const std::string& value)
    {
        if (option.get_name() == "--dir")
            Global.Directory = value;
        else if (option.get_name() == "--master")
            Global.Master = value;
    }
};

/// What a place in the line, or the value of an option, can be. An option that takes a number calls it by type.
std::vector<Word> ValuesOf(const CLI::Option& option, const Line& line, Console& console)
{
    const std::string name = option.get_positional() ? option.get_name() : option.get_type_name();
    std::vector<Word> words;
    if (name == "SHELL")
    {
        for (const std::string& shell : CompletedShells())
            words.push_back({shell, {}});
        return words;
    }
    Session session(line.Global, console);
    if (name == "SET" || name == "TO")
        return line.Command->get_name() == "add-set" ? words : RuleSets(session);
    if (name == "RULE" && !line.Places.empty() && !(option.get_positional() && line.Command->get_name() == "add-rule"))
        return Rules(session, line.Places[0]);
    return words;
}

} // namespace

std::vector<std::string> CompletedShells()
{
    std::vector<std::string> shells;
    for (const Script& script : kScripts)
        shells.emplace_back(script.Shell);
    return shells;
}

std::string CompletionScript(const std::string& shell)
{
    for (const Script& script : kScripts)
    {
        if (shell == script.Shell)
            return script.Text;
    }
    return {};
}

std::string CompletedWords(const CLI::App& app, const std::vector<std::string>& words, Console& console)
{
    if (words.empty())
        return {};
    Line line;
    line.Command = &app;
    std::for_each(words.begin(), words.end() - 1, [&line](const std::string& word) { line.Take(word); });
    const std::string begun = words.back().substr(0, words.back().size() - 1);
    const CLI::Option* const next = line.Awaited != nullptr ? line.Awaited : line.Next();
    std::vector<Word> found;
    if (line.Awaited == nullptr &&
        (begun.starts_with('-') || (next == nullptr && ShownCommands(*line.Command).empty())))
        found = Options(*line.Command);
    else if (next != nullptr)
    {
        try
        {
            found = ValuesOf(*next, line, console);
        }
        catch (const std::exception&) // a store that cannot be read has no numbers
        {
        }
    }
    if (line.Awaited == nullptr && line.Places.empty())
    {
        for (const CLI::App* const inner : ShownCommands(*line.Command))
            found.push_back({inner->get_name(), inner->get_description()});
    }
    std::string text;
    for (const Word& word : found)
    {
        if (word.Text.starts_with(begun) &&
            std::find(line.Places.begin(), line.Places.end(), word.Text) == line.Places.end())
            text += word.Text + "\t" + Printable(word.Meaning) + "\n";
    }
    return text;
}

} // namespace Tool
