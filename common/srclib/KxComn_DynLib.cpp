// Modules are loaded so that only their own folder and the system's are searched: docs/security.md.
#include "common/srclib/KxComn_DynLib.h"

#include <utility>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_ErrorMode.h"
#include "common/srclib/Utility.h"

namespace KxCommon
{

bool DynLib::Load(const std::string& path) noexcept
{
    Unload();
    // With a path, the module's own folder is searched for the libraries that it needs in turn. Neither form searches
    // the current folder or PATH, so nothing can be planted there.
    const bool isBareName = path.find_first_of("\\/:") == std::string::npos;
    if (!isBareName && !IsAbsolutePath(path))
    {
        ::SetLastError(ERROR_BAD_PATHNAME);
        return false;
    }
    const QuietErrors quiet;
    const DWORD flags = LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | (isBareName ? 0 : LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
    m_Module = ::LoadLibraryExA(path.c_str(), nullptr, flags);
    return m_Module != nullptr;
}

void DynLib::Unload() noexcept
{
    if (void* const module = std::exchange(m_Module, nullptr))
        ::FreeLibrary(static_cast<HMODULE>(module));
}

void* DynLib::Address(const char* name) const noexcept
{
    if (m_Module == nullptr)
        return nullptr;
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(m_Module), name));
}

} // namespace KxCommon
