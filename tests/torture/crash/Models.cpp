#include "tests/torture/crash/Models.h"

#include <algorithm>
#include <set>

namespace Crash
{

namespace
{

constexpr size_t kBlock = 4096;
constexpr size_t kMostSubsets = 1 << 12;

// What happens to bytes that were written and not flushed.
enum class Bytes
{
    All,
    None,     // and the file is no longer for them
    Zero,     // the size is there before the bytes
    Head,     // the first blocks, and the file ends
    HeadZero, // the first blocks, and the rest zero
    ZeroTail, // the blocks after the first
    Last = ZeroTail
};
constexpr const char* kBytesText[] = {
    "", "no bytes", "zeroes", "first blocks", "first blocks and zeroes", "zeroes and last blocks"};

std::string Survivors(const std::string& bytes, Bytes what)
{
    const size_t half = (bytes.size() / 2 + kBlock - 1) / kBlock * kBlock;
    const size_t head = std::min(half, bytes.size());
    switch (what)
    {
    case Bytes::None:
        return {};
    case Bytes::Zero:
        return std::string(bytes.size(), '\0');
    case Bytes::Head:
        return bytes.substr(0, head);
    case Bytes::HeadZero:
        return bytes.substr(0, head) + std::string(bytes.size() - head, '\0');
    case Bytes::ZeroTail:
        return std::string(std::min(kBlock, bytes.size()), '\0') + bytes.substr(std::min(kBlock, bytes.size()));
    default:
        return bytes;
    }
}

class Enumeration
{
public:
    Enumeration(Model model, const Disk& base, const std::vector<Step>& steps, const State& from, const Visitor& visit)
        : m_Model(model), m_Steps(steps), m_Visit(visit), m_State(from)
    {
        m_State.Left = base;
    }

    void Run()
    {
        size_t ordered = 0; // steps before this one are on the disk
        for (m_State.Done = 0; m_State.Done <= m_Steps.size(); ++m_State.Done)
        {
            if (m_State.Done > 0)
                Note(m_Steps[m_State.Done - 1], ordered);
            m_IsThere.assign(m_State.Done, true);
            if (m_Model == Model::Kill)
                Visit(Bytes::All);
            else
                VisitNames(ordered, ordered, kMostSubsets);
        }
    }

private:
    void Note(const Step& step, size_t& ordered)
    {
        if (step.What == Step::Kind::Acknowledge)
            m_State.Acknowledged = static_cast<size_t>(step.File);
        if (step.What == Step::Kind::Attempt)
            m_State.Attempted = static_cast<size_t>(step.File);
        if (step.What == Step::Kind::Flush || step.IsThrough)
            ordered = m_State.Done;
    }
    // Every selection of the steps on names from next on, except steps that need a missing one.
    void VisitNames(size_t ordered, size_t next, size_t most)
    {
        while (next < m_State.Done && !m_Steps[next].IsOfNames())
            ++next;
        if (next == m_State.Done)
            return VisitBytes();
        const bool isPossible = !NeedsMissing(next, ordered);
        if (isPossible)
        {
            m_IsThere[next] = true;
            VisitNames(ordered, next + 1, most / 2);
        }
        if (!isPossible || most > 1)
        {
            m_IsThere[next] = false;
            VisitNames(ordered, next + 1, most / 2);
            m_IsThere[next] = true;
        }
    }
    // In a journal every step needs those before it.
    [[nodiscard]] bool NeedsMissing(size_t step, size_t ordered) const
    {
        const auto isIn = [](const std::string& path, const std::string& name) // the same, or in that directory
        {
            return ::_strnicmp(path.c_str(), name.c_str(), name.size()) == 0 &&
                   (path.size() == name.size() || path[name.size()] == '\\');
        };
        const auto touches = [&](const std::string& a, const std::string& b)
        { return !a.empty() && !b.empty() && (isIn(a, b) || isIn(b, a)); };
        const Step& late = m_Steps[step];
        for (size_t i = ordered; i < step; ++i)
        {
            const Step& early = m_Steps[i];
            if (!m_IsThere[i] && early.IsOfNames() &&
                (m_Model == Model::Journal || touches(early.Path, late.Path) || touches(early.Path, late.To) ||
                 touches(early.To, late.Path) || touches(early.To, late.To)))
                return true;
        }
        return false;
    }
    void VisitBytes()
    {
        for (int what = 0; what <= static_cast<int>(Bytes::Last); ++what)
        {
            if (!Visit(static_cast<Bytes>(what)))
                break; // everything was flushed
        }
    }

