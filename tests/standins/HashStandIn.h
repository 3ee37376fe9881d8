// A KxHash.dll that hashes nothing: it returns what it is told and records the paths it is called with.
//
//     TempDir dir;                    // the folder that InstallPath names; see tests/support/RegistryGuard.h
//     HashStandIn hash(dir.Path());   // copies it there from bin/standins and holds it
//     hash->Status = 5;
//     hash->OnCall = [](const wchar_t*) { ::WaitForSingleObject(g_GoOn, INFINITE); };   // as slow as the test wants
//
// HashStandIn(folder, "kxCfwGetHashValue") lacks that function. Tests read Paths; only the library appends to it. Calls
// are taken one at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "api/include/KxPfwRule.h"
#include "tests/standins/StandIn.h"

struct HashStandInState
{
    static constexpr const char* kLibrary = "KxHash.dll";
    void SetHash(uint8_t value) { std::memset(Hash, value, sizeof Hash); }

    int32_t Status = 0;
    uint8_t Hash[KXRULE_HASH_BYTES] = {}; // written whatever the status
    void (*OnCall)(const wchar_t* path) = nullptr;
    std::vector<std::wstring> Paths; // one for each call
    DWORD ErrorMode = 0;             // of the thread that loaded the library
};

using HashStandIn = StandIn<HashStandInState>;
