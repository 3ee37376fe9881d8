// kxrule: the rule store for administrators and scripts. docs/kxrule.md is its manual.
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "policy/Apply.h"
#include "policy/JsonText.h"
#include "policy/ResultCodes.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/CommandLine.h"
#include "tools/kxrule/console/Failure.h"
#include "tools/kxrule/console/Interrupt.h"

namespace
{

/// Reports why a command failed: a line of text, or JSON for programs.
void Tell(Tool::Console& console, bool json, const Tool::Failure& failure)
{
    if (!json)
        return console.Error(std::string("kxrule: ") + failure.what() + "\n");
    KxPolicy::Json members = {{"error", failure.what()}, {"exitCode", failure.Code()}};
    if (failure.Result() != 0)
        members["result"] = failure.Result();
    if (const std::string_view name = KxPolicy::ResultName(failure.Result()); failure.Result() != 0 && !name.empty())
        members["name"] = name;
    console.Error(KxPolicy::JsonLine(members) + "\n");
}

} // namespace

int wmain(int count, wchar_t** arguments)
{
    try
    {
        Tool::Console console;
        int code = Tool::ExitFailed;
        bool json = false;
        const auto fail = [&](const Tool::Failure& failure)
        {
            Tell(console, json, failure);
            code = failure.Code();
        };
        try
        {
            std::vector<std::string> texts;
            for (int i = 1; i < count; ++i)
                texts.push_back(KxPolicy::ToUtf8(arguments[i]));
            // Determined before the rest: the command line itself may be wrong.
            const auto end = std::find(texts.begin(), texts.end(), "--");
            json = std::find(texts.begin(), end, "--json") != end;
            Tool::WatchInterrupts(json);
            code = Tool::RunCommandLine(texts, console);
        }
        catch (const Tool::Failure& failure)
        {
            fail(failure);
        }
        catch (const KxPolicy::StoreError& error)
        {
            fail(Tool::Failure(error.what(), Tool::ExitFailed, error.Result()));
        }
        catch (const std::bad_alloc&)
        {
            fail(Tool::Failure("memory ran out"));
        }
        catch (const std::exception& exception)
        {
            fail(Tool::Failure(exception.what()));
        }
        if (!console.Flush() && code == Tool::ExitDone)
            fail(Tool::Failure("the output could not be written"));
        return code;
    }
    catch (...) // there is no memory left to report it
    {
        return Tool::ExitFailed;
    }
}