    // False when there were no bytes to lose.
    bool Visit(Bytes what)
    {
        State state = m_State;
        state.Missing = kBytesText[static_cast<int>(what)];
        std::map<int, std::string> unflushed;
        std::set<int> unborn; // files whose creation or truncation is missing: nothing reaches them
        for (size_t i = 0; i < state.Done; ++i)
        {
            const Step& step = m_Steps[i];
            if (step.What == Step::Kind::Write)
            {
                if (unborn.count(step.File) == 0)
                    unflushed[step.File] += step.Data;
            }
            else if (step.What == Step::Kind::Flush)
            {
                state.Left.Files[step.File] += unflushed[step.File];
                unflushed.erase(step.File);
            }
            else if (step.IsOfNames() && m_IsThere[i])
            {
                state.Left.Do(step);
                if (step.What == Step::Kind::Create)
                    unflushed.erase(step.File);
            }
            else if (step.IsOfNames())
            {
                if (step.What == Step::Kind::Create)
                    unborn.insert(step.File);
                state.Missing += (state.Missing.empty() ? "without " : ", ") + step.Text();
            }
        }
        bool isAnyLost = false;
        for (const auto& [file, bytes] : unflushed)
        {
            const bool isNamed = std::any_of(state.Left.Names.begin(), state.Left.Names.end(),
                                             [number = file](const auto& name) { return name.second == number; });
            isAnyLost = isAnyLost || (isNamed && !bytes.empty());
            state.Left.Files[file] += Survivors(bytes, what);
        }
        m_Visit(state);
        return isAnyLost;
    }

    const Model m_Model;
    const std::vector<Step>& m_Steps;
    const Visitor& m_Visit;
    State m_State; // before the steps are applied
    std::vector<bool> m_IsThere;
};

} // namespace

void Enumerate(Model model, const Disk& base, const std::vector<Step>& steps, const State& from, const Visitor& visit)
{
    Enumeration(model, base, steps, from, visit).Run();
}

// ------------------------------------------------------------------------------------------------- planted faults --

std::vector<Step> Plant(const std::string& fault, const Disk& base, const std::vector<Step>& steps)
{
    using Kind = Step::Kind;
    std::vector<Step> planted, late; // late: what is done after the next move
    Disk disk = base;
    const auto plant = [&](const Step& step)
    {
        disk.Do(step);
        planted.push_back(step);
    };
    for (const Step& step : steps)
    {
        const bool isReplacing = step.What == Kind::Move && step.Path.ends_with(".tmp");
        const bool isKeeping = step.Path.find("RuleBackup\\") != std::string::npos && step.What <= Kind::Flush;
        if (step.What == Kind::Flush && fault == "flush dropped")
            continue;
        if ((step.What == Kind::Flush && fault == "flush after the move") ||
            (isKeeping && fault == "copy kept after the overwrite") ||
            (isReplacing && step.To.find("\\KxRl") != std::string::npos && fault == "master before the set"))
        {
            late.push_back(step);
            continue;
        }
        if (isReplacing && fault == "deleted before the move" && disk.Has(step.To))
            plant({Kind::Delete, step.To});
        if (isReplacing && fault == "written in place")
        {
            const int number = disk.NumberFor(step.To);
            plant({Kind::Create, step.To, {}, number});
            plant({Kind::Write, step.To, {}, number, disk.Files[disk.Names.at(step.Path)]});
            plant({Kind::Flush, step.To, {}, number});
            plant({Kind::Delete, step.Path});
        }
        else
        {
            plant(step);
        }
        const bool isMaster = fault == "master before the set" && step.To.find("Mas") == std::string::npos;
        if (step.What != Kind::Acknowledge && (!isReplacing || isMaster))
            continue;
        std::for_each(late.begin(), late.end(), plant);
        late.clear();
    }
    return planted;
}

} // namespace Crash
