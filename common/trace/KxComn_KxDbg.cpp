// The trace library and its five entry points.
#include "common/trace/KxComn_KxDbg.h"

namespace KxCommon::Library
{

bool KxDbg::Load(const std::string& path) noexcept
{
    Unload();
    if (!DynLib::Load(path))
        return false;
    Initialize = Find<KxDbgInitializeFunction>("KxDbgInitialize");
    Uninitialize = Find<KxDbgUninitializeFunction>("KxDbgUninitialize");
    Trace = Find<KxDbgTraceFunction>("KxDbgTrace");
    SetDebugConfig = Find<KxDbgSetDebugConfigFunction>("KxDbgSetDebugConfig");
    GetDebugConfig = Find<KxDbgGetDebugConfigFunction>("KxDbgGetDebugConfig");
    return true;
}

void KxDbg::Unload() noexcept
{
    Initialize = nullptr;
    Uninitialize = nullptr;
    Trace = nullptr;
    SetDebugConfig = nullptr;
    GetDebugConfig = nullptr;
    DynLib::Unload();
}

} // namespace KxCommon::Library
