// Data, clock, memory figures and child processes for the benchmark programs.
#include "bench/Bench.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

#include "common/srclib/KxComn_Windows.h"

#include <psapi.h>

namespace Bench
{
namespace
{

std::string g_DataRoot; // NOLINT: set once by main
bool g_HasPeers = true;

// By offset: fields of a packed record may be at odd addresses.
void PutWide(PFW_RULE& rule, size_t offset, std::wstring_view text)
{
    std::memcpy(reinterpret_cast<uint8_t*>(&rule) + offset, text.data(), text.size() * sizeof(KXWCHAR));
}

RULE_ADDR SingleAddress(uint32_t address)
{
    RULE_ADDR item = {};
    item.dwType = KXRULE_ADDR_SINGLE;
    item.dwFamily = KXRULE_FAMILY_IPV4;
    item.Addr1.dwIPv4 = address;
    return item;
}

RULE_PORT SinglePort(uint16_t port)
{
    RULE_PORT item = {};
    item.nType = KXRULE_PORT_SINGLE;
    item.wPort1 = port;
    return item;
}

} // namespace

PFW_RULE MakeRule(uint16_t set, size_t position)
{
    PFW_RULE rule = {};
    rule.wRuleIndex = RuleKey(position);
    PutWide(rule, offsetof(PFW_RULE, wszDescription), L"a rule of the benchmark");
    rule.dwActive = 1;
    rule.dwKind = static_cast<uint32_t>(position % 5 + 1);
    const RULE_ADDR address = SingleAddress(0x0A000000u + set * 65536u + static_cast<uint32_t>(position));
    const RULE_PORT port = SinglePort(static_cast<uint16_t>(1024 + position));
    switch (rule.dwKind)
    {
    case KXRULE_KIND_ACCESS:
        rule.Access.dwProtocol = KXRULE_PROTOCOL_TCP;
        rule.Access.Addr[0] = address;
        rule.Access.Port[1] = port;
        rule.Access.dwAction = KXRULE_ACTION_ACCEPT;
        PutWide(rule, offsetof(PFW_RULE, Access.wszAppName), L"C:\\Program Files\\Example\\Application\\program.exe");
        std::memset(rule.Access.abAppHash, 0x5a,
                    sizeof(rule.Access.abAppHash)); // already set, so no hash library is loaded
        break;
    case KXRULE_KIND_NAT:
        rule.Nat.dwProtocol = KXRULE_PROTOCOL_UDP;
        rule.Nat.Addr[0] = address;
        rule.Nat.Port[0] = port;
        rule.Nat.dwNatType = KXRULE_NAT_DNAT;
        break;
    case KXRULE_KIND_THROTTLE:
        rule.Throttle.dwProtocol = KXRULE_PROTOCOL_TCP;
        rule.Throttle.Addr[0] = address;
        rule.Throttle.Port[1] = port;
        break;
    case KXRULE_KIND_STREAM:
        rule.Stream.dwAppProtocol = KXRULE_APP_HTTP;
        rule.Stream.Addr[0] = address;
        rule.Stream.dwAction = KXRULE_ACTION_DROP;
        break;
    default:
        rule.GenStream.dwProtocol = KXRULE_PROTOCOL_TCPUDP;
        rule.GenStream.Addr[0] = address;
        rule.GenStream.Port[0] = port;
        rule.GenStream.dwDirection = KXRULE_DIRECTION_OUT;
        rule.GenStream.dwAction = KXRULE_ACTION_ASK;
        break;
    }
    return rule;
}

PFW_RULE MakeTextRule()
{
    PFW_RULE rule = {};
    rule.dwKind = KXRULE_KIND_ACCESS;
    rule.Access.dwProtocol = KXRULE_PROTOCOL_TCP;
    rule.Access.Addr[0] = SingleAddress(0xC0A80001u);
    rule.Access.Addr[1] = SingleAddress(0x0A000000u);
    rule.Access.Addr[1].dwType = KXRULE_ADDR_MASK;
    rule.Access.Addr[1].dwNot = 1;
    rule.Access.Addr[1].Addr2.dwIPv4 = 0xFF000000u;
    rule.Access.Port[0].nType = KXRULE_PORT_ANY;
    rule.Access.Port[1] = SinglePort(80);
    rule.Access.Port[1].nType = KXRULE_PORT_RANGE;
    rule.Access.Port[1].wPort2 = 90;
    rule.Access.dwAction = KXRULE_ACTION_ACCEPT;
    rule.Access.dwExtFlag = 1;
    rule.Access.dwExtValue = 7;
    rule.Access.wExtValue = 3;
    std::memcpy(rule.Access.szExtText, "abc", 4);
    return rule;
}

void Check(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "%s (error %lu)\n", what, ::GetLastError());
    std::exit(1);
}

double Seconds() noexcept
{
    LARGE_INTEGER count;
    LARGE_INTEGER frequency;
    ::QueryPerformanceCounter(&count);
    ::QueryPerformanceFrequency(&frequency);
    return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

Memory MemoryUse()
{
    PROCESS_MEMORY_COUNTERS counters = {};
    Check(::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof(counters)) != FALSE, "GetProcessMemoryInfo");
    return {counters.WorkingSetSize, counters.PeakWorkingSetSize};
}

void SetDataRoot(std::string root)
{
    g_DataRoot = std::move(root);
    if (g_DataRoot.empty() || g_DataRoot.back() != '\\')
        g_DataRoot += '\\';
    ::CreateDirectoryA(g_DataRoot.c_str(), nullptr);
}

const std::string& DataRoot() noexcept
{
    return g_DataRoot;
}

bool HasPeers() noexcept
{
    return g_HasPeers;
}

void SetPeers(bool hasPeers) noexcept
{
    g_HasPeers = hasPeers;
}

std::string DataDirectory(const std::string& name)
{
    const std::string directory = g_DataRoot + name + "\\";
    Check(::CreateDirectoryA(directory.c_str(), nullptr) != FALSE || ::GetLastError() == ERROR_ALREADY_EXISTS,
          "CreateDirectoryA");
    return directory;
}

Numbers RunChild(const std::string& arguments)
{
    char program[MAX_PATH];
    ::GetModuleFileNameA(nullptr, program, MAX_PATH);
    const std::string result = g_DataRoot + "child.txt";
    ::DeleteFileA(result.c_str());
    std::string line = '"' + std::string(program) + "\" --data=" + g_DataRoot + " --report=" + result + " " + arguments;
    STARTUPINFOA startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    Check(::CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process),
          line.c_str());
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);

    Numbers numbers;
    std::ifstream in(result);
    std::string name;
    for (double value = 0; in >> name >> value;)
        numbers[name] = value;
    Check(!numbers.empty(), line.c_str());
    return numbers;
}

void Report(const std::string& path, const Numbers& numbers)
{
    std::ofstream out(path);
    out.precision(17);
    for (const auto& [name, value] : numbers)
        out << name << ' ' << value << '\n';
}

std::string TakeOption(std::vector<char*>& arguments, const std::string& name, const std::string& fallback)
{
    const std::string prefix = "--" + name + "=";
    for (auto at = arguments.begin(); at != arguments.end(); ++at)
        if (std::string_view(*at).starts_with(prefix))
        {
            std::string value = *at + prefix.size();
            arguments.erase(at);
            return value;
        }
    return fallback;
}

} // namespace Bench
