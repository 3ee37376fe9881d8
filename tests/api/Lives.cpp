#include "tests/api/Lives.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_Record.h"
#include "tests/support/FileContent.h"
#include "tests/support/RecordBuilder.h"

namespace fs = std::filesystem;

#define KX_DO(function, ...) KX_CALL_OF(Library, function, __VA_ARGS__)

namespace
{

bool IsRescue(const std::string& content)
{
    return content.starts_with("This is a rescue RuleSet");
}

void Mask(std::string& text, const std::string& before, const std::string& after)
{
    for (size_t at = 0; (at = text.find(before, at)) != std::string::npos;)
    {
        at += before.size();
        const size_t end = std::min(text.find_first_not_of("0123456789ABCDEFabcdef", at), text.size());
        if (text.compare(end, after.size(), after) == 0)
            text.replace(at, end - at, "#");
    }
}

std::string SetText(const KxCommon::WideString& name, const std::vector<PFW_RULE>& rules)
{
    std::string text(name.begin(), name.end());
    for (const PFW_RULE& rule : rules)
        text += ' ' + std::to_string(rule.wRuleIndex);
    return text;
}

// What is in a file: the macro's name, or the rule set; empty when it is not whole.
std::string Decode(const std::string& bytes)
{
    using Kind = FileContent::Kind;
    FileContent content;
    MemoryStream stream({bytes.begin(), bytes.end()});
    if (bytes.starts_with("KMAC") && content.Read(Kind::Macros, stream).empty())
        return content.Macros.empty() ? "" : content.Macros.front().Name;
    stream.Rewind();
    if (!bytes.starts_with("KRSF") || !content.Read(Kind::RuleSet, stream).empty())
        return "";
    static const std::string oldVersion = ReadBytes("tests/data/ruleset-old.dat").substr(0, 24);
    return (bytes.starts_with(oldVersion) ? "old " : "") + SetText(content.Set.Name, content.Rules);
}

} // namespace

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

// ----------------------------------------------------------------------------------------------------- the library --

Lives::Lives()
{
    fs::create_directory(Folder / "vol");
    Trace->HasConfig = true;
    Trace->Enable = 1;
    Trace->Level = 1 + 16 + 256;
    Redirect("Sleep", reinterpret_cast<void*>(PassTime));
    Redirect("GetTickCount64", reinterpret_cast<void*>(TimePassed));
}

Lives::Place Lives::Redirect(const std::string& name, void* to) const
{
    auto* const base = reinterpret_cast<unsigned char*>(::GetModuleHandleW((Folder / "KxPfwRul.dll").c_str()));
    const auto* const head =
        reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY table = head->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IAT];
    void* const from = reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), name.c_str()));
    void** const first = reinterpret_cast<void**>(base + table.VirtualAddress);
    void** const last = first + table.Size / sizeof *first;
    void** const at = std::find(first, last, from);
    if (at == last)
        throw std::runtime_error("the library does not call " + name);
    DWORD before = 0;
    ::VirtualProtect(at, sizeof *at, PAGE_READWRITE, &before);
    *at = to;
    return {at, from};
}

