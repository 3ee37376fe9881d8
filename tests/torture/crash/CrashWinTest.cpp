// Every state that a crash or a power loss can leave: a scenario is recorded once, each state is reconstructed, read
// and written to, and compared with what callers had been told. docs/recovery.md, "Crash states".
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

#include "api/include/KxPfwRule.h"
#include "persistence/FileFormat.h"
#include "tests/support/MemoryStream.h"
#include "tests/support/TempDir.h"
#include "tests/torture/crash/Check.h"

using namespace Crash;

namespace
{

constexpr Model kModels[] = {Model::Kill, Model::Journal, Model::Reorder};
constexpr const char* kModelNames[] = {"kill", "journal", "reorder"};

const struct Scenario
{
    const char* Name;
    const char* Given;    // what lies there before
    const char* Act;      // what is cut off
    bool MayMove = false; // damage was given: sets may be rescue sets, or wait in RuleBackup
} kScenarios[] = {
    {"first write", "", "open; set 1; set 0; macro m; active 1; write"},
    {"one rule", "store 3", "open; rule 2 9; write"},
    {"all sets", "store 3", "open; touch 9; write"},
    {"add", "store 3", "open; set 0; write; set 7; stop"},
    {"delete", "store 3", "open; delete 2; rule 3 9; delete 1; write"},
    {"delete all", "store 3", "open; delete 0; set 0; stop"},
    {"macros", "store 3", "open; macro more; write; macro most; flush"},
    {"active list", "store 3", "open; active 3 2; write; active; stop"},
    {"several in one write", "store 3", "open; rule 1 9; set 9; macro more; active 9; delete 2; write"},
    {"reuse of an index", "store 3", "open; delete 2; set 2 5; write"},
    {"rename by delete and add", "store 3", "open; set 9; write; delete 2; stop"},
    {"exchanged names", "store 3; swap 1 2", "open; rule 1 9; write; rule 2 9; stop"},
    {"three names in a ring", "store 4; swap 1 2; swap 2 3", "open; rule 1 9; write"},
    {"foreign name",
     "store 3; open; set 7; stop; copy 7 aside; open; delete 7; die; rename aside moved; erase 3; rename moved 3",
     "open; set 3; write; rule 7 9; stop"},
    {"after a rescue", "store 3; cut 2 3000", "open; rule 2 9; write; delete 2", true},
    {"after a damaged master", "store 3; cut KxRulMas.dat 200", "open; set 0; write; open", true},
    {"after a missing master", "store 3; erase KxRulMas.dat", "open; set 2; write", true},
    {"old version", "store 3; old 2", "open; rule 2 9; write; rule 2 10; write"},
    {"write after a failed read", "store 3; cut KxRulMac.dat 60", "open -10056; set 2; write", true},
    {"write without a read", "store 3", "unread; set 2; write", true},
    {"leftovers of an earlier crash", "store 3; copy 1 Rul1.tmp; cut Rul1.tmp 5000; copy 3 4", "open; set 4; write"},
    {"held targets", "store 3",
     "open; touch 9; share 2; write -10057; letgo; hold KxRulMas.dat; write -10057; letgo; write"},
    {"targets that can be renamed", "store 3",
     "open; touch 9; lend 2; lend KxRulMas.dat; macro more; active; write; letgo", true},
    {"timer", "store 3", "open; rule 1 9; tick; delete 3; set 8; tick"},
    {"kxrule import", "store 3", "backup; open; rule 1 9; set 9; macro more; active 9; write; delete 2; write"},
    {"kxrule delete-set", "store 3", "backup; open; active 1; write; delete 2; write"},
    {"kxrule restore", "store 3; backup; open; rule 1 9; delete 2; set 9; stop", "backup; restore"},
    {"kxrule undo", "store 3; backup; open; touch 9; macro more; active 3; stop", "backup; restore"},
    {"kxrule tidy", "store 3; copy 2 aside; open; delete 2; die; rename aside 2; copy 1 Rul1.tmp",
     "backup; erase Rul1.tmp; erase 2"},
};

void ClearRoom(bool isReal = false)
{
    g_Room = {};
    g_Room.IsReal = isReal;
    g_Room.Now.Do({Step::Kind::MakeDirectory, "M:\\store"});
}

/// Without an act: a life that changes everything and writes.
Recording Record(Disk base, const Scenario& scenario)
{
    Recording recording;
    recording.MayMove = scenario.MayMove;
    recording.Base = std::move(base);
    ClearRoom();
    g_Room.Now = recording.Base;
    Story before(kDirectory);
    before.Tell("open");
    recording.ReadResult = before.Results.back();
    g_Room.Now = recording.Base;
    g_Room.Steps.clear();
    Story story(kDirectory);
    story.Contents = {before.Now()};
    story.Tell((scenario.Act != nullptr
                    ? scenario.Act
                    : "open " + std::to_string(recording.ReadResult) + "; touch 600; set 0; macro later; write") +
               std::string("; die"));
    EXPECT_EQ(story.Surprises, std::vector<std::string>()) << scenario.Name;
    recording.Steps = g_Room.Steps;
    recording.Contents = story.Contents;
    recording.IsBlind = story.IsBlind;
    for (const auto& [path, file] : recording.Base.Names)
    {
        if (file != Disk::kDirectory && !path.ends_with(".tmp") &&
            (story.IsBlind ||
             (IsRuleSetFile(path) && !HoldsSet(story.Contents[0], Records(recording.Base.Files[file])))))
            recording.Hidden[path] = recording.Base.Files[file];
    }
    // An interrupted copy, whose source still exists, is made again.
    std::erase_if(recording.Hidden,
                  [&](const auto& copy)
                  {
                      const std::string& path = copy.first;
                      const size_t name = path.rfind('\\') + 1;
                      return path.ends_with(".brk") && Records(copy.second).empty() &&
                             recording.Hidden.count(kDirectory + path.substr(name, path.size() - name - 4)) != 0;
                  });
    return recording;
}

Recording Record(const Scenario& scenario)
{
    ClearRoom();
    Story given(kDirectory);
    given.Tell(scenario.Given);
    EXPECT_EQ(given.Surprises, std::vector<std::string>()) << scenario.Name;
    return Record(g_Room.Now, scenario);
}

/// What a campaign found.
struct Row
{
    size_t Enumerated = 0, Distinct = 0, Lost = 0, Moved = 0;
    std::string FirstLoss = {};

