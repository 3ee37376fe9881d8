// Runs of the library ("lives") in a directory of their own, described in words:
//
//     EXPECT_EQ(lives.Run("store 1 2; hold mas none; open; read =-10055; end; release; life; sets 1 2 m; end"), "");
//
// A number is a rule set and its file, KxRl0001.dat; mas and mac are the two other files, vol is the folder that
// contains the rule directory, away another name for it, odd a name outside the code page. Statements, each with its
// expected result (=any; 0 if none is given):
//
//     store N...         a life that adds these sets, a macro and an active list
//     life               open, read
//     open [F [NAME]]    kxRuleInitialize; F: relative, none, or a name below the rule directory; NAME: master file
//     read, write, flush, end (kxRuleFinalize)
//     add N, delete N, rule N (one more, or one less), again N (an existing one), nomacro, active (none),
//     macro              another one, and another active list
//     copy F F (to a new one), old F (one of version 1), rename F F, ring F F..., cut F [N] (to N bytes, or by one),
//     version F (1), remove F, plain F (not a rule file), folder F, attributes F N,
//     list NAME NAME...  writes a master file with these names, the macro file's first
//     forge N            one with the sets 1 to N, of which the next is 0
//     flip F N           changes a byte, or the last one, of a file that keeps its time
//     touch F            gives it another time
//     enter F            makes it the current directory: base, from which relative leads to the rule directory, or back
//     hold F WHO [MS]    WHO: full, read or none reads and shares everything, reading or nothing; writer may write too.
//                        MS: until the library has waited so long. It does not sleep, but its time passes
//     scanner WHO        opens every temporary file as soon as it exists, for 200 ms of this time
//     refuse FUNCTION    of the system: the library's calls of it fail as on a full disk
//     release            everything held and refused
//     sets N... [m]      exactly these are in memory, with their last content; m: and macro and active list.
//                        N? a rescue set; N~ with whatever content
//     backups N, gone F, same F F    there are N dated directories; no such file; two files of equal bytes
//     replaced F, kept F             whether it is another file than at the last such question
//
// Whatever is run: what was complete in the directory before a call is complete after it, unless the caller has changed
// or deleted it since it was read. After a successful write, the directory holds what is in memory.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/srclib/KxComn_Handle.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

[[nodiscard]] std::string Replaced(std::string text, const std::string& from, const std::string& to);

/// The library's function of that name and signature.
#define KX_CALL_OF(library, function, ...) static_cast<decltype(&function)>((library).Find(#function))(__VA_ARGS__)

class Lives
{
public:
    Lives();
    ~Lives() { Release(); }
    Lives(const Lives&) = delete;
    Lives& operator=(const Lives&) = delete;

    /// Nothing, or what has been told so far and what went wrong with its last statement.
    [[nodiscard]] std::string Run(const std::string& script);

    /// The lines since the last call, without what differs from run to run: tag, message and source file, or messages
    /// alone.
    std::string Said(bool isBrief = false);

    struct Place
    {
        void** At;
        void* From;
    };
    /// Puts another function in the place of one that the library has from kernel32.
    Place Redirect(const std::string& name, void* to) const;

    const TempDir Folder;
    const std::string Rules = (Folder / "vol" / "rules").string() + '\\'; // the rule directory
    TraceStandIn Trace{Folder.Path()};
    const LoadedLibrary Library{TestFolder() / "KxPfwRul.dll",
                                Folder.Path()}; // a copy, which has its own imports and trace library

private:
    using Words = std::vector<std::string>;
    using Contents = std::map<std::string, std::string>; // "m", or a rule set's number: what is in it
    using Found = std::multimap<std::string, std::filesystem::path>;
    struct Held
    {
        KxCommon::UniqueFile File;
        std::string Content; // for whom nobody else may read it
        int64_t Left;        // milliseconds
    };
    void Tell(const std::string& name, const Words& words, std::optional<int32_t> expected);
    bool ByHand(const std::string& name, const Words& words);
    bool Check(const std::string& name, const Words& words);
    int32_t Call(const std::string& name, const Words& words);
    void Hold(const std::filesystem::path& file, const std::string& who, int64_t milliseconds);
    void Release();
    [[nodiscard]] std::filesystem::path PathOf(const std::string& word) const;
    [[nodiscard]] Contents Memory() const;
    [[nodiscard]] Found Scan() const;
    [[nodiscard]] bool IsSafe(const std::string& content, const Found& found) const;
    void Complain(const std::string& text) { m_Wrong += "\n    " + text; }

    static UINT WINAPI TemporaryName(const char* directory, const char* prefix, UINT unique, char* path);
    static BOOL WINAPI Refuse();
    static void WINAPI PassTime(DWORD milliseconds);
    static ULONGLONG WINAPI TimePassed() { return s_Time; }
    static inline Lives* s_Current = nullptr;
    static inline ULONGLONG s_Time = 0;

    std::string m_Told, m_Wrong, m_Scanner;
    const std::filesystem::path m_Home = std::filesystem::current_path();
    uint16_t m_Serial = 0;
    Contents m_Given;                // what each was last given
    std::set<std::string> m_Changed; // by calls, since the directory was changed by hand
    Found m_Precious;                // what must not vanish
    Contents m_Successors;           // but for what the caller has put in its place
    bool m_IsHandled = true;         // by hand, since m_Precious was filled
    std::map<std::filesystem::path, Held> m_Held;
    std::map<std::string, uint64_t> m_Numbers; // that files had when they were asked about
    std::vector<Place> m_Refused;
    size_t m_Seen = 0;
};
