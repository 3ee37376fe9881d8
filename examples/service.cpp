// service.cpp: how a service uses the store. It reads the rules once, answers queries on several threads while the
// library writes changes at its own interval, and finalises the library when it stops. If it is given a policy file in
// addition to the rule directory, it makes the store match the file at the start and whenever the file changes.
//
// A query is a line such as "tcp 443" on standard input; the answer is the first rule of the active rule sets with that
// protocol and port. "block tcp 23" adds a rule. The end of the input stops the service.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <KxPfwRule.hpp>
#include <KxPolicy.h>

namespace
{

// The queue that the threads take their work from.
class Queries
{
public:
    void Put(std::string query)
    {
        const std::lock_guard lock(m_Lock);
        m_Waiting.push_back(std::move(query));
        m_Changed.notify_one();
    }

    void Close()
    {
        const std::lock_guard lock(m_Lock);
        m_Closed = true;
        m_Changed.notify_all();
    }

    // False if nothing is left and nothing more will come.
    bool Take(std::string& query)
    {
        std::unique_lock lock(m_Lock);
        m_Changed.wait(lock, [this] { return m_Closed || !m_Waiting.empty(); });
        if (m_Waiting.empty())
            return false;
        query = std::move(m_Waiting.front());
        m_Waiting.pop_front();
        return true;
    }

private:
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    std::deque<std::string> m_Waiting;
    bool m_Closed = false;
};

// One change of the store at a time: applying a policy takes many calls, between which nothing else may change what it
// changes.
std::mutex g_Changing;

// Follows the content of a policy file. A file that has errors, or is still being written, changes nothing.
class PolicyFile
{
public:
    explicit PolicyFile(const char* path) : m_Path(path) {}

    void Follow(const std::stop_token& stop)
    {
        std::unique_lock lock(m_Lock);
        do
            Take();
        while (!m_Stopped.wait_for(lock, stop, std::chrono::milliseconds(500), [&] { return stop.stop_requested(); }));
    }

    void Take()
    {
        std::ifstream file(m_Path, std::ios::binary);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        if (!file.is_open() || text == m_Seen)
            return;
        m_Seen = std::move(text);
        const std::lock_guard lock(g_Changing);
        const int32_t result =
            kxPolicyApply(nullptr, m_Seen.data(), m_Seen.size(), KXPOLICY_REPLACE, nullptr, Report, this);
        if (result >= 0)
            std::printf("policy: %d differences applied\n", static_cast<int>(result));
        else
            std::printf("policy: refused (%d)\n", static_cast<int>(result));
        std::fflush(stdout);
    }

private:
    static void Report(int32_t, uint32_t line, uint32_t column, const char* where, const char* text, void* self)
    {
        std::printf("%s:%u:%u: %s %s\n", static_cast<PolicyFile*>(self)->m_Path, static_cast<unsigned>(line),
                    static_cast<unsigned>(column), where, text);
    }

    const char* m_Path;
    std::string m_Seen;
    std::mutex m_Lock;
    std::condition_variable_any m_Stopped;
};

bool SpeaksOf(const PFW_RULE& rule, uint32_t protocol, uint16_t port)
{
    if (rule.dwActive == 0 || rule.dwKind != KXRULE_KIND_ACCESS)
        return false;
    const uint32_t its = rule.Access.dwProtocol;
    if (its != protocol && its != KXRULE_PROTOCOL_TCPUDP && its != KXRULE_PROTOCOL_ANY)
        return false;
    const RULE_PORT& item = rule.Access.Port[1];
    switch (item.nType)
    {
    case KXRULE_PORT_NONE:
    case KXRULE_PORT_ANY:
        return true;
    case KXRULE_PORT_SINGLE:
        return (port == item.wPort1) != (item.dwNot != 0);
    case KXRULE_PORT_RANGE:
        return (port >= item.wPort1 && port <= item.wPort2) != (item.dwNot != 0);
    default: // a list or a name, which this program does not resolve
        return false;
    }
}

// Copies one set at a time; any number of threads may do this at once.
std::string Answer(const kxrule::Store& store, uint32_t protocol, uint16_t port)
{
    for (const uint16_t index : store.activeRuleSets())
        if (const auto set = store.ruleSet(index)) // an active set need not exist
            for (const PFW_RULE& rule : set->rules())
                if (SpeaksOf(rule, protocol, port))
                    return kxrule::text(rule).value_or("a rule without text");
    return "no rule";
}

std::string Serve(kxrule::Store& store, const std::string& query)
{
    std::istringstream words(query);
    std::string word;
    uint16_t port = 0;
    words >> word;
    const bool block = word == "block";
    if (block)
        words >> word;
    const uint32_t protocol = word == "udp" ? KXRULE_PROTOCOL_UDP : KXRULE_PROTOCOL_TCP;
    const auto sets = store.activeRuleSets();
    if (!(words >> port) || sets.empty())
        return "not understood";
    if (!block)
        return Answer(store, protocol, port);
    const auto item = kxrule::Port::parse(std::to_string(port));
    const std::lock_guard lock(g_Changing);
    const kxrule::Result result =
        store.addRule(sets.front(), port, kxrule::access().protocol(protocol).port(*item).drop());
    return std::string(result ? "blocked" : result.message());
}

} // namespace

int main(int argc, char** argv)
{
    kxrule::Store store;
    if (const kxrule::Result result = store.open(argc > 1 ? argv[1] : nullptr); !result)
        return std::fprintf(stderr, "open: %s\n", result.message().data()), 1;
    if (const kxrule::Result result = store.read(); !result)
        return std::fprintf(stderr, "read: %s\n", result.message().data()), 1;

    PolicyFile policy(argc > 2 ? argv[2] : "");
    policy.Take(); // before the first query is answered
    std::jthread follower([&policy](const std::stop_token& stop) { policy.Follow(stop); });

    Queries queries;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&store, &queries]
            {
                std::string query;
                while (queries.Take(query))
                    std::printf("%s: %s\n", query.c_str(), Serve(store, query).c_str());
            });
    std::string line;
    while (std::getline(std::cin, line))
        queries.Put(line);
    queries.Close();
    follower = {};
    threads.clear(); // joins: no thread may be inside the library when the store is closed

    const kxrule::Result written = store.flush(); // closing writes too, but cannot report
    std::printf("stopped: %s\n", written.message().data());
    return written ? 0 : 1;
}
