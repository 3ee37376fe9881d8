// The language of the crash tests: runs of the library ("lives") on the disk in memory, and what others do to its
// files.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/srclib/KxComn_Handle.h"
#include "tests/torture/crash/Disk.h"

namespace Crash
{

/// What a caller sees of a store.
struct Content
{
    std::map<uint16_t, std::string> Sets; // each its record with all rules
    std::string Macros;
    std::vector<uint16_t> Active;

    bool operator==(const Content&) const = default;
    [[nodiscard]] std::string Set(uint16_t index) const { return Sets.count(index) != 0 ? Sets.at(index) : ""; }
};

/// The record of the rule set, or the records of the macros, in a file; empty if the file is incomplete.
[[nodiscard]] std::string RecordsIn(const std::string& file);
[[nodiscard]] bool IsRescue(const std::string& set);

/// Sentences separated by semicolons, each a verb and its words. Unless stopped, a life ends as if the process crashed.
/// A set's file is named by its number.
///   open [RESULT]   begin a life and read        rule SET RULE   add a rule          write [RESULT]
///   unread          begin one and do not         touch RULE      add it to all sets  flush
///   stop, die       end it                       macro NAME      add one             tick             the timer fires
///   set N [RULES]   add a set                    active SETS     set the list        store N          sets 1 to N
///   delete N        a set, 0: all
///   backup, restore    as kxrule does: all files to a new dated directory, and from the oldest one
///   rename A B, swap A B, copy A B, erase A, cut A SIZE, old A   by hand: old is the version whose rules are not read
///   hold A, share A, lend A, letgo    somebody else has the file open: for himself, to be read, to be read and renamed
class Story
{
public:
    explicit Story(std::string directory);
    ~Story();
    Story(const Story&) = delete;
    Story& operator=(const Story&) = delete;

    void Tell(const std::string& sentences);
    [[nodiscard]] Content Now() const; // of the life

    std::vector<Content> Contents;      // that may be on the disk since some step, in this order
    size_t Acknowledged = 0;            // the last of them that must be there
    std::vector<std::string> Surprises; // results other than the expected one
    std::vector<int32_t> Results;
    bool IsBlind = false; // something was written to a store that had not been read

private:
    struct Life;
    struct Words;

    [[nodiscard]] bool Live(const Words& words); // false: not a verb of the library's
    void Interfere(const Words& words);
    void Restore();
    void Expect(int32_t result, int32_t expected = 0);
    /// Calls what puts the content on the disk. Result 0 acknowledges it, unless isTold is false and a system call was
    /// refused, which the result does not report.
    void Save(const Content& content, int32_t expected, bool isTold, const std::function<int32_t()>& call);
    [[nodiscard]] std::string ReadFile(const std::string& path) const;
    void PutFile(const std::string& path, const std::string& content) const;

    std::string m_Directory; // with backslash
    std::unique_ptr<Life> m_Life;
    bool m_IsOver = false; // kxrule has given up
    std::vector<KxCommon::UniqueFile> m_Holders;
};

} // namespace Crash