int32_t Lives::Call(const std::string& name, const Words& words)
{
    const std::string word = words.empty() ? "" : words[0];
    const auto index = static_cast<uint16_t>(std::atoi(word.c_str()));
    const uint16_t serial = ++m_Serial;
    const std::string path = word == "relative" ? "vol\\rules" : word == "none" ? "" : Rules + word;
    const char* const master = words.size() > 1 ? words[1].c_str() : nullptr;
    const PFW_RULE rule = Build::Access(serial);
    auto set = Build::RuleSet(index, L"set" + std::to_wstring(serial), {rule});
    auto macro = Build::Macro(std::to_string(serial), {Build::Item("a")});
    const auto isLong = [&] { return KX_DO(kxRuleGetRuleSet, index, static_cast<PFW_RULESET*>(nullptr), 0) > 3; };
    const auto top = [&] { return static_cast<uint16_t>(KX_DO(kxRuleGetRuleTopIndex, index)); };
    const std::map<std::string, std::function<int32_t()>> calls = {
        {"open", [&] { return KX_DO(kxRuleInitialize, path.c_str(), master); }},
        {"read", [&] { return KX_DO(kxRuleRead); }},
        {"write", [&] { return KX_DO(kxRuleWrite); }},
        {"flush", [&] { return KX_DO(kxRuleFlush); }},
        {"end", [&] { return KX_DO(kxRuleFinalize); }},
        {"add", [&] { return KX_DO(kxRuleAddRuleSet, index, set.get()); }},
        {"delete", [&] { return KX_DO(kxRuleDeleteRuleSet, index); }},
        {"rule",
         [&] { return isLong() ? KX_DO(kxRuleDeleteRule, index, top()) : KX_DO(kxRuleAddRule, index, serial, &rule); }},
        {"again", [&] { return KX_DO(kxRuleAddRule, index, top(), &rule); }},
        {"nomacro", [&] { return KX_DO(kxRuleDeleteMacro); }},
        {"active", [&] { return KX_DO(kxRuleSetActiveRuleSet, static_cast<const uint16_t*>(nullptr), 0); }},
        {"macro",
         [&]
         {
             KX_DO(kxRuleDeleteMacro);
             KX_DO(kxRuleSetActiveRuleSet, &serial, 1);
             return KX_DO(kxRuleAddMacro, macro.get());
         }},
    };
    return calls.at(name)();
}

Lives::Contents Lives::Memory() const
{
    const auto said = static_cast<ptrdiff_t>(Trace->Lines.size()); // what is asked here is not part of the life
    Contents contents;
    uint16_t indexes[KXRULE_MAX_RULESETS + 6] = {};
    const int32_t count = KX_DO(kxRuleGetRuleSetIndex, &indexes[0], static_cast<int32_t>(std::size(indexes)));
    std::vector<unsigned char> bytes(KXRULE_RULESET_BYTES(64));
    auto* const set = reinterpret_cast<PFW_RULESET*>(bytes.data());
    for (int32_t i = 0; i < count; ++i)
    {
        const int32_t rules = KX_DO(kxRuleGetRuleSet, indexes[i], set, 64);
        contents[std::to_string(indexes[i])] =
            SetText(KxCommon::Record::WideText(&set->wszName, 65), {KXRULE_RULES(set), KXRULE_RULES(set) + rules});
    }
    PFW_MACRO macros[8] = {};
    if (KX_DO(kxRuleGetMacro, static_cast<void*>(macros), static_cast<int32_t>(sizeof macros)) > 0)
        contents["m"] = macros[0].szName;
    Trace->Lines.erase(Trace->Lines.begin() + said, Trace->Lines.end());
    return contents;
}

// ----------------------------------------------------------------------------------------------------- the telling --

std::string Lives::Run(const std::string& script)
{
    s_Current = this;
    m_Wrong.clear();
    std::string told = Replaced(script, "life", "open; read");
    for (size_t at; (at = told.find("store")) != std::string::npos;)
    {
        told.insert(std::min(told.find(';', at), told.size()), "; macro; end");
        told.replace(at, 5, "open; add");
    }
    std::istringstream statements(told);
    for (std::string statement; m_Wrong.empty() && std::getline(statements, statement, ';');)
    {
        std::istringstream parts(statement);
        Words words{std::istream_iterator<std::string>(parts), {}};
        if (words.empty())
            continue;
        m_Told += statement + ';';
        std::optional<int32_t> expected = 0;
        if (words.back()[0] == '=')
        {
            expected = words.back() == "=any" ? std::nullopt : std::optional(std::stoi(words.back().substr(1)));
            words.pop_back();
        }
        const std::string name = words.front();
        words.erase(words.begin());
        const bool isForEach = name == "add" || name == "rule";
        for (const std::string& word : isForEach ? words : Words{""})
            Tell(name, isForEach ? Words{word} : words, expected);
    }
    std::string listing;
    for (const auto& [content, path] : m_Wrong.empty() ? Found() : Scan())
        listing += "\n    " + path.string().substr(Rules.size()) + ": " + content;
    return m_Wrong.empty() ? "" : m_Told + m_Wrong + listing;
}

