// What the tracing side and the trace library (companions/trace) share: the names and defaults of the settings, the
// configuration record in its narrow and its wide form, and the five entry points. The layout is fixed for ever;
// docs/settings.md explains the settings.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Port.h"
#include "common/srclib/KxComn_Record.h"
#include "common/srclib/KxComn_String.h"

namespace KxCommon
{

/// Sections (INI file) or subkeys (registry), keys, and defaults for missing keys. All texts are ASCII.
namespace DebugSettings
{

inline constexpr char kInteractiveSection[] = "InteractiveSession";
inline constexpr char kServiceSection[] = "ServiceSession";

inline constexpr char kEnable[] = "Enable";
inline constexpr char kLevel[] = "Level";
inline constexpr char kLogProcess[] = "LogProcess";
inline constexpr char kLogUnitType[] = "LogUnitType";
inline constexpr char kLogFolder[] = "LogFolder";
inline constexpr char kLogPrefix[] = "LogPrefix";
inline constexpr char kLogFile[] = "LogFile";
inline constexpr char kLogExtension[] = "LogExtension";
inline constexpr char kRobust[] = "Robust";
inline constexpr char kDebugger[] = "Debugger";

inline constexpr uint32_t kDefaultLevel = 256; // the other numbers default to 0
inline constexpr char kDefaultLogFolder[] = "c:\\temp\\";
inline constexpr char kDefaultLogPrefix[] = "VQR_";
inline constexpr char kDefaultLogExtension[] = "log";

/// The default of LogFile depends on the kind of module that traces.
constexpr const char* DefaultLogFile(uint32_t unit) noexcept
{
    return unit == 1 ? "KxPfw" : unit == 0 || unit == 2 ? "KxProxy" : "";
}

} // namespace DebugSettings

#pragma pack(push, 1)

/// The 36 bytes that both forms begin with.
struct KX_PACKED DebugConfigHead
{
    uint8_t bServiceSession; //  0  1: the process runs in the service session
    uint8_t bRobust;         //  1  0 or 1
    uint8_t bDebugger;       //  2  0 or 1
    uint8_t bEnable;         //  3  0 or 1
    SYSTEMTIME ReadTime;     //  4  local time at which the settings were read
    uint32_t dwLogProcess;   // 20
    uint32_t dwLogUnitType;  // 24
    uint32_t dwUnit;         // 28  what kind of module traces; the rule library is 1
    uint32_t dwLevel;        // 32  mask of the levels that are written
};

/// Texts end with NUL within their fields.
template <class Character>
struct KX_PACKED DebugConfigRecord
{
    DebugConfigHead Head;
    Character szTraceName[32];
    Character szLogFolder[260];
    Character szLogPrefix[256];
    Character szLogFile[256];
    Character szLogExtension[256];
};

#pragma pack(pop)

using DebugConfig = DebugConfigRecord<char>;        // texts in the active code page
using DebugConfigWide = DebugConfigRecord<KXWCHAR>; // texts in UTF-16

static_assert(offsetof(DebugConfigHead, bServiceSession) == 0);
static_assert(offsetof(DebugConfigHead, bRobust) == 1);
static_assert(offsetof(DebugConfigHead, bDebugger) == 2);
static_assert(offsetof(DebugConfigHead, bEnable) == 3);
static_assert(offsetof(DebugConfigHead, ReadTime) == 4);
static_assert(offsetof(DebugConfigHead, dwLogProcess) == 20);
static_assert(offsetof(DebugConfigHead, dwLogUnitType) == 24);
static_assert(offsetof(DebugConfigHead, dwUnit) == 28);
static_assert(offsetof(DebugConfigHead, dwLevel) == 32);
static_assert(sizeof(DebugConfigHead) == 36);
static_assert(offsetof(DebugConfig, szTraceName) == 36 && offsetof(DebugConfigWide, szTraceName) == 36);
static_assert(offsetof(DebugConfig, szLogFolder) == 68 && offsetof(DebugConfigWide, szLogFolder) == 100);
static_assert(offsetof(DebugConfig, szLogPrefix) == 328 && offsetof(DebugConfigWide, szLogPrefix) == 620);
static_assert(offsetof(DebugConfig, szLogFile) == 584 && offsetof(DebugConfigWide, szLogFile) == 1132);
static_assert(offsetof(DebugConfig, szLogExtension) == 840 && offsetof(DebugConfigWide, szLogExtension) == 1644);
static_assert(sizeof(DebugConfig) == 1096 && sizeof(DebugConfigWide) == 2156);
static_assert(alignof(DebugConfig) == 1 && alignof(DebugConfigWide) == 1);

/// The sizes of the texts, which follow each other after the head.
inline constexpr size_t kDebugTexts[] = {sizeof DebugConfig::szTraceName, sizeof DebugConfig::szLogFolder,
                                         sizeof DebugConfig::szLogPrefix, sizeof DebugConfig::szLogFile,
                                         sizeof DebugConfig::szLogExtension};

/// The wide form of a record; what does not fit its field is cut.
[[nodiscard]] inline DebugConfigWide Widen(const DebugConfig& record)
{
    DebugConfigWide wide = {};
    wide.Head = record.Head;
    const char* from = reinterpret_cast<const char*>(&record) + sizeof record.Head;
    char* to = reinterpret_cast<char*>(&wide) + sizeof wide.Head;
    for (const size_t size : kDebugTexts)
    {
        const WideString text = String::ToWide(Record::Text(from, size));
        std::copy_n(reinterpret_cast<const char*>(text.data()), std::min(text.size(), size - 1) * sizeof(KXWCHAR), to);
        from += size;
        to += size * sizeof(KXWCHAR);
    }
    return wide;
}

/// The trace library's entry points. 0 is success; a handle is never 0. companions/trace/KxVqrDbg.cpp documents them.
using KxDbgInitializeFunction = int32_t(uint64_t* handle, const DebugConfigWide* config);
using KxDbgUninitializeFunction = int32_t(uint64_t handle);
using KxDbgTraceFunction = int32_t(uint64_t handle, const SYSTEMTIME* time, const wchar_t* line);
using KxDbgSetDebugConfigFunction = int32_t(uint64_t handle, const DebugConfig* config);
using KxDbgGetDebugConfigFunction = int32_t(uint64_t handle, DebugConfig* config);

} // namespace KxCommon
