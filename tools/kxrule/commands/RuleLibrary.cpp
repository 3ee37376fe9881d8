// KxPfwRul.dll, loaded at run time.
#include "tools/kxrule/commands/RuleLibrary.h"

#include "policy/Utf8.h"
#include "tools/kxrule/console/Failure.h"

namespace Tool
{

using namespace KxPolicy;

namespace
{

constexpr wchar_t kLibraryName[] = L"KxPfwRul.dll";

template <class Function>
void Find(HMODULE module, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
    if (function == nullptr)
        throw Failure("KxPfwRul.dll has no function " + std::string(name) +
                      "; it is of another version than this tool");
}

} // namespace

std::wstring RuleLibrary::OwnDirectory()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0)
            throw Failure("the tool's own directory cannot be found: " + SystemText(::GetLastError()));
        if (length < path.size())
        {
            path.resize(length);
            return path.substr(0, path.find_last_of(L'\\') + 1);
        }
        path.resize(2 * path.size());
    }
}

RuleLibrary::RuleLibrary() : KXRULE_LIBRARY()
{
    const std::wstring path = OwnDirectory() + kLibraryName;
    m_Module = ::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (m_Module == nullptr)
        throw Failure(ToUtf8(path) + " cannot be loaded: " + SystemText(::GetLastError()));
#define KX_FIND(name, parameters) Find(m_Module, #name, name);
    KXRULE_FUNCTIONS(KX_FIND)
#undef KX_FIND
}

RuleLibrary::~RuleLibrary()
{
    if (m_Module != nullptr)
        ::FreeLibrary(m_Module);
}

} // namespace Tool
