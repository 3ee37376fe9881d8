// What a state must hold, and what must become of it when the library goes on from there.
#pragma once

#include <algorithm>
#include <set>
#include <utility>

#include "api/include/KxPfwRule.h"
#include "persistence/RuleFileNames.h"
#include "tests/torture/crash/Models.h"
#include "tests/torture/crash/Story.h"

namespace Crash
{

inline constexpr char kDirectory[] = "M:\\store\\";

/// A scenario with all that was done to the disk.
struct Recording
{
    Disk Base;
    std::vector<Step> Steps;
    std::vector<Content> Contents;             // the first is what the base holds
    std::map<std::string, std::string> Hidden; // files of the base that hold more than memory did
    bool MayMove = false, IsBlind = false, IsDamaged = false;
    int32_t ReadResult = 0;           // of the base
    std::vector<Content> Wanted = {}; // of a run in which a call was refused: the contents without that
};

inline bool IsRuleSetFile(const std::string& path)
{
    return path.substr(path.rfind('\\') + 1).starts_with("KxRl");
}

// RecordsIn with a cache: the same files recur.
inline const std::string& Records(const std::string& file)
{
    static std::map<size_t, std::string> s_Known; // by digest
    const auto [entry, isNew] = s_Known.try_emplace(std::hash<std::string>()(file));
    if (isNew)
        entry->second = RecordsIn(file);
    return entry->second;
}

template <class Values, class Is>
[[nodiscard]] bool IsAny(const Values& values, const Is& is)
{
    return std::any_of(values.begin(), values.end(), is);
}

/// Whether a file that the documents mention is so.
template <class Is>
[[nodiscard]] bool IsAnyFile(const Is& is)
{
    return IsAny(g_Room.Now.Names,
                 [&](const auto& name) {
                     return name.second != Disk::kDirectory && !name.first.ends_with(".tmp") &&
                            is(g_Room.Now.Files[name.second]);
                 });
}
inline bool IsKept(const std::string& records)
{
    return IsAnyFile([&](const std::string& file) { return Records(file) == records; });
}

inline bool HoldsSet(const Content& content, const std::string& set)
{
    return IsAny(content.Sets, [&](const auto& entry) { return entry.second == set; });
}

struct Outcome
{
    std::string Lost; // what, and when; empty when nothing is
    bool IsMoved = false;
    std::vector<Step> ReadSteps; // of the first read
};

/// Reconstructs a state, goes on from it, and says what is lost.
class Check : public Outcome
{
public:
    Check(const Recording& recording, const State& state)
        : m_Recording(recording), m_Hidden(recording.Hidden),
          m_Allowed(recording.Contents.begin() + static_cast<ptrdiff_t>(state.Acknowledged),
                    recording.Contents.begin() + static_cast<ptrdiff_t>(std::max(state.Acknowledged, state.Attempted)) +
                        1)
    {
        g_Room.Now = state.Left;
        g_Room.Steps.clear();
        m_Life.Contents = {Content()};
        m_Life.Tell("open");
        const int32_t result = m_Life.Results.back();
        const bool isOfMacros = result == KXRULE_E_FILE_READ || result == KXRULE_E_MACRO_FORMAT;
        if (result == recording.ReadResult || (isOfMacros && recording.IsDamaged))
            m_Life.Surprises.clear();
        ReadSteps = g_Room.Steps;
        const Content now = m_Life.Now();
        Compare(now);
        LookForKept("the read");
        std::erase_if(
            m_Hidden, [&](const auto& file)
            { return (recording.IsBlind || !recording.Wanted.empty()) && IsRead(file.first, file.second, now); });
        if (!Lost.empty())
            return;
        // Three more lives, each of which changes, writes and goes.
        for (const uint16_t index : IndexesIn(m_Allowed))
            if (now.Sets.count(index) == 0)
                m_Life.Tell("set " + std::to_string(index) + " 1");
        LiveOn("touch 500; write", "the first life");
        const std::string first = now.Sets.empty() ? "" : "; delete " + std::to_string(now.Sets.begin()->first);
        LiveOn("touch 501; macro later" + first + "; flush", "the second life");
        LiveOn("set 0 1; touch 502", "the third life");
    }

private:
    void Lose(const std::string& what)
    {
        if (Lost.find(what) == std::string::npos)
            Lost += (Lost.empty() ? "" : "; ") + what;
    }
    [[nodiscard]] static std::set<uint16_t> IndexesIn(const std::vector<Content>& contents)
    {
        std::set<uint16_t> indexes;
        for (const Content& content : contents)
            for (const auto& set : content.Sets)
                indexes.insert(set.first);
        return indexes;
    }
    void Compare(const Content& now)
    {
        std::set<uint16_t> indexes = IndexesIn(m_Recording.Contents);
        indexes.merge(IndexesIn({now}));
        for (const uint16_t index : indexes)
            CompareSet(index, now.Set(index));
        if (!IsAny(m_Allowed, [&](const Content& content) { return content.Macros == now.Macros; }) &&
            !IsHidden(now.Macros) && !MayMove(m_Allowed[0].Macros) &&
            (!m_Recording.IsDamaged || IsRuleSetFile(m_Recording.Hidden.begin()->first)))
            Lose("macros");
        if (!IsAny(m_Allowed, [&](const Content& content) { return content.Active == now.Active; }) &&
            !m_Recording.IsBlind && !(IsMoved && now.Active.empty()))
            Lose("active list");
    }
    void CompareSet(uint16_t index, const std::string& now)
    {
        const std::string name = "set " + std::to_string(index);
        const auto is = [&](const Content& content) { return content.Set(index) == now; };
        if (IsAny(m_Allowed, is))
            return CompareWithWanted(index, now);
        if (!now.empty() && !IsRescue(now))
        {
            const auto isUnnoticed = [](const auto& file)
            { return IsRuleSetFile(file.first) && !Records(file.second).empty(); };
            const bool isGiven =
                m_Recording.IsBlind && (is(m_Recording.Contents[0]) || IsHidden(now) ||
                                        (m_Recording.IsDamaged && isUnnoticed(*m_Recording.Hidden.begin())));
            return isGiven ? void() : Lose(name + (IsAny(m_Recording.Contents, is) ? " is stale" : " is nobody's"));
        }
        const auto has = [&](const Content& content) { return !content.Set(index).empty(); };
        // Gone, or a rescue set: then there is a copy somewhere, or it was a rescue set before.
        const bool isKept = IsAny(m_Allowed, [&](const Content& content) { return MayMove(content.Set(index)); });
        if (!isKept && !(m_Recording.IsDamaged && !IsAny(m_Allowed, has)))
            Lose(name + (now.empty() ? " is gone" : " is a rescue set"));
    }
    // What a failing call kept out of memory must still be on the disk, unless the story itself deletes it.
    void CompareWithWanted(uint16_t index, const std::string& now)
    {
        const auto lacks = [&](const Content& content) { return content.Set(index).empty(); };
        const auto isKept = [&](const Content& content) { return MayMove(content.Set(index)); };
        if (m_Recording.Hidden.count(kDirectory + RuleFiles::RuleSetFileName(index)) != 0)
            return; // it is looked for anyway
        if ((now.empty() || IsRescue(now)) && !m_Recording.Wanted.empty() && !IsAny(m_Recording.Wanted, lacks) &&
            !IsAny(m_Recording.Wanted, isKept))
            Lose("set " + std::to_string(index) + " is gone for good");
    }
    // Whether these records may be missing in memory, because they are elsewhere or never were a user's.
    bool MayMove(const std::string& records)
    {
        if (!m_Recording.MayMove || records.empty() || (!IsRescue(records) && !IsKept(records)))
            return false;
        if (!IsRescue(records))
            m_Moved.insert(records);
        IsMoved = true;
        return true;
    }
    [[nodiscard]] bool IsHidden(const std::string& set) const
    {
        return IsAny(m_Recording.Hidden, [&](const auto& file) { return Records(file.second) == set; });
    }
    // Whether this life knows what the file holds.
    [[nodiscard]] bool IsRead(const std::string& path, const std::string& bytes, const Content& now) const
    {
        if (IsRuleSetFile(path) && (!m_Recording.IsDamaged || Records(bytes).empty()))
            return HoldsSet(now, Records(bytes));
        const auto found = g_Room.Now.Names.find(path);
        return found != g_Room.Now.Names.end() && g_Room.Now.Files[found->second] == bytes;
    }
    // What memory does not hold must still be somewhere.
    void LookForKept(const std::string& since)
    {
        for (const auto& [path, bytes] : m_Hidden)
            if (!IsAnyFile([&, &was = bytes](const std::string& file) { return file == was; }))
                Lose("what was in " + path + " is gone after " + since);
        for (const std::string& records : m_Moved)
            if (!IsKept(records))
                Lose("what was moved is gone after " + since);
        for (const std::string& surprise : m_Life.Surprises)
            Lose(surprise + " in " + since);
    }
    void LiveOn(const std::string& sentences, const std::string& life)
    {
        m_Life.Tell(sentences);
        const Content expected = m_Life.Now();
        m_Life.Tell(sentences.ends_with("write") || sentences.ends_with("flush") ? "die" : "stop");
        m_Life.Tell("open");
        if (m_Life.Now() != expected)
            Lose("what was changed in " + life);
        LookForKept(life);
    }

    const Recording& m_Recording;
    std::map<std::string, std::string> m_Hidden;
    std::vector<Content> m_Allowed; // what must be there, to what may be there
    Story m_Life{kDirectory};
    std::set<std::string> m_Moved;
};

} // namespace Crash
