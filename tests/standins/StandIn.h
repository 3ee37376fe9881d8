// How a test loads a library: one of the product's, or a stand-in for one.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/TempDir.h"

/// The folder of the running test program, where the build puts the libraries as well.
[[nodiscard]] inline std::filesystem::path TestFolder()
{
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return std::filesystem::path(path).parent_path();
}

/// A library that is loaded as its host does it: at run time, from a file.
class LoadedLibrary
{
public:
    explicit LoadedLibrary(const std::filesystem::path& file) : m_File(file), m_Module(::LoadLibraryW(file.c_str()))
    {
        if (m_Module == nullptr)
            throw std::runtime_error("cannot load " + file.string());
    }
    /// Loads a copy from the folder where the code under test will look for it, or where it looks for its settings.
    LoadedLibrary(const std::filesystem::path& file, const std::filesystem::path& folder)
        : LoadedLibrary((std::filesystem::copy_file(file, folder / file.filename(),
                                                    std::filesystem::copy_options::overwrite_existing),
                         folder / file.filename()))
    {
    }
    ~LoadedLibrary() { Release(); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    struct Address
    {
        void* Value;
        template <class Function>
        operator Function*() const
        {
            return reinterpret_cast<Function*>(Value);
        }
    };
    /// Whatever function it is assigned to.
    [[nodiscard]] Address Find(const char* name) const
    {
        return {reinterpret_cast<void*>(::GetProcAddress(m_Module, name))};
    }
    /// Releases the library. True if it is unloaded, since nobody else uses it.
    bool Release()
    {
        if (m_Module != nullptr)
            ::FreeLibrary(m_Module);
        m_Module = nullptr;
        return ::GetModuleHandleW(m_File.c_str()) == nullptr;
    }

private:
    std::filesystem::path m_File;
    HMODULE m_Module;
};

/// Keeps a stand-in loaded, so that its records survive when others load and release it. State is what test and
/// stand-in share.
template <class State>
class StandIn : public LoadedLibrary
{
public:
    /// @param missing  a function that the copy in the folder does not export
    explicit StandIn(const std::filesystem::path& folder, const std::string& missing = "")
        : LoadedLibrary(Copy(folder / State::kLibrary, missing))
    {
        State* (*const state)() = Find("KxStandInState");
        m_State = state();
    }
    State* operator->() const noexcept { return m_State; }

private:
    static const std::filesystem::path& Copy(const std::filesystem::path& file, const std::string& missing)
    {
        std::string bytes = ReadBytes(TestFolder() / "standins" / State::kLibrary);
        const size_t name = bytes.find('\0' + missing + '\0');
        if (!missing.empty() && name != std::string::npos)
            --bytes[name + missing.size()]; // its last letter: the names stay in their order
        WriteBytes(file, bytes);
        return file;
    }

    State* m_State;
};
