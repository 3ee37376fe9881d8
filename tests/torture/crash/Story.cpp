#include "tests/torture/crash/Story.h"

#include <cstdio>
#include <sstream>

#include "common/srclib/KxComn_CriticalSection.h"
#include "persistence/Copies.h"
#include "persistence/Files.h"
#include "repository/RuleMaster.h"
#include "tests/support/FileContent.h"
#include "tests/support/RecordBuilder.h"

namespace Crash
{

namespace
{

template <class Bytes>
[[nodiscard]] std::string Text(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// The record of the version whose rules are not read.
[[nodiscard]] std::string OldVersion()
{
    MemoryStream stream;
    static_cast<void>(stream.WriteU32(FileFormat::kOldVersion).Finish());
    return Text(stream.Data);
}

[[nodiscard]] RuleDirectory At(const std::string& path)
{
    RuleDirectory directory;
    directory.Locate(path, FileFormat::kMasterFileName);
    return directory;
}

} // namespace

std::string RecordsIn(const std::string& file)
{
    if (file.size() > FileFormat::kMagicBytes &&
        file.compare(FileFormat::kMagicBytes, OldVersion().size(), OldVersion()) == 0)
        return {}; // more than the head of it is not read
    FileContent content;
    MemoryStream stream({file.begin(), file.end()});
    stream.Rewind();
    if (content.Read(FileKind::RuleSet, stream).empty())
        return Text(Build::RuleSet(content.Set.Index, content.Set.Name, content.Rules).Bytes());
    stream.Rewind();
    if (!content.Read(FileKind::Macros, stream).empty())
        return {};
    std::string records;
    for (const MacroFields& fields : content.Macros)
    {
        const CMacro macro(fields.Name, fields.Items);
        std::string record(macro.RecordBytes(), '\0');
        macro.CopyRecord(record.data());
        records += record;
    }
    return records;
}

bool IsRescue(const std::string& set)
{
    constexpr std::wstring_view kName = L"This is a rescue RuleSet";
    return set.size() > 2 + kName.size() * 2 && std::memcmp(&set[2], kName.data(), kName.size() * 2) == 0;
}

// One process with the library in it. (Changes come without the outer lock: there is one thread, and an interrupted
// life would never release it.)
struct Story::Life
{
    explicit Life(const std::string& directory) { static_cast<void>(Master.Init(directory, nullptr)); }
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    int32_t AddSet(uint16_t index, uint16_t rules)
    {
        std::vector<PFW_RULE> records;
        while (records.size() < rules)
            records.push_back(Build::Access(static_cast<uint16_t>(records.size() + 1)));
        CRuleSet set(*Build::RuleSet(index, L"set", records));
        return Master.AddRuleSet(index, set);
    }
    int32_t AddRule(uint16_t set, uint16_t rule) { return Master.AddRule(set, rule, CRule(Build::Access(rule))); }

    CCriticalSectionLock Outer{KxCommon::Synchronize::LockRank::Global};
    CRuleMaster Master{Outer};
};

struct Story::Words
{
    std::string Verb, Directory;
    std::vector<std::string> Rest;

