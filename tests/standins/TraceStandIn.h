// A KxVqrDbg.dll that writes nothing: it records what it is given and returns what it is told.
//
//     TempDir dir;                       // where the library under test looks for KxVqrDbg.dll
//     TraceStandIn trace(dir.Path());    // copies it there from bin/standins and holds it
//     trace->HasConfig = true; trace->Enable = 1; trace->Level = 273;       // what KxDbgGetDebugConfig answers
//     ... the code under test initialises, traces, ends ...
//     EXPECT_EQ(trace->Lines.at(0).Text, ...);
//
// TraceStandIn(folder, "KxDbgTrace") lacks that entry point. Tests read the lists; only the library appends to them.
// Nothing here is locked: callers must come one at a time, and Overlapped says if they did not.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "common/trace/KxComn_DebugConfig.h"
#include "tests/standins/StandIn.h"

struct TraceStandInState
{
    static constexpr const char* kLibrary = "KxVqrDbg.dll";

    // Orders.
    int32_t InitializeResult = 0;
    uint64_t Handle = 0x1234567890; // what KxDbgInitialize hands out
    int32_t TraceResult = 0;
    int32_t ConfigResult = 0;
    bool HasConfig = false; // false: KxDbgGetDebugConfig answers what KxDbgInitialize was given
    uint8_t Enable = 0;
    uint32_t Level = 0;
    DWORD LastError = 0;          // each entry point leaves this as GetLastError and as errno
    void (*OnDetach)() = nullptr; // called when the process ends and the library has gone down; a call of an entry
                                  // point after that crashes

    // Records.
    struct Line
    {
        uint64_t Handle;
        SYSTEMTIME Time;
        std::wstring Text;
    };
    std::vector<Line> Lines;
    std::vector<KxCommon::DebugConfigWide> Configs; // one for each KxDbgInitialize
    std::vector<uint64_t> Ended;                    // the handle of each KxDbgUninitialize
    int ConfigCount = 0;                            // calls of KxDbgGetDebugConfig
    std::atomic<int> Inside{0};
    std::atomic<bool> Overlapped{false};
};

using TraceStandIn = StandIn<TraceStandInState>;

/// A configuration as text: flags, numbers and texts in the order of the record. A unit beyond ASCII as its number; a
/// star for what remains after a text's end.
template <class Character>
std::string Describe(const KxCommon::DebugConfigRecord<Character>& config)
{
    const KxCommon::DebugConfigHead head = config.Head;
    std::ostringstream out;
    out << +head.bServiceSession << ' ' << +head.bRobust << ' ' << +head.bDebugger << ' ' << +head.bEnable << ' '
        << +head.dwLogProcess << ' ' << +head.dwLogUnitType << ' ' << +head.dwUnit << ' ' << +head.dwLevel << ' ';
    const unsigned char* at = reinterpret_cast<const unsigned char*>(&config) + sizeof head;
    for (const size_t units : {32, 260, 256, 256, 256})
    {
        out << '|';
        bool hasEnded = false;
        for (size_t i = 0; i < units; ++i, at += sizeof(Character))
        {
            std::make_unsigned_t<Character> unit;
            std::memcpy(&unit, at, sizeof unit);
            if (unit >= 128)
                out << '#' << unit + 0u;
            else if (unit != 0)
                out << (hasEnded ? '*' : static_cast<char>(unit));
            hasEnded = hasEnded || unit == 0;
        }
    }
    return out.str();
}
