// A disk in memory. The crash tests link Room.cpp in place of persistence/Files.cpp: it stores the files here and
// records what is done to them, so that every intermediate state can be reconstructed, including those that only a
// power loss leaves.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tests/support/Faults.h"

namespace Crash
{

struct NoCase
{
    bool operator()(const std::string& a, const std::string& b) const { return ::_stricmp(a.c_str(), b.c_str()) < 0; }
};

/// One operation on a disk. Files have numbers, which do not change when they are renamed.
struct Step
{
    enum class Kind
    {
        Create, // or empty one that is there
        Write,  // append
        Flush,
        Move,
        Delete,
        MakeDirectory,
        // These do nothing; File is the number of a content that the caller knows.
        Attempt,    // from now on it may be on the disk
        Acknowledge // from now on it must be on the disk
    };
    Kind What;
    std::string Path, To = {};
    int File = -1;
    std::string Data = {};
    bool IsThrough = false; // the move returns when it is on the disk

    /// Whether it changes names, which a file system journals, and not the bytes of a file.
    [[nodiscard]] bool IsOfNames() const
    {
        return What == Kind::Create || (What >= Kind::Move && What <= Kind::MakeDirectory);
    }
    [[nodiscard]] std::string Text() const;
};

struct Disk
{
    static constexpr int kDirectory = -1;
    std::map<std::string, int, NoCase> Names; // path, number of the file
    std::map<int, std::string> Files;         // number, content
    std::map<int, unsigned> Times;            // number, how often it was written to

    void Do(const Step& step);
    [[nodiscard]] bool Has(const std::string& path) const { return Names.count(path) != 0; }
    /// The number of the file with this name, or an unused one.
    [[nodiscard]] int NumberFor(const std::string& path) const;
};

/// What the file calls work on. One thread.
struct Room
{
    static constexpr uint32_t kMostCalls = 2000; // more are an endless loop
    Disk Now;
    std::vector<Step> Steps;      // since it was last cleared
    std::map<int, uint32_t> Held; // files that another program has open, and what it shares
    bool IsReal = false;          // every call goes to the system instead
    Faults Calls;                 // which are refused

    void Do(const Step& step);
    [[nodiscard]] size_t OpenFiles() const;
};
extern Room g_Room;

} // namespace Crash