    [[nodiscard]] int32_t Result(size_t i) const { return i < Rest.size() ? std::atoi(Rest[i].c_str()) : 0; }
    [[nodiscard]] uint16_t Number(size_t i) const { return static_cast<uint16_t>(Result(i)); }
    [[nodiscard]] std::string Path(size_t i) const
    {
        char name[32] = "";
        std::snprintf(name, sizeof name, "KxRl%04X.dat", static_cast<unsigned>(Number(i)));
        return Directory + (Number(i) != 0 ? name : Rest.at(i));
    }
};

Story::Story(std::string directory) : m_Directory(std::move(directory)) {}

Story::~Story() = default;

Content Story::Now() const
{
    Content content;
    const CRuleMaster& master = m_Life->Master;
    const KxCommon::Synchronize::ScopedLock<CCriticalSectionLock> guard(m_Life->Outer);
    const ReadToken token(guard);
    std::vector<uint16_t> indexes(static_cast<size_t>(master.GetRuleSetIndex(token, nullptr, 0)));
    static_cast<void>(master.GetRuleSetIndex(token, indexes.data(), static_cast<int32_t>(indexes.size())));
    for (const uint16_t index : indexes)
    {
        const int32_t count = master.GetRuleSet(token, index, nullptr, 0);
        std::string& set = content.Sets[index];
        set.resize(KXRULE_RULESET_BYTES(count));
        static_cast<void>(master.GetRuleSet(token, index, reinterpret_cast<PFW_RULESET*>(set.data()), count));
    }
    content.Macros.resize(static_cast<size_t>(master.GetMacro(token, nullptr, 0)));
    static_cast<void>(master.GetMacro(token, content.Macros.data(), static_cast<int32_t>(content.Macros.size())));
    content.Active.resize(static_cast<size_t>(master.GetActiveRuleSet(token, nullptr, 0)));
    static_cast<void>(
        master.GetActiveRuleSet(token, content.Active.data(), static_cast<int32_t>(content.Active.size())));
    return content;
}

void Story::Tell(const std::string& sentences)
{
    std::istringstream all(sentences);
    for (std::string sentence; std::getline(all, sentence, ';');)
    {
        std::istringstream one(sentence);
        Words words{"", m_Directory, {}};
        one >> words.Verb;
        for (std::string word; one >> word;)
            words.Rest.push_back(word);
        if (!words.Verb.empty() && !(m_IsOver && words.Verb != "die"))
            Do(words);
        if (!Surprises.empty() && Surprises.back().ends_with(':'))
            Surprises.back() += sentence;
    }
}

void Story::Do(const Words& words)
{
    using Act = void (*)(Story&, const Words&);
    static const std::map<std::string, Act> s_Verbs = {
        {"unread",
         [](Story& s, const Words& w)
         {
             s.m_Life.reset();
             s.m_Life = std::make_unique<Life>(w.Directory);
             s.IsBlind = true;
         }},
        {"open",
         [](Story& s, const Words& w)
         {
             const bool wasBlind = s.IsBlind;
             s.Tell("unread");
             const int32_t result = s.m_Life->Master.ReadAll();
             s.IsBlind = wasBlind || result != 0;
             s.Expect(result, w.Result(0));
         }},
        {"die", [](Story& s, const Words&) { s.m_Life.reset(); }},
        {"stop",
         [](Story& s, const Words&)
         {
             s.Save(
                 s.Now(), [&] { return s.m_Life->Master.Finalize(); }, 0, false);
             s.m_Life.reset();
         }},
        {"write",
         [](Story& s, const Words& w)
         {
             s.Save(
                 s.Now(), [&] { return s.m_Life->Master.WriteAll(); }, w.Result(0));
         }},
        {"flush", [](Story& s, const Words&) { s.Save(s.Now(), [&] { return s.m_Life->Master.FlushRule(); }); }},
        {"tick",
         [](Story& s, const Words&)
         {
             const auto tick = [&]
             {
                 CRuleMaster::CallbackFuncWriteTimeOut(&s.m_Life->Master);
                 return 0;
             };
             s.Save(s.Now(), tick, 0, false);
         }},
        {"set", [](Story& s, const Words& w)
         { s.Expect(s.m_Life->AddSet(w.Number(0), w.Rest.size() > 1 ? w.Number(1) : uint16_t{2})); }},
        {"rule", [](Story& s, const Words& w) { s.Expect(s.m_Life->AddRule(w.Number(0), w.Number(1))); }},
        {"touch",
         [](Story& s, const Words& w)
         {
             for (const auto& set : s.Now().Sets)
                 s.Expect(s.m_Life->AddRule(set.first, w.Number(0)));
         }},
        {"delete",
         [](Story& s, const Words& w)
         {
             Content content = s.Contents.back(); // other changes wait for a write, but for the active list
             content.Active = s.Now().Active;
             content.Sets.erase(w.Number(0));
             if (w.Number(0) == 0)
                 content.Sets.clear();
             s.Save(
                 content, [&] { return s.m_Life->Master.DeleteRuleSet(w.Number(0)); }, 0, false);
         }},
        {"macro",
         [](Story& s, const Words& w) { s.m_Life->Master.AddMacro(CMacro(w.Rest.at(0), {Build::Item("x")})); }},
        {"active",
         [](Story& s, const Words& w)
         {
             std::vector<uint16_t> indexes;
             for (size_t i = 0; i < w.Rest.size(); ++i)
                 indexes.push_back(w.Number(i));
             s.m_Life->Master.SetActiveRuleSet(indexes);
         }},
        {"store",
         [](Story& s, const Words& w)
         {
             s.Tell("open; macro given; active 1");
             for (uint16_t index = 1; index <= w.Number(0); ++index)
                 s.Expect(s.m_Life->AddSet(index, index));
             s.Tell("stop");
         }},
        {"rename", [](Story& s, const Words& w) { s.Rename(w.Path(0), w.Path(1)); }},
        {"swap",
         [](Story& s, const Words& w)
         {
             s.Rename(w.Path(0), w.Directory + "aside");
             s.Rename(w.Path(1), w.Path(0));
             s.Rename(w.Directory + "aside", w.Path(1));
         }},
        {"copy", [](Story& s, const Words& w) { s.PutFile(w.Path(1), s.ReadFile(w.Path(0))); }},
        {"backup",
         [](Story& s, const Words& w)
         {
             const RuleDirectory store = At(w.Directory);
             std::vector<std::string> names;
             std::string backup, failed;
             const bool isDone = store.FindFiles(names) && Copies::CopyToBackup(store, names, backup, failed);
             s.Expect(isDone ? 0 : 1);
             s.m_IsOver = !isDone;
         }},
        {"restore",
         [](Story& s, const Words& w)
         {
             const RuleDirectory store = At(w.Directory);
             const std::vector<Copies::Dated> backups = Copies::FindBackups(store);
             s.m_IsOver = backups.empty();
             if (s.m_IsOver)
                 return s.Expect(1);
             const RuleDirectory backup = At(w.Directory + backups.back().Name);
             Story copy(backup.Path());
             copy.Tell("open");
             s.m_IsOver = !copy.Surprises.empty() || g_Room.Calls.HasFailed(); // it restores no damaged copy
             if (s.m_IsOver)
                 return s.Expect(1);
             std::vector<std::string> names;
             std::string failed;
             const auto put = [&]
             { return backup.FindFiles(names) && Copies::PutFiles(backup, store, names, failed) ? 0 : 1; };
             s.Save(copy.Now(), put);
         }},
        {"erase", [](Story& s, const Words& w) { s.Expect(Files::Delete(w.Path(0).c_str()) ? 0 : 1); }},
        {"cut", [](Story& s, const Words& w) { s.PutFile(w.Path(0), s.ReadFile(w.Path(0)).substr(0, w.Number(1))); }},
        {"old",
         [](Story& s, const Words& w)
         {
             std::string content = s.ReadFile(w.Path(0));
             content.replace(FileFormat::kMagicBytes, OldVersion().size(), OldVersion());
             s.PutFile(w.Path(0), content);
         }},
        {"hold", [](Story& s, const Words& w) { s.Hold(w.Path(0), 0); }},
        {"share", [](Story& s, const Words& w) { s.Hold(w.Path(0), FILE_SHARE_READ); }},
        {"lend", [](Story& s, const Words& w) { s.Hold(w.Path(0), FILE_SHARE_READ | FILE_SHARE_DELETE); }},
        {"letgo",
         [](Story& s, const Words&)
         {
             s.m_Holders.clear();
             g_Room.Held.clear();
         }},
    };
    s_Verbs.at(words.Verb)(*this, words);
}

void Story::Expect(int32_t result, int32_t expected)
{
    Results.push_back(result);
    if (result != expected)
        Surprises.push_back(std::to_string(result) + " from:");
}

void Story::Save(const Content& content, const std::function<int32_t()>& call, int32_t expected, bool isTold)
{
    Contents.push_back(content);
    const int number = static_cast<int>(Contents.size() - 1);
    g_Room.Do({Step::Kind::Attempt, {}, {}, number});
    const int32_t result = call();
    Expect(result, expected);
    if (result != 0 || (!isTold && g_Room.Calls.HasFailed()))
        return;
    Acknowledged = Contents.size() - 1;
    g_Room.Do({Step::Kind::Acknowledge, {}, {}, number});
}

std::string Story::ReadFile(const std::string& path) const
{
    KxCommon::UniqueFile file = Files::Open(path.c_str(), GENERIC_READ, OPEN_EXISTING);
    uint64_t size = 0;
    uint32_t got = 0;
    static_cast<void>(Files::Size(file.get(), &size));
    std::string content(size, '\0');
    static_cast<void>(Files::Read(file.get(), content.data(), static_cast<uint32_t>(size), &got));
    Files::Close(file);
    return content;
}

void Story::PutFile(const std::string& path, const std::string& content) const
{
    KxCommon::UniqueFile file = Files::Open(path.c_str(), GENERIC_WRITE, CREATE_ALWAYS);
    static_cast<void>(Files::Write(file.get(), content.data(), static_cast<uint32_t>(content.size())));
    Files::Close(file);
}

void Story::Rename(const std::string& from, const std::string& to)
{
    Expect(Files::Move(from.c_str(), to.c_str(), false) ? 0 : 1);
}

void Story::Hold(const std::string& path, DWORD share)
{
    if (g_Room.IsReal)
        m_Holders.emplace_back(
            ::CreateFileA(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    g_Room.Held[g_Room.Now.NumberFor(path)] = share;
}

} // namespace Crash