void Lives::Tell(const std::string& name, const Words& words, std::optional<int32_t> expected)
{
    try
    {
        if (Check(name, words) || ByHand(name, words))
            return;
    }
    catch (const std::exception& error)
    {
        return expected ? Complain(error.what()) : void();
    }
    const bool isBegin = name == "read" || name == "open";
    if (m_IsHandled)
        m_Precious = Scan();
    m_IsHandled = false;
    if (isBegin)
        m_Successors.clear(), m_Changed.clear();
    const Contents before = Memory();
    const int32_t result = Call(name, words);
    Contents after = Memory();
    if (expected && result != *expected)
        Complain(name + " gives " + std::to_string(result));
    for (const auto& [slot, content] : before)
    {
        if (!isBegin && after[slot] != content)
            m_Successors[content] = after[slot];
    }
    static const std::set<std::string> onDisk = {"read", "write", "flush", "end", "delete"};
    if (onDisk.count(name) == 0)
    {
        for (const auto& [slot, content] : after)
        {
            if (before.count(slot) != 0 && before.at(slot) == content)
                continue;
            m_Given[slot] = content;
            m_Changed.insert(slot);
        }
        return;
    }
    const Found found = Scan();
    for (const std::string& slot : name == "write" && result == 0 ? m_Changed : std::set<std::string>())
    {
        if (!after[slot].empty() && !IsRescue(after[slot]))
            m_Precious.emplace(after[slot], "");
    }
    for (const auto& [content, path] : m_Precious)
    {
        if (!IsSafe(content, found))
            Complain("lost: " + content);
    }
    m_Precious = found;
}

bool Lives::IsSafe(const std::string& content, const Found& found) const
{
    if (found.count(content) != 0)
        return true;
    const auto successor = m_Successors.find(content);
    return successor != m_Successors.end() && (successor->second.empty() || IsSafe(successor->second, found));
}

bool Lives::Check(const std::string& name, const Words& words)
{
    Contents memory = Memory();
    if (name == "backups")
    {
        const auto isDirectory = [](const fs::directory_entry& entry) { return entry.is_directory(); };
        if (std::count_if(fs::directory_iterator(PathOf("RuleBackup")), {}, isDirectory) != std::stoi(words.at(0)))
            Complain("another number of backups");
    }
    if (name == "same" && ReadBytes(PathOf(words.at(0))) != ReadBytes(PathOf(words.at(1))))
        Complain("they differ");
    if (name == "gone" && fs::exists(PathOf(words.at(0))))
        Complain("it is there");
    if (name == "replaced" || name == "kept")
    {
        BY_HANDLE_FILE_INFORMATION info{};
        ::GetFileInformationByHandle(OpenExisting(PathOf(words.at(0)), kShareAll).get(), &info);
        const uint64_t number = uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
        if ((std::exchange(m_Numbers[words.at(0)], number) == number) != (name == "kept"))
            Complain("it is not " + name);
        return true;
    }
    if (name != "sets")
        return name == "backups" || name == "same" || name == "gone";
    for (std::string word : words)
    {
        const char mark = word.back();
        if (mark == '?' || mark == '~')
            word.pop_back();
        const std::string given = m_Given[word], content = memory[word];
        if (mark == '?' ? !IsRescue(content) : mark == '~' ? content.empty() : content != given)
            Complain("sets: " + word + " is '" + content + "', given was '" + given + '\'');
        memory.erase(word);
    }
    uint16_t active = 0;
    KX_DO(kxRuleGetActiveRuleSet, &active, 1);
    if (std::count(words.begin(), words.end(), "m") != 0 && std::to_string(active) != m_Given["m"])
        Complain("another active list");
    memory.erase("m");
    if (!memory.empty())
        Complain("also there: " + memory.begin()->first);
    return true;
}

