// The trace library and its five entry points.
#pragma once

#include <string>

#include "common/srclib/KxComn_DynLib.h"
#include "common/trace/KxComn_DebugConfig.h"

namespace KxCommon::Library
{

/// Holds KxVqrDbg.dll from Load until Unload or destruction. Each entry point is null until bound, and stays null when
/// the library has none of that name.
class KxDbg : private DynLib
{
public:
    /// False if the library cannot be loaded; missing entry points are not a failure.
    bool Load(const std::string& path) noexcept;
    void Unload() noexcept;
    using DynLib::IsLoaded;

    KxDbgInitializeFunction* Initialize = nullptr;
    KxDbgUninitializeFunction* Uninitialize = nullptr;
    KxDbgTraceFunction* Trace = nullptr;
    KxDbgSetDebugConfigFunction* SetDebugConfig = nullptr; // bound for completeness
    KxDbgGetDebugConfigFunction* GetDebugConfig = nullptr;
};

} // namespace KxCommon::Library