    void Tell(const std::string& name) const
    {
        std::printf("crash | %s | %zu | %zu | %zu | %zu |\n", name.c_str(), Enumerated, Distinct, Lost, Moved);
        EXPECT_EQ(Lost, 0u) << name << ": " << FirstLoss;
    }
};

/// Of a state and of what else decides about its check.
size_t Digest(const State& state, const std::vector<Content>& contents)
{
    size_t digest = state.Acknowledged * 1000 + state.Attempted;
    const auto add = [&](const std::string& text)
    { digest = digest * 1099511628211u ^ std::hash<std::string>()(text); };
    for (const auto& [path, file] : state.Left.Names)
    {
        add(path);
        add(file == Disk::kDirectory ? "" : state.Left.Files.at(file));
    }
    for (const Content& content : contents)
    {
        for (const auto& [index, set] : content.Sets)
            add(std::to_string(index) + set);
        add(content.Macros);
        add({content.Active.begin(), content.Active.end()});
    }
    return digest;
}

/// All states of a recording, each content looked at once.
class Campaign
{
public:
    explicit Campaign(const Recording& recording) : m_Recording(recording) {}

    std::vector<Disk> States; // that were looked at

    /// Adds to the row. Twice: the reads that find these states are cut off as well.
    Row Run(Model model, bool isTwice = false, Row row = {})
    {
        m_Seen.clear();
        Visit(model, m_Recording.Base, m_Recording.Steps, {}, row, isTwice);
        return row;
    }

private:
    void Visit(Model model, const Disk& base, const std::vector<Step>& steps, const State& from, Row& row, bool isTwice)
    {
        const auto look = [&](const State& state)
        {
            ++row.Enumerated;
            const size_t digest = Digest(state, {});
            if (!m_Seen.insert(digest).second)
                return;
            ++row.Distinct;
            auto known = m_Checks.find(digest);
            if (known == m_Checks.end())
            {
                known = m_Checks.emplace(digest, Check(m_Recording, state)).first;
                States.push_back(state.Left);
            }
            const Outcome& verdict = known->second;
            row.Moved += verdict.IsMoved ? 1 : 0;
            if (!verdict.Lost.empty() && row.Lost++ == 0)
                row.FirstLoss =
                    verdict.Lost + " (" + kModelNames[static_cast<int>(model)] + ") when " +
                    std::to_string(state.Done) + " of " + std::to_string(steps.size()) +
                    " steps are done, the last: " + (state.Done == 0 ? "none" : steps[state.Done - 1].Text()) + "; " +
                    state.Missing;
            if (isTwice && !verdict.ReadSteps.empty())
                Visit(model, state.Left, verdict.ReadSteps, state, row, false);
        };
        Enumerate(model, base, steps, from, look);
    }

