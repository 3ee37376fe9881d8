// report: the store as one page for a browser.
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/report/Report.h"

namespace Tool
{
namespace
{

std::string LocalTime()
{
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u", now.wYear, now.wMonth, now.wDay, now.wHour,
                  now.wMinute);
    return text;
}

std::string Machine()
{
    KXWCHAR name[256] = {};
    DWORD units = 256;
    return ::GetComputerNameExW(ComputerNameDnsHostname, name, &units) ? ToUtf8(name) : std::string();
}

} // namespace

int Report(Session& session, const std::string& file)
{
    session.OpenToLook();
    const Policy store = session.Read();
    const ReportInput input{store, Machine(), ToUtf8(session.Directory()), LocalTime(), MacroLine};
    WriteTextFile(session, file, ReportPage(input));
    TellWritten(session, file);
    return ExitDone;
}

} // namespace Tool
