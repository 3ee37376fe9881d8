// trace_writer LIBRARY EVENT TAG COUNT: waits for the event, then traces COUNT lines in each of two threads. The tests
// start it to have several processes at one log.
#include <cstdlib>
#include <string>
#include <thread>

#include "common/srclib/KxComn_DebugConfig.h"

int main(int argc, char** argv)
{
    const HMODULE library = argc == 5 ? ::LoadLibraryA(argv[1]) : nullptr;
    const HANDLE start = argc == 5 ? ::OpenEventA(SYNCHRONIZE, FALSE, argv[2]) : nullptr;
    if (library == nullptr || start == nullptr)
        return 1;

    const auto find = [=](const char* name) { return reinterpret_cast<void*>(::GetProcAddress(library, name)); };
    const auto initialize = reinterpret_cast<KxCommon::KxDbgInitializeFunction*>(find("KxDbgInitialize"));
    const auto trace = reinterpret_cast<KxCommon::KxDbgTraceFunction*>(find("KxDbgTrace"));
    const KxCommon::DebugConfigWide config = {}; // KxPfw.ini has the settings
    uint64_t handle = 0;
    if (initialize(&handle, &config) != 0)
        return 2;

    const std::string tag = argv[3];
    const int count = std::atoi(argv[4]);
    const auto write = [&](const std::wstring& name)
    {
        for (int i = 0; i < count; ++i)
        {
            std::wstring line = name + L" " + std::to_wstring(i) + L" ";
            line.append(static_cast<size_t>(20 + i % 50), L'\u20ac').append(L"\r\n");
            if (trace(handle, nullptr, line.c_str()) != 0)
                std::exit(3);
        }
    };
    ::WaitForSingleObject(start, INFINITE);
    std::thread first(write, std::wstring(tag.begin(), tag.end()) + L"1");
    std::thread second(write, std::wstring(tag.begin(), tag.end()) + L"2");
    first.join();
    second.join();
    return 0;
}
