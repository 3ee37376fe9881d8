#include "companions/hash/HashCache.h"

#include <algorithm>
#include <cstring>
#include <iterator>

bool GetFileState(HANDLE file, FileState& state) noexcept
{
    BY_HANDLE_FILE_INFORMATION info;
    FILE_BASIC_INFO times;
    if (!::GetFileInformationByHandle(file, &info) ||
        !::GetFileInformationByHandleEx(file, FileBasicInfo, &times, sizeof times) || times.ChangeTime.QuadPart == 0)
        return false;
    state = {info.dwVolumeSerialNumber, uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow,
             uint64_t{info.nFileSizeHigh} << 32 | info.nFileSizeLow, times.LastWriteTime.QuadPart,
             times.ChangeTime.QuadPart};
    return true;
}

bool HashCache::Find(const FileState& state, uint8_t* hash) noexcept
{
    ::AcquireSRWLockShared(&m_Lock);
    const uint64_t now = ::GetTickCount64();
    const Entry* const found =
        std::find_if(std::begin(m_Entries), std::end(m_Entries),
                     [&](const Entry& entry) { return entry.Until > now && entry.State == state; });
    const bool isFound = found != std::end(m_Entries);
    if (isFound)
        std::memcpy(hash, found->Hash, kHashSize);
    ::ReleaseSRWLockShared(&m_Lock);
    return isFound;
}

void HashCache::Add(const FileState& state, const uint8_t* hash) noexcept
{
    constexpr int64_t kSecond = 10'000'000;
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    const int64_t now = static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    HMODULE self = nullptr;
    if (now - std::max(state.Changed, state.Written) < 3 * kSecond || // disks keep times to two seconds at worst
        !::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                              reinterpret_cast<const wchar_t*>(this), &self))
        return;
    ::AcquireSRWLockExclusive(&m_Lock);
    Entry& entry = m_Entries[m_Next++ % std::size(m_Entries)];
    entry.State = state;
    entry.Until = ::GetTickCount64() + 60'000;
    std::memcpy(entry.Hash, hash, kHashSize);
    ::ReleaseSRWLockExclusive(&m_Lock);
}
