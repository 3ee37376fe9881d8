#include "tests/torture/crash/Story.h"

#include <sstream>

#include "common/srclib/KxComn_CriticalSection.h"
#include "persistence/Copies.h"
#include "persistence/Files.h"
#include "persistence/RuleFileNames.h"
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
        return Directory + (Number(i) != 0 ? RuleFiles::RuleSetFileName(Number(i)) : Rest.at(i));
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
        if (!words.Verb.empty() && !(m_IsOver && words.Verb != "die") && !Live(words))
            Interfere(words);
        if (!Surprises.empty() && Surprises.back().ends_with(':'))
            Surprises.back() += sentence;
    }
}

// What is done with the library.
bool Story::Live(const Words& w)
{
    const uint16_t number = w.Number(0);
    if (w.Verb == "unread" || w.Verb == "open")
    {
        m_Life.reset();
        m_Life = std::make_unique<Life>(m_Directory);
        if (w.Verb == "open")
            Expect(m_Life->Master.ReadAll(), w.Result(0));
        IsBlind = IsBlind || w.Verb == "unread" || Results.back() != 0;
    }
    else if (w.Verb == "die")
        m_Life.reset();
    else if (w.Verb == "stop")
    {
        Save(Now(), 0, false, [&] { return m_Life->Master.Finalize(); });
        m_Life.reset();
    }
    else if (w.Verb == "write")
        Save(Now(), w.Result(0), true, [&] { return m_Life->Master.WriteAll(); });
    else if (w.Verb == "flush")
        Save(Now(), 0, true, [&] { return m_Life->Master.FlushRule(); });
    else if (w.Verb == "tick")
        Save(Now(), 0, false, [&] { return CRuleMaster::CallbackFuncWriteTimeOut(&m_Life->Master), 0; });
    else if (w.Verb == "set")
        Expect(m_Life->AddSet(number, w.Rest.size() > 1 ? w.Number(1) : uint16_t{2}));
    else if (w.Verb == "rule")
        Expect(m_Life->AddRule(number, w.Number(1)));
    else if (w.Verb == "touch")
        for (const auto& set : Now().Sets)
            Expect(m_Life->AddRule(set.first, number));
    else if (w.Verb == "delete")
    {
        Content content = Contents.back(); // other changes wait for a write, but for the active list
        content.Active = Now().Active;
        content.Sets.erase(number);
        if (number == 0)
            content.Sets.clear();
        Save(content, 0, false, [&] { return m_Life->Master.DeleteRuleSet(number); });
    }
    else if (w.Verb == "macro")
        m_Life->Master.AddMacro(CMacro(w.Rest.at(0), {Build::Item("x")}));
    else if (w.Verb == "active")
    {
        std::vector<uint16_t> indexes;
        for (size_t i = 0; i < w.Rest.size(); ++i)
            indexes.push_back(w.Number(i));
        m_Life->Master.SetActiveRuleSet(indexes);
    }
    else if (w.Verb == "store")
    {
        Tell("open; macro given; active 1");
        for (uint16_t index = 1; index <= number; ++index)
            Expect(m_Life->AddSet(index, index));
        Tell("stop");
    }
    else
        return false;
    return true;
}

// What others do to the files.
void Story::Interfere(const Words& w)
{
    const auto move = [this](const std::string& from, const std::string& to)
    { Expect(Files::Move(from.c_str(), to.c_str(), false) ? 0 : 1); };
    if (w.Verb == "rename")
        move(w.Path(0), w.Path(1));
    else if (w.Verb == "swap")
    {
        move(w.Path(0), m_Directory + "aside");
        move(w.Path(1), w.Path(0));
        move(m_Directory + "aside", w.Path(1));
    }
    else if (w.Verb == "copy")
        PutFile(w.Path(1), ReadFile(w.Path(0)));
    else if (w.Verb == "erase")
        Expect(Files::Delete(w.Path(0).c_str()) ? 0 : 1);
    else if (w.Verb == "cut")
        PutFile(w.Path(0), ReadFile(w.Path(0)).substr(0, w.Number(1)));
    else if (w.Verb == "old")
        PutFile(w.Path(0), ReadFile(w.Path(0)).replace(FileFormat::kMagicBytes, OldVersion().size(), OldVersion()));
    else if (w.Verb == "backup")
    {
        const RuleDirectory store = At(m_Directory);
        std::vector<std::string> names;
        std::string backup, failed;
        m_IsOver = !store.FindFiles(names) || !Copies::CopyToBackup(store, names, backup, failed);
        Expect(m_IsOver ? 1 : 0);
    }
    else if (w.Verb == "restore")
        Restore();
    else if (w.Verb == "letgo")
    {
        m_Holders.clear();
        g_Room.Held.clear();
    }
    else
    {
        static const std::map<std::string, DWORD> shares = {
            {"hold", 0}, {"share", FILE_SHARE_READ}, {"lend", FILE_SHARE_READ | FILE_SHARE_DELETE}};
        const DWORD share = shares.at(w.Verb);
        if (g_Room.IsReal)
            m_Holders.emplace_back(::CreateFileA(w.Path(0).c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING,
                                                 FILE_ATTRIBUTE_NORMAL, nullptr));
        g_Room.Held[g_Room.Now.NumberFor(w.Path(0))] = share;
    }
}

void Story::Restore()
{
    const RuleDirectory store = At(m_Directory);
    const std::vector<Copies::Dated> backups = Copies::FindBackups(store);
    m_IsOver = backups.empty();
    if (m_IsOver)
        return Expect(1);
    const RuleDirectory backup = At(m_Directory + backups.back().Name);
    Story copy(backup.Path());
    copy.Tell("open");
    m_IsOver = !copy.Surprises.empty() || g_Room.Calls.HasFailed(); // it restores no damaged copy
    if (m_IsOver)
        return Expect(1);
    std::vector<std::string> names;
    std::string failed;
    Save(copy.Now(), 0, true,
         [&] { return backup.FindFiles(names) && Copies::PutFiles(backup, store, names, failed) ? 0 : 1; });
}

void Story::Expect(int32_t result, int32_t expected)
{
    Results.push_back(result);
    if (result != expected)
        Surprises.push_back(std::to_string(result) + " from:");
}

void Story::Save(const Content& content, int32_t expected, bool isTold, const std::function<int32_t()>& call)
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

} // namespace Crash
