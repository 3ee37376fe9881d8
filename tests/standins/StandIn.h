// How a test holds a stand-in library.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "common/srclib/KxComn_Windows.h"

/// The folder of the running test program, where the build puts the libraries as well.
[[nodiscard]] inline std::filesystem::path TestFolder()
{
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).parent_path();
}

/// Copies a stand-in into the folder where the code under test will look for it and holds it from then on, so that
/// what it has recorded outlives the loading and releasing by others. State is what the two share.
template <class State>
class StandIn
{
public:
    /// @param variant  the folder below bin/standins
    StandIn(const char* library, const std::filesystem::path& folder, const std::string& variant = "whole")
        : m_Path(folder / library)
    {
        std::filesystem::copy_file(TestFolder() / "standins" / variant / library, m_Path,
                                   std::filesystem::copy_options::overwrite_existing);
        m_Module = ::LoadLibraryW(m_Path.c_str());
        if (m_Module == nullptr)
            throw std::runtime_error("cannot load the stand-in " + m_Path.string());
        void* const address = reinterpret_cast<void*>(::GetProcAddress(m_Module, "KxStandInState"));
        m_State = reinterpret_cast<State* (*)()>(address)();
    }
    ~StandIn() { Release(); }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    State* operator->() const noexcept { return m_State; }

    /// Gives the library up. True when nobody else holds it: it is gone.
    bool Release()
    {
        if (m_Module != nullptr)
            ::FreeLibrary(m_Module);
        m_Module = nullptr;
        return ::GetModuleHandleW(m_Path.c_str()) == nullptr;
    }

private:
    std::filesystem::path m_Path;
    HMODULE m_Module = nullptr;
    State* m_State = nullptr;
};
