// Who owns which file. docs/recovery.md, "What is written over, and when", is this in words.
#include "persistence/RuleSetFiles.h"

#include <utility>

bool RuleSetFiles::List(const std::string& name)
{
    Place& place = m_Places[ToKey(name)];
    return !std::exchange(place.IsListed, true);
}

void RuleSetFiles::ListOnly(const std::vector<std::string>& names)
{
    std::vector<Place*> listed;
    listed.reserve(names.size());
    for (const std::string& name : names)
        listed.push_back(&m_Places[ToKey(name)]);
    for (auto& [key, place] : m_Places)
        place.IsListed = false;
    for (Place* const place : listed)
        place->IsListed = true;
}

void RuleSetFiles::Claim(const std::string& name, uint16_t index, const std::string& former, bool holdsMore)
{
    Place& place = m_Places[ToKey(name)];
    if (const auto left = former.empty() ? m_Places.end() : m_Places.find(ToKey(former));
        left != m_Places.end() && left->second.Owner == index)
        left->second.Owner.reset();
    place.Owner = index;
    place.HoldsMore = holdsMore;
}

void RuleSetFiles::NoteUnread(const std::string& name)
{
    Place& place = m_Places[ToKey(name)];
    place.Owner.reset();
    place.HoldsMore = true;
}

void RuleSetFiles::NoteNothingKept() noexcept
{
    for (auto& [key, place] : m_Places)
        place.HoldsMore = true;
}

bool RuleSetFiles::Release(const std::string& name, uint16_t index)
{
    const auto found = m_Places.find(ToKey(name));
    if (found == m_Places.end() || found->second.Owner != index)
        return false;
    m_Places.erase(found);
    return true;
}

bool RuleSetFiles::HoldsMore(const std::string& name) const
{
    const Place* const place = Find(name);
    return place == nullptr || place->HoldsMore;
}

std::optional<uint16_t> RuleSetFiles::OwnerOf(const std::string& name) const
{
    const Place* const place = Find(name);
    return place == nullptr ? std::nullopt : place->Owner;
}

RuleSetFiles::Verdict RuleSetFiles::MayReplace(const std::string& name, uint16_t index) const
{
    const Place* const place = Find(name);
    if (place == nullptr)
        return Verdict::CopyFirst;
    if (place->Owner && place->Owner != index)
        return Verdict::Owned;
    if (!place->Owner && place->IsListed)
        return Verdict::ListFirst;
    return place->HoldsMore ? Verdict::CopyFirst : Verdict::Free;
}

const RuleSetFiles::Place* RuleSetFiles::Find(const std::string& name) const
{
    const auto found = m_Places.find(ToKey(name));
    return found == m_Places.end() ? nullptr : &found->second;
}
