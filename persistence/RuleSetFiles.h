// Which set owns which file of a rule directory, and which files hold more than memory does.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/srclib/KxComn_String.h"

/// Decides whether a file may be overwritten or deleted. Every file of the directory that was looked at has a place
/// here, the master and the macro file too; names are compared as the file system compares them. No lock of its own:
/// the master lock guards it. All operations may run out of memory, and then change nothing.
///
/// The order of writes follows from one rule: the only listed file of a set is never replaced by another's content
/// before a master file that lists the set's new file is on the disk.
class RuleSetFiles
{
public:
    enum class Verdict
    {
        Yes,       // after a copy if HoldsMore
        ListFirst, // the master file on the disk lists it for a set that has moved out: write the master file first
        No         // it is the file of another set, which has to move out first
    };
    class Claim;

    void Clear() noexcept { m_Places.clear(); }

    /// Notes that the master file on the disk lists it. False if it was listed before: a list may name a file twice.
    bool List(const std::string& name);
    /// Notes that the master file has been written and lists these names and no others.
    void ListOnly(const std::vector<std::string>& names);

    /// Listed files that hold more than memory does and that a master file with these names would no longer list.
    [[nodiscard]] std::vector<std::string> Unlisted(const std::vector<std::string>& names) const;

    /// Called before a set's file is read or written, so that Claim::Take afterwards cannot fail.
    [[nodiscard]] Claim Prepare(const std::string& name, uint16_t index, const std::string& former = {});
    /// Notes that everything in the file is in memory or in a copy: a master or macro file that was read or written, or
    /// a file that has been copied.
    void NoteSafe(const std::string& name) { m_Places[ToKey(name)].HoldsMore = false; }
    /// Notes that it belongs to no set and that there is no copy of it.
    void NoteUnread(const std::string& name);
    /// Notes that a read has failed: what was read is not in memory, or not for long.
    void NoteNothingSafe() noexcept;
    /// Notes that the set is gone from memory; its file is to be deleted once the master file no longer lists it.
    void Disown(const std::string& name) { m_Places[ToKey(name)].Owner.reset(); }
    /// After that: true if no set owns the file and it is not listed. Its place is then removed.
    [[nodiscard]] bool Release(const std::string& name);

    /// Also true for a file that was never looked at.
    [[nodiscard]] bool HoldsMore(const std::string& name) const;
    [[nodiscard]] std::optional<uint16_t> OwnerOf(const std::string& name) const;
    /// For a set that is to be written to that file.
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

/// Notes that a file holds the set in memory. The file that the set had before then belongs to no set.
class RuleSetFiles::Claim
{
public:
    /// holdsMore: not all of the file's rules were read into memory, and there is no copy of it.
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
