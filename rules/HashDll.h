// CHashDll: the hash library, loaded for one call.
#pragma once

#include <cstdint>

#include "api/include/KxPfwRule.h"
#include "common/srclib/KxComn_DynLib.h"

/// Created on the stack for every hash, so that the library is not loaded between calls.
class CHashDll : public KxCommon::DynLib
{
public:
    /// Reads InstallPath anew, loads KxHash.dll from there and looks up its function. Each failure is traced.
    [[nodiscard]] bool Init();
    [[nodiscard]] bool IsReady() const noexcept { return m_GetHashValue != nullptr; }
    /// @param applicationPath  the path in a record: at any address, at most 261 units, possibly unterminated
    /// @param hash             20 bytes at any address; whatever the library leaves there is copied back
    /// @return 0, or the library's status
    [[nodiscard]] int32_t GetHashValue(const void* applicationPath, void* hash) const;

private:
    using Function = int32_t(const KXWCHAR* applicationPath, uint8_t* hash);
    Function* m_GetHashValue = nullptr;
};