// --------------------------------------------------------------------------------------------------- the directory --

fs::path Lives::PathOf(const std::string& word) const
{
    static const std::map<std::string, std::string> names = {
        {"mas", "KxRulMas.dat"}, {"mac", "KxRulMac.dat"}, {"vol", ".."}, {"base", "..\\.."}, {"away", "..\\..\\away"}};
    if (word == "odd")
        return fs::path(Rules) / L"KxRl\x0416.dat";
    if (const auto name = names.find(word); name != names.end())
        return Rules + name->second;
    char set[16];
    std::snprintf(set, sizeof set, "KxRl%04X.dat", static_cast<unsigned>(std::atoi(word.c_str())));
    return Rules + (std::isdigit(word[0]) != 0 ? set : word);
}

// What is complete below the rule directory, and where.
Lives::Found Lives::Scan() const
{
    Found found;
    if (!fs::is_directory(Rules))
        return found;
    for (const auto& entry : fs::recursive_directory_iterator(Rules))
    {
        if (!entry.is_regular_file() || entry.path().extension() == ".tmp")
            continue;
        const auto held = m_Held.find(entry.path());
        const bool isUnreadable = held != m_Held.end() && !held->second.Content.empty();
        const std::string text = isUnreadable ? held->second.Content : Decode(ReadBytes(entry.path()));
        if (!text.empty() && !IsRescue(text))
            found.emplace(text, entry.path());
    }
    return found;
}

