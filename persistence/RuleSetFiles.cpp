// Which set owns which file. docs/recovery.md, "What is overwritten, and when", describes it.
#include "persistence/RuleSetFiles.h"

#include <set>
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
    {
        if (!name.empty()) // a set that was never written
            listed.push_back(&m_Places[ToKey(name)]);
    }
    for (auto& [key, place] : m_Places)
        place.IsListed = false;
    for (Place* const place : listed)
        place->IsListed = true;
}

std::vector<std::string> RuleSetFiles::Unlisted(const std::vector<std::string>& names) const
{
    std::set<KxCommon::WideString, NoCase> listed;
    for (const std::string& name : names)
        listed.insert(ToKey(name));
    std::vector<std::string> unlisted;
    for (const auto& [key, place] : m_Places)
    {
        if (place.IsListed && place.HoldsMore && listed.count(key) == 0)
            unlisted.push_back(KxCommon::String::ToNarrow(key));
    }
    return unlisted;
}

RuleSetFiles::Claim RuleSetFiles::Prepare(const std::string& name, uint16_t index, const std::string& former)
{
    Place& place = m_Places[ToKey(name)];
    const auto left = former.empty() ? m_Places.end() : m_Places.find(ToKey(former));
    return {place, left == m_Places.end() ? nullptr : &left->second, index};
}

void RuleSetFiles::NoteUnread(const std::string& name)
{
    Place& place = m_Places[ToKey(name)];
    place.Owner.reset();
    place.HoldsMore = true;
}

void RuleSetFiles::NoteNothingSafe() noexcept
{
    for (auto& [key, place] : m_Places)
        place.HoldsMore = true;
}

bool RuleSetFiles::Release(const std::string& name)
{
    const auto found = m_Places.find(ToKey(name));
    if (found == m_Places.end() || found->second.Owner || found->second.IsListed)
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
    if (place == nullptr || place->Owner == index)
        return Verdict::Yes;
    return place->Owner ? Verdict::No : place->IsListed ? Verdict::ListFirst : Verdict::Yes;
}

const RuleSetFiles::Place* RuleSetFiles::Find(const std::string& name) const
{
    const auto found = m_Places.find(ToKey(name));
    return found == m_Places.end() ? nullptr : &found->second;
}
