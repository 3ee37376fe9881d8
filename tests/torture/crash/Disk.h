// A disk in memory. The crash tests link Room.cpp in place of persistence/Files.cpp: it stores the files here and
// records what is done to them, so that every intermediate state can be reconstructed, including those that only a
// power loss leaves.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace Crash
{

struct NoCase
{
    bool operator()(const std::string& a, const std::string& b) const { return ::_stricmp(a.c_str(), b.c_str()) < 0; }
};

/// One thing that was done to a disk. Files have numbers, which they keep when they are renamed.
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
        // Nothing is done by these; File is the number of a content that the caller knows.
        Attempt,    // from now on it may be there
        Acknowledge // from now on it must be there
    };
    Kind What;
    std::string Path, To = {};
    int File = -1;
    std::string Data = {};
    bool IsThrough = false; // the move returns when it is on the disk

    /// Whether it changes names, of which a file system keeps a journal, and not the bytes of a file.
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
    /// A number that no file has yet, or that of the file of this name.
    [[nodiscard]] int NumberFor(const std::string& path) const;
};

/// What the file calls work on. One thread.
struct Room
{
    static constexpr uint32_t kMostCalls = 2000; // more are an endless loop
    Disk Now;
    std::vector<Step> Steps;                   // since somebody emptied it
    std::map<int, uint32_t> Held;              // files that somebody else has open: what he shares
    bool IsReal = false;                       // every call goes to the system instead
    uint32_t Calls = 0, FailAt = 0, Error = 0; // the call of that number is refused with that error,
    bool IsForGood = false;                    // and all after it

    void Do(const Step& step);
    [[nodiscard]] size_t OpenFiles() const;
    [[nodiscard]] bool HasFailed() const { return FailAt != 0 && Calls >= FailAt; }
};
extern Room g_Room;

} // namespace Crash