bool Lives::ByHand(const std::string& name, const Words& words)
{
    static const std::string one = ReadBytes("tests/data/master.dat").substr(124, 20);
    const auto file = [&](size_t i) { return PathOf(words.at(i)); };
    const auto list = [&](uint16_t next, const std::string& macros, const Words& sets)
    {
        FileContent content;
        content.Master = {macros, next, {1}, sets};
        const std::vector<uint8_t> bytes = content.Write(FileContent::Kind::Master);
        WriteBytes(PathOf("mas"), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    };
    const std::map<std::string, std::function<void()>> statements = {
        {"release", [&] { Release(); }},
        {"hold", [&] { Hold(file(0), words.at(1), words.size() > 2 ? std::stoi(words[2]) : INT64_MAX); }},
        {"enter", [&] { fs::current_path(words.at(0) == "back" ? m_Home : file(0)); }},
        {"copy", [&] { fs::copy_file(file(0), file(1)); }},
        {"old", [&] { fs::copy_file("tests/data/ruleset-old.dat", file(0)); }},
        {"rename", [&] { fs::rename(file(0), file(1)); }},
        {"cut",
         [&] { fs::resize_file(file(0), words.size() > 1 ? std::stoul(words[1]) : fs::file_size(file(0)) - 1); }},
        {"attributes", [&] { ::SetFileAttributesW(file(0).c_str(), std::stoul(words.at(1))); }},
        {"remove",
         [&]
         {
             fs::remove_all(file(0));
             m_Numbers.erase(words.at(0)); // the next file may get the same
             if (words.at(0) == ".")
                 m_Told.clear(); // nothing before matters
         }},
        {"plain", [&] { WriteBytes(file(0), "no rule file"); }},
        {"folder", [&] { fs::create_directory(file(0)); }},
        {"scanner",
         [&]
         {
             m_Scanner = words.at(0);
             m_Refused.push_back(Redirect("GetTempFileNameA", reinterpret_cast<void*>(TemporaryName)));
         }},
        {"version", [&] { WriteBytes(file(0), ReadBytes(file(0)).replace(4, 20, one)); }},
        {"refuse", [&] { m_Refused.push_back(Redirect(words.at(0), reinterpret_cast<void*>(Refuse))); }},
        {"list",
         [&] {
             list(1, words.at(0), {words.begin() + 1, words.end()});
         }},
        {"forge",
         [&]
         {
             Words names;
             while (names.size() < std::stoul(words.at(0)))
                 names.push_back(PathOf(std::to_string(names.size() + 1)).filename().string());
             list(0, "KxRulMac.dat", names);
         }},
        {"flip",
         [&]
         {
             const fs::file_time_type time = fs::last_write_time(file(0));
             std::string bytes = ReadBytes(file(0));
             bytes.at(std::min<size_t>(std::stoul(words.at(1)), bytes.size() - 1)) ^= 1;
             WriteBytes(file(0), bytes);
             fs::last_write_time(file(0), time);
         }},
        {"touch", [&] { fs::last_write_time(file(0), fs::last_write_time(file(0)) + std::chrono::seconds(1)); }},
        {"ring", // the last takes the name of the first
         [&]
         {
             fs::rename(file(0), PathOf("aside"));
             for (size_t i = 1; i < words.size(); ++i)
                 fs::rename(file(i), file(i - 1));
             fs::rename(PathOf("aside"), file(words.size() - 1));
         }},
    };
    const auto statement = statements.find(name);
    if (statement == statements.end())
        return false;
    m_IsHandled = true;
    if (name != "release" && name != "hold")
        m_Changed.clear(); // what a write has put there may be gone
    statement->second();
    return true;
}

void Lives::Hold(const fs::path& file, const std::string& who, int64_t milliseconds)
{
    const std::string content = who == "none" ? Decode(ReadBytes(file)) : "";
    const DWORD share = who == "none" ? 0 : who == "read" ? FILE_SHARE_READ : kShareAll;
    KxCommon::UniqueFile handle =
        OpenExisting(file, share, who == "writer" ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ);
    if (!handle)
        throw std::runtime_error("cannot hold " + file.string());
    m_Held[file] = {std::move(handle), content, milliseconds};
}

void WINAPI Lives::PassTime(DWORD milliseconds)
{
    s_Time += milliseconds;
    for (auto& [file, held] : s_Current->m_Held)
        held.Left -= milliseconds;
    std::erase_if(s_Current->m_Held, [](const auto& held) { return held.second.Left <= 0; });
}

void Lives::Release()
{
    m_Held.clear();
    for (const auto& [at, from] : m_Refused)
        *at = from;
    m_Refused.clear();
}

// Replaces any function that returns 0 on failure.
BOOL WINAPI Lives::Refuse()
{
    ::SetLastError(ERROR_DISK_FULL);
    return FALSE;
}

UINT WINAPI Lives::TemporaryName(const char* directory, const char* prefix, UINT unique, char* path)
{
    const UINT result = ::GetTempFileNameA(directory, prefix, unique, path);
    if (result != 0)
        s_Current->Hold(path, s_Current->m_Scanner, 200);
    return result;
}

std::string Lives::Said(bool isBrief)
{
    std::string said;
    for (; m_Seen < Trace->Lines.size(); ++m_Seen)
    {
        const std::wstring& wide = Trace->Lines[m_Seen].Text;
        std::string line = Replaced({wide.begin(), wide.end()}, Rules, "DIR\\");
        for (const char* const prefix : {"Mas", "Mac", "Rul"})
            Mask(line, prefix, ".tmp");
        Mask(line, "succeeded (", ")");
        Mask(line, "RuleBackup\\", "");
        const size_t name = line.find(" <PfwRule> ");
        const size_t begin = name + 11, end = line.rfind(isBrief ? " - " : "(");
        said += (isBrief ? "" : line.substr(name - 3, 3) + ' ') + line.substr(begin, end - begin) + '\n';
    }
    return said;
}
