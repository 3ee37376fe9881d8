// Policies in and out: import.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <memory>

#include "tools/kxrule/Columns.h"
#include "tools/kxrule/Commands.h"
#include "tools/kxrule/RuleJson.h"
#include "tools/kxrule/StoreChange.h"
#include "tools/kxrule/Utf8.h"

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

std::string ErrorLines(const std::string& path, const std::vector<JsonError>& errors)
{
    std::string lines;
    for (const JsonError& error : errors)
        lines += (path == "-" ? "standard input" : path) + ":" + std::to_string(error.Line) + ":" +
                 std::to_string(error.Column) + ": " + (error.Path.empty() ? "" : error.Path + ": ") +
                 Printable(error.Text) + "\n";
    return lines;
}

int Import(Session& session, const ImportOptions& options)
{
    Console& console = session.Terminal();
    const std::string text = ReadTextFile(options.File);
    Policy policy;
    std::vector<JsonError> errors;
    if (!ReadPolicy(text, policy, errors))
    {
        console.Error(ErrorLines(options.File, errors));
        return ExitFailed;
    }
    session.OpenToChange();
    const Policy store = session.Read();
    const PolicyDiff diff = Compare(store, policy, options.Replace ? MergeMode::Replace : MergeMode::Merge);
    if (RuleSetsAfter(store, diff) > KXRULE_MAX_RULESETS)
        throw Failure("the store would hold " + std::to_string(RuleSetsAfter(store, diff)) +
                      " rule sets, 64 are the most");
    for (const RuleSetChange& change : diff.RuleSets)
    {
        if (change.RulesAfter.size() > KXRULE_MAX_RULES)
            throw Failure("rule set " + std::to_string(change.Index) + " would hold " +
                          std::to_string(change.RulesAfter.size()) + " rules, 1024 are the most");
    }
    if (!diff.IsEmpty())
        Apply(session, store, diff);
    console.Out(DiffSummary(diff) + "\n");
    return ExitDone;
}

} // namespace Tool