    const Recording& m_Recording;
    std::map<size_t, Outcome> m_Checks; // by digest
    std::set<size_t> m_Seen;
};

/// Not the short form: scripts/torture.py wants every number.
bool IsWhole()
{
    return std::getenv("KX_TORTURE_SECONDS") != nullptr;
}

/// Whether something is backed up before anything is written.
bool KeepsFirst(const std::vector<Step>& steps)
{
    const auto is = [](const Step& step)
    { return step.What == Step::Kind::Attempt || step.What == Step::Kind::MakeDirectory; };
    const auto first = std::find_if(steps.begin(), steps.end(), is);
    return first != steps.end() && first->What == Step::Kind::MakeDirectory;
}

} // namespace

TEST(CrashTest, NoStateLosesARule)
{
    const size_t every = IsWhole() ? 1 : 20; // of the next writes
    for (const Scenario& scenario : kScenarios)
    {
        const Recording recording = Record(scenario);
        Campaign campaign(recording);
        for (const bool isTwice : {false, true})
        {
            for (const Model model : kModels)
            {
                campaign.Run(model, isTwice)
                    .Tell(std::string(scenario.Name) + " | " + kModelNames[static_cast<int>(model)] +
                          (isTwice ? ", twice" : ""));
            }
        }
        // The life that finds such a state writes, and is cut off in that.
        Row all;
        for (size_t i = 0; i < campaign.States.size(); i += every)
        {
            const Recording later = Record(campaign.States[i], {scenario.Name, "", nullptr, scenario.MayMove});
            Campaign after(later);
            for (const Model model : kModels)
                all = after.Run(model, false, all);
        }
        all.Tell(std::string(scenario.Name) + " | the next write");
    }
}

// A library with such a fault would be detected, so its absence is proved.
TEST(CrashTest, PlantedFaultsAreFound)
{
    std::vector<Recording> recordings;
    for (const Scenario& scenario : kScenarios)
        recordings.push_back(Record(scenario));
    for (const char* const fault :
         {"flush dropped", "flush after the move", "written in place", "deleted before the move",
          "master before the set", "copy kept after the overwrite"})
    {
        size_t lost[std::size(kModels)] = {}, finders = 0;
        for (Recording recording : recordings)
        {
            if (finders > 1 && !IsWhole())
                break;
            recording.Steps = Plant(fault, recording.Base, recording.Steps);
            Campaign campaign(recording);
            const size_t before = lost[0] + lost[1] + lost[2];
            for (const Model model : kModels)
                lost[static_cast<int>(model)] += campaign.Run(model).Lost;
            finders += lost[0] + lost[1] + lost[2] != before ? 1 : 0;
        }
        std::printf("planted | %s | %zu | %zu | %zu | %zu of %zu |\n", fault, lost[0], lost[1], lost[2], finders,
                    recordings.size());
        EXPECT_NE(finders, 0u) << fault;
    }
}

// The system refuses a call, or one and all later ones; going on as if nothing had happened must not lose anything
// either.
TEST(CrashTest, NoRefusedCallLosesARule)
{
    for (const Scenario& scenario : kScenarios)
    {
        const Recording plain = Record(scenario);
        size_t tries = 0;
        std::set<std::pair<size_t, bool>> seen;
        for (const DWORD error :
             {ERROR_DISK_FULL, ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_CRC, ERROR_NOT_ENOUGH_MEMORY})
        {
            for (const bool isForGood : {false, true})
            {
                bool hasFailed = true;
                for (uint32_t call = 1; hasFailed; ++call, ++tries)
                {
                    ClearRoom();
                    g_Room.Now = plain.Base;
                    g_Room.Calls = {0, call, isForGood, error};
                    Story story(kDirectory);
                    story.Contents = {plain.Contents[0]};
                    story.Tell(std::string(scenario.Act) + "; die");
                    EXPECT_EQ(g_Room.OpenFiles(), 0u);
                    EXPECT_LT(g_Room.Calls.Calls, Room::kMostCalls)
                        << scenario.Name << ", error " << error << " from call " << call;
                    hasFailed = g_Room.Calls.HasFailed();
                    g_Room.Calls = {};
                    Recording recording = plain;
                    recording.Contents = story.Contents;
                    recording.Wanted = plain.Contents;
                    recording.MayMove = true;
                    recording.IsBlind = plain.IsBlind || story.IsBlind;
                    const bool isKept = KeepsFirst(g_Room.Steps) && !KeepsFirst(plain.Steps);
                    const State state{g_Room.Now, 0, story.Acknowledged, story.Contents.size() - 1, ""};
                    EXPECT_FALSE(isKept && error == ERROR_NOT_ENOUGH_MEMORY && !isForGood && !plain.MayMove)
                        << "taken for damage: " << scenario.Name << ", call " << call;
                    if (!seen.emplace(Digest(state, story.Contents), recording.IsBlind).second)
                        continue; // most refusals end alike
                    const Check check(recording, state);
                    EXPECT_EQ(check.Lost, "") << scenario.Name << ", error " << error << " of call " << call
                                              << (isForGood ? " and all after it" : "");
                }
            }
        }
        std::printf("refused | %s | %zu | %zu |\n", scenario.Name, tries, seen.size());
    }
}

