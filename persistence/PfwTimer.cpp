// CPfwTimer: a table of entries, each with a thread that waits on its quit event for the length of the interval.
// docs/threads.md says which locks may be held around it.
#include "persistence/PfwTimer.h"

#include <process.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "common/srclib/KxComn_Windows.h"

#include "common/srclib/KxComn_Handle.h"
#include "common/srclib/KxComn_Trace.h"
#include "common/srclib/Utility.h"

using KxCommon::UniqueKernelObject;
using KxCommon::Synchronize::ScopedLock;

namespace
{

struct ModulePolicy
{
    using pointer = HMODULE;
    static pointer invalid() noexcept { return nullptr; }
    static bool close(pointer module) noexcept { return ::FreeLibrary(module) != FALSE; }
};
using UniqueModule = KxCommon::UniqueHandle<ModulePolicy>;

uint64_t MakeKey(uint32_t processId, uint32_t index) noexcept
{
    return uint64_t{processId} << 32 | index;
}

// One more reference to the module that this code is in. The threads run that code: unloading the module while one of
// them runs would crash it, and joining it under the loader lock would never end, since a thread that ends needs that
// lock itself.
UniqueModule ReferenceOwnModule() noexcept
{
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                         reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(&ReferenceOwnModule)), &module);
    return UniqueModule(module);
}

void CloseTraced(UniqueKernelObject& object) noexcept
{
    const uint32_t value = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(object.get()));
    if (object.reset())
    {
        KX_TRACE(KxCommon::kTraceCall, "CloseHandle succeeded (%08X)", value);
        return;
    }
    const DWORD error = ::GetLastError();
    char message[512] = "";
    DWORD length = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error, 0,
                                    message, sizeof message, nullptr);
    while (length > 0 && (message[length - 1] == '\r' || message[length - 1] == '\n'))
        message[--length] = '\0';
    KX_TRACE(KxCommon::kTraceError, "CloseHandle failed (%08X) - %08X, %s", value, static_cast<unsigned>(error),
             message);
}

} // namespace

struct CPfwTimer::Entry
{
    CPfwTimer::Callback Function;
    uint32_t Interval;
    void* Context;
    bool Periodic;
    UniqueModule Module; // released last, when the thread has ended
    UniqueKernelObject Quit;
    UniqueKernelObject Thread;

    bool Start();
    void Stop() noexcept;
    void Run() noexcept;
    static unsigned __stdcall Main(void* entry)
    {
        static_cast<Entry*>(entry)->Run();
        return 0;
    }
};

// Leaves the thread suspended.
bool CPfwTimer::Entry::Start()
{
    Thread.reset(reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, 0, &Main, this, CREATE_SUSPENDED, nullptr)));
    if (Thread)
        return true;
    const int error = errno;
    const int systemError = static_cast<int>(_doserrno);
    KX_TRACE(KxCommon::kTraceError, "\tTimerThread could not been created: errno(%d) _doserrno(%d)", error,
             systemError);
    CloseTraced(Quit);
    return false;
}

void CPfwTimer::Entry::Stop() noexcept
{
    ::SetEvent(Quit.get());
    ::WaitForSingleObject(Thread.get(), INFINITE);
    CloseTraced(Thread);
    CloseTraced(Quit);
}

// Takes no lock of the timer: the code that stops the entry waits for this thread under that lock.
void CPfwTimer::Entry::Run() noexcept
{
    do
    {
        const DWORD result = ::WaitForSingleObject(Quit.get(), Interval);
        if (result == WAIT_OBJECT_0)
            return;
        if (result == WAIT_FAILED)
        {
            KX_TRACE(KxCommon::kTraceCall, "WaitForSingleObject returned error.");
            return;
        }
        try
        {
            Function(Context);
        }
        catch (...)
        {
            KX_TRACE(KxCommon::kTraceError, "\tThe timer's callback threw an exception");
        }
    } while (Periodic);
}

CPfwTimer::CPfwTimer() = default;

CPfwTimer::~CPfwTimer()
{
    if (KxCommon::IsProcessEnding()) // the threads have ended, perhaps while holding the lock
        return;
    KX_TRACE(KxCommon::kTraceCall, "~CPfwTimer Enter");
    {
        ScopedLock lock(m_Lock);
        for (const auto& [key, entry] : m_Table)
            entry->Stop();
        m_Table.clear();
    }
    KX_TRACE(KxCommon::kTraceCall, "~CPfwTimer Return");
}

bool CPfwTimer::Register(uint32_t processId, uint32_t index, Callback callback, uint32_t interval, void* context,
                         bool periodic)
try
{
    const uint64_t key = MakeKey(processId, index);
    ScopedLock lock(m_Lock);
    if (m_Table.contains(key))
    {
        KX_TRACE(KxCommon::kTraceError, "The specified key is already registered: ProcessID(0x%08X) Index(0x%08X)",
                 processId, index);
        return false;
    }
    auto entry = std::make_unique<Entry>(
        Entry{callback, interval, context, periodic, ReferenceOwnModule(), UniqueKernelObject(), UniqueKernelObject()});
    if (!entry->Module)
    {
        const DWORD error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tThe timer's module could not be referenced (%lu)", error);
        return false;
    }
    entry->Quit.reset(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
    if (!entry->Quit)
    {
        KX_TRACE(KxCommon::kTraceError, "\tQuitEvent could not been created");
        return false;
    }
    // Inserted before there is a thread: inserting may run out of memory, and no thread must run without its entry.
    const auto position = m_Table.emplace(key, std::move(entry)).first;
    if (!position->second->Start())
    {
        m_Table.erase(position);
        return false;
    }
    if (::ResumeThread(position->second->Thread.get()) == static_cast<DWORD>(-1))
    {
        const DWORD error = ::GetLastError();
        KX_TRACE(KxCommon::kTraceError, "\tTimerThread could not be resumed (%lu)", error);
        ::TerminateThread(position->second->Thread.get(), 0); // it has never run, so it holds nothing
        position->second->Stop();
        m_Table.erase(position);
        return false;
    }
    return true;
}
catch (const std::bad_alloc&)
{
    KX_TRACE(KxCommon::kTraceError, "\tOut of memory while registering a timer");
    return false;
}

bool CPfwTimer::Unregister(uint32_t processId, uint32_t index)
{
    std::unique_ptr<Entry> entry; // destroyed after the lock is released, which releases the module
    ScopedLock lock(m_Lock);
    const auto position = m_Table.find(MakeKey(processId, index));
    if (position == m_Table.end())
    {
        KX_TRACE(KxCommon::kTraceCall, "The specified key has already deleted: ProcessID(0x%08X) Index(0x%08X)",
                 processId, index);
        return false;
    }
    position->second->Stop();
    entry = std::move(position->second);
    m_Table.erase(position);
    return true;
}
