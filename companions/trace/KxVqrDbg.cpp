// KxVqrDbg.dll: the trace library's entry points. They find the session, stop exceptions and leave GetLastError as it
// was. The records are those of common/trace/KxComn_DebugConfig.h; docs/settings.md describes files and settings.
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "common/srclib/KxComn_CriticalSection.h"
#include "common/srclib/KxComn_ErrorMode.h"
#include "common/srclib/KxComn_Identity.h"
#include "common/trace/KxComn_DebugConfig.h"

#include "companions/NtFile.h"
#include "companions/trace/Session.h"

namespace
{

using KxCommon::Synchronize::CriticalSection;
using KxTrace::Session;
using Lock = KxCommon::Synchronize::ScopedLock<CriticalSection>;

// Handles are numbers that are never reused, so that a stale one is detected.
CriticalSection g_Lock;
std::map<uint64_t, std::shared_ptr<Session>> g_Sessions KX_GUARDED_BY(g_Lock);
uint64_t g_Last KX_GUARDED_BY(g_Lock) = 0;

template <class Body>
int32_t Guarded(Body body) noexcept
{
    const DWORD lastError = ::GetLastError();
    const KxCommon::QuietErrors quiet; // log and settings may be on a drive without a medium
    DWORD result = ERROR_GEN_FAILURE;
    try
    {
        result = body();
    }
    catch (const std::bad_alloc&)
    {
        result = ERROR_NOT_ENOUGH_MEMORY;
    }
    catch (...)
    {
    }
    ::SetLastError(lastError);
    return static_cast<int32_t>(result);
}

// For an entry point with a handle and an argument that must not be null.
template <class Body>
int32_t WithSession(uint64_t handle, const void* argument, const Body& body) noexcept
{
    return Guarded(
        [&]() -> DWORD
        {
            std::shared_ptr<Session> session;
            {
                const Lock lock(g_Lock);
                const auto found = g_Sessions.find(handle);
                if (found == g_Sessions.end())
                    return ERROR_INVALID_HANDLE;
                session = found->second;
            }
            return argument == nullptr ? ERROR_INVALID_PARAMETER : body(*session);
        });
}

// The folder of this library's file, with all links resolved and a trailing backslash.
std::wstring OwnFolder()
{
    HMODULE self = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<const wchar_t*>(&g_Sessions), &self);
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(self, path.data(), static_cast<DWORD>(path.size())));
    path.resize(path.rfind(L'\\') + 1);
    const KxCommon::OwnIdentity identity;
    KxCommon::UniqueFile folder;
    const bool isOpen =
        identity && KxCompanions::Open(folder, nullptr, KxCompanions::NtPath(path), FILE_READ_ATTRIBUTES, FILE_OPEN,
                                       FILE_DIRECTORY_FILE) == ERROR_SUCCESS;
    return isOpen ? KxCompanions::FinalPath(folder.get()) : path;
}

} // namespace

extern "C"
{

    /// Starts a session. Its settings are those of config until KxPfw.ini in this library's folder says otherwise.
    /// Nothing is opened or created before the first line.
    /// @param handle  receives the session's handle, never 0; set to 0 on failure
    /// @param config  at any address; copied
    /// @return 0, or ERROR_INVALID_PARAMETER (87)  a pointer is null
    ///               ERROR_NOT_ENOUGH_MEMORY (8)
    /// Every entry point may be called from any thread.
    int32_t KxDbgInitialize(uint64_t* handle, const KxCommon::DebugConfigWide* config)
    {
        return Guarded(
            [=]() -> DWORD
            {
                if (handle == nullptr)
                    return ERROR_INVALID_PARAMETER;
                *handle = 0;
                if (config == nullptr)
                    return ERROR_INVALID_PARAMETER;
                auto session = std::make_shared<Session>(OwnFolder(), *config);
                const Lock lock(g_Lock);
                g_Sessions.emplace(g_Last + 1, std::move(session));
                *handle = ++g_Last;
                return ERROR_SUCCESS;
            });
    }

    /// Ends a session and closes its log. Calls in progress on other threads are completed.
    /// @return 0, or ERROR_INVALID_HANDLE (6)
    int32_t KxDbgUninitialize(uint64_t handle)
    {
        return Guarded(
            [=]() -> DWORD
            {
                std::shared_ptr<Session> session; // destroyed after the lock is released
                const Lock lock(g_Lock);
                if (auto node = g_Sessions.extract(handle))
                    session = std::move(node.mapped());
                return session ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
            });
    }

    /// Writes one line, as UTF-8. Lines of several threads and processes do not mix.
    /// @param time  when the line was made; ignored, since it is part of the text too. May be null.
    /// @param line  complete, with its CR LF; for an empty one nothing is written
    /// @return 0, also when the trace is off, or the Windows error that cost the line, among them ERROR_INVALID_HANDLE
    ///         (6), ERROR_INVALID_PARAMETER (87)  line is null ERROR_ACCESS_DENIED (5)      the folder or the file may
    ///         not be written, or a link leads to the folder ERROR_DISK_FULL (112) ERROR_FILE_TOO_LARGE (223)   the log
    ///         has twice its size limit and another program keeps it from being renamed
    int32_t KxDbgTrace(uint64_t handle, const SYSTEMTIME* /*time*/, const wchar_t* line)
    {
        return WithSession(handle, line, [=](Session& session) { return session.Trace(line); });
    }

    /// Replaces the settings, session kind, unit and trace name included, until the session's section of KxPfw.ini
    /// changes. The size limit, which the record lacks, stays.
    /// @param config  in the narrow form, at any address; copied
    /// @return 0, or ERROR_INVALID_HANDLE (6), ERROR_INVALID_PARAMETER (87)  config is null
    int32_t KxDbgSetDebugConfig(uint64_t handle, const KxCommon::DebugConfig* config)
    {
        return WithSession(handle, config,
                           [=](Session& session) -> DWORD
                           {
                               session.SetConfig(*config);
                               return ERROR_SUCCESS;
                           });
    }

    /// The settings in force. A change of KxPfw.ini shows within a second.
    /// @param config  at any address; filled on success, otherwise unchanged. The time is when the settings came into
    ///                force.
    /// @return 0, or ERROR_INVALID_HANDLE (6), ERROR_INVALID_PARAMETER (87)  config is null
    int32_t KxDbgGetDebugConfig(uint64_t handle, KxCommon::DebugConfig* config)
    {
        return WithSession(handle, config,
                           [=](Session& session) -> DWORD
                           {
                               const KxCommon::DebugConfig current = session.Config();
                               std::memcpy(config, &current, sizeof current);
                               return ERROR_SUCCESS;
                           });
    }

} // extern "C"

static_assert(std::is_same_v<decltype(KxDbgInitialize), KxCommon::KxDbgInitializeFunction>);
static_assert(std::is_same_v<decltype(KxDbgUninitialize), KxCommon::KxDbgUninitializeFunction>);
static_assert(std::is_same_v<decltype(KxDbgTrace), KxCommon::KxDbgTraceFunction>);
static_assert(std::is_same_v<decltype(KxDbgSetDebugConfig), KxCommon::KxDbgSetDebugConfigFunction>);
static_assert(std::is_same_v<decltype(KxDbgGetDebugConfig), KxCommon::KxDbgGetDebugConfigFunction>);