// Files are truncated, bits flipped, numbers replaced, records taken from other files: what was not damaged must not be
// lost.
TEST(CrashTest, NoDamageReachesAnotherFile)
{
    const Recording plain = Record({"damage", "store 2", "open", true});
    size_t tries = 0;
    const auto look = [&](const std::string& path, const std::string& damaged, const std::string& how)
    {
        Recording recording = plain;
        recording.IsBlind = recording.IsDamaged = true;
        recording.Hidden = {{path, damaged}};
        State state{plain.Base, 0, 0, 0, ""};
        std::string& file = state.Left.Files[state.Left.Names.at(path)];
        const std::string good = std::exchange(file, damaged);
        std::erase_if(recording.Contents[0].Sets, [&](const auto& set) { return set.second == Records(good); });
        if (recording.Contents[0].Macros == Records(good))
            recording.Contents[0].Macros.clear();
        EXPECT_EQ(Check(recording, state).Lost, "") << path << ' ' << how;
        ++tries;
    };
    for (const auto& [path, number] : plain.Base.Names)
    {
        const std::string good = number == Disk::kDirectory ? "" : plain.Base.Files.at(number);
        for (size_t at = 0; at < good.size(); at += at < 300 ? 1 : 61)
        {
            look(path, good.substr(0, at), "cut at " + std::to_string(at));
            std::string damaged = good;
            damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
            look(path, damaged, "flipped at " + std::to_string(at));
        }
        for (size_t at = FileFormat::kMagicBytes; at < good.size(); at += 20)
        {
            for (const uint32_t value : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
            {
                MemoryStream record;
                static_cast<void>(record.WriteU32(value).Finish());
                std::string damaged = good;
                look(path, damaged.replace(at, 4, reinterpret_cast<const char*>(&value), 4),
                     "length at " + std::to_string(at));
                look(path, std::string(good).replace(at, 20, std::string(record.Data.begin(), record.Data.end())),
                     "number at " + std::to_string(at));
            }
            for (const auto& [from, other] : plain.Base.Files)
                for (size_t start = FileFormat::kMagicBytes; start < std::min<size_t>(other.size(), 200); start += 20)
                    look(path, std::string(good).replace(at, 20, other, start, 20), "record at " + std::to_string(at));
            if (at > 200)
                break;
        }
    }
    std::printf("damaged | %zu |\n", tries);
}

// The same scenarios on the system's disk: the same results, and the same files in the end.
TEST(CrashTest, TheDiskInMemoryIsAsTheSystemsDisk)
{
    using Tree = std::multimap<std::string, size_t>; // numbers of temporary files and dates of backups left out
    const auto add = [](Tree& tree, std::string path, const std::string& content)
    {
        const auto end = path.ends_with(".tmp") ? path.end() : path.begin() + static_cast<ptrdiff_t>(path.rfind('\\'));
        const auto isDigit = [](unsigned char unit) { return std::isxdigit(unit) != 0 || unit == '-'; };
        path.erase(std::remove_if(path.begin(), end, isDigit), end);
        tree.emplace(path, std::hash<std::string>()(content));
    };
    for (const Scenario& scenario : kScenarios)
    {
        const TempDir directory;
        Tree trees[2];
        std::vector<int32_t> results[2];
        for (const bool isReal : {false, true})
        {
            ClearRoom(isReal);
            const std::string path = isReal ? directory.Path().string() + '\\' : kDirectory;
            Story story(path);
            story.Tell(std::string(scenario.Given) + ';' + scenario.Act + "; die");
            results[isReal] = story.Results;
            for (const auto& [name, file] : g_Room.Now.Names)
                if (file != Disk::kDirectory)
                    add(trees[0], name.substr(path.size() - 1), g_Room.Now.Files[file]);
            if (isReal)
                for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.Path()))
                    if (entry.is_regular_file())
                        add(trees[1], entry.path().string().substr(path.size() - 1), ReadBytes(entry.path()));
        }
        g_Room.IsReal = false;
        EXPECT_EQ(results[0], results[1]) << scenario.Name;
        EXPECT_EQ(trees[0], trees[1]) << scenario.Name;
    }
}
