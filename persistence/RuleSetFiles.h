// Who owns which file of a rule directory, and which files hold more than memory does.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/srclib/KxComn_String.h"

/// The one answer to "may this file be written over, may it be deleted?". Every file of the directory that was looked at
/// has a place here, the master and the macro file too; names are equal as the file system compares them. No lock of its
/// own: the master lock guards it. All operations may run out of memory and change nothing then.
///
/// The order of writes follows from one rule: the only listed file of a set is never replaced by another's content
/// before a master file that lists the set's new file is on the disk.
class RuleSetFiles
{
public:
    enum class Verdict
    {
        Yes,       // after a copy where HoldsMore says so
        ListFirst, // the master file on the disk lists it for a set that has moved out: write that first
        No         // it is the file of another set, which has to move out before
    };
    class Claim;

    void Clear() noexcept { m_Places.clear(); }

    /// The master file on the disk lists it. False when it has been listed already: a list may name a file twice.
    bool List(const std::string& name);
    /// The master file on the disk has been written: it lists these and no others.
    void ListOnly(const std::vector<std::string>& names);

    /// Listed files that hold more than memory does and that a master file with these names would list no more.
    [[nodiscard]] std::vector<std::string> Unlisted(const std::vector<std::string>& names) const;

    /// Before a set's file is read or written; Claim::Take, afterwards, can no longer fail.
    [[nodiscard]] Claim Prepare(const std::string& name, uint16_t index, const std::string& former = {});
    /// Nothing in the file is missing in memory or in a copy: a master or macro file that was read or written, or a file
    /// that has been copied.
    void NoteSafe(const std::string& name) { m_Places[ToKey(name)].HoldsMore = false; }
    /// It belongs to no set, and what it holds is in no copy.
    void NoteUnread(const std::string& name);
    /// A read has failed: what was read is not in memory, or not for long.
    void NoteNothingSafe() noexcept;
    /// The set is gone from memory; its file is to be deleted once the master file lists it no longer.
    void Disown(const std::string& name) { m_Places[ToKey(name)].Owner.reset(); }
    /// After that: whether the file is nobody's and unlisted. It is forgotten here then.
    [[nodiscard]] bool Release(const std::string& name);

    /// True as well for a file that nobody has looked at.
    [[nodiscard]] bool HoldsMore(const std::string& name) const;
    [[nodiscard]] std::optional<uint16_t> OwnerOf(const std::string& name) const;
    /// For a set that is to be written under that name.
    [[nodiscard]] Verdict MayReplace(const std::string& name, uint16_t index) const;

private:
    struct Place
    {
        std::optional<uint16_t> Owner;
        bool HoldsMore = true;
        bool IsListed = false;
    };
    struct NoCase
    {
        bool operator()(const KxCommon::WideString& a, const KxCommon::WideString& b) const noexcept
        {
            return KxCommon::String::CompareNoCase(a, b) < 0;
        }
    };

    [[nodiscard]] static KxCommon::WideString ToKey(const std::string& name) { return KxCommon::String::ToWide(name); }
    [[nodiscard]] const Place* Find(const std::string& name) const;

    std::map<KxCommon::WideString, Place, NoCase> m_Places;
};

/// Says that the set in memory is what a file holds. What the set had before is nobody's then.
class RuleSetFiles::Claim
{
public:
    /// holdsMore: the file's rules were not all taken into memory, and there is no copy of it.
    void Take(bool holdsMore = false) noexcept
    {
        if (m_Former != nullptr && m_Former->Owner == m_Index)
            m_Former->Owner.reset();
        m_Place.Owner = m_Index;
        m_Place.HoldsMore = holdsMore;
    }

private:
    friend RuleSetFiles;
    Claim(Place& place, Place* former, uint16_t index) noexcept : m_Place(place), m_Former(former), m_Index(index) {}

    Place& m_Place;
    Place* m_Former;
    uint16_t m_Index;
};
