// kxrule: the rule store for people and scripts. docs/kxrule.md is its manual.
#include <exception>
#include <string>
#include <vector>

#include "tools/kxrule/CommandLine.h"
#include "tools/kxrule/Failure.h"
#include "tools/kxrule/Utf8.h"

int wmain(int count, wchar_t** arguments)
{
    try
    {
        Tool::Console console;
        int code = Tool::ExitFailed;
        try
        {
            std::vector<std::string> texts;
            for (int i = 1; i < count; ++i)
                texts.push_back(Tool::ToUtf8(arguments[i]));
            code = Tool::RunCommandLine(texts, console);
        }
        catch (const Tool::Failure& failure)
        {
            console.Error(std::string("kxrule: ") + failure.what() + "\n");
            code = failure.Code();
        }
        catch (const std::bad_alloc&)
        {
            console.Error("kxrule: memory ran out\n");
        }
        catch (const std::exception& exception)
        {
            console.Error(std::string("kxrule: ") + exception.what() + "\n");
        }
        if (!console.Flush() && code == Tool::ExitDone)
        {
            console.Error("kxrule: the output could not be written\n");
            code = Tool::ExitFailed;
        }
        return code;
    }
    catch (...) // nothing is left to say it with
    {
        return Tool::ExitFailed;
    }
}
