// What a file system may leave of an interrupted sequence of steps. docs/recovery.md, "Crash states", defines the
// models.
#pragma once

#include <functional>

#include "tests/torture/crash/Disk.h"

namespace Crash
{

enum class Model
{
    Kill,    // the process ends: what was called has happened
    Journal, // the power fails: names in order, up to any; bytes that were not flushed missing, zero or there in parts
    Reorder // the same, but steps on different names in any order unless a flush or a write-through stands between them
};

/// One state, and the steps it consists of.
struct State
{
    Disk Left;
    size_t Done = 0;         // steps that had returned
    size_t Acknowledged = 0; // the content that must be there,
    size_t Attempted = 0;    // and the last that may be there
    std::string Missing;     // steps on names that are not on the disk, and what became of bytes
};

using Visitor = std::function<void(const State&)>;

/// Visits every state, many of them more than once. from says what was acknowledged and attempted before the steps.
void Enumerate(Model model, const Disk& base, const std::vector<Step>& steps, const State& from, const Visitor& visit);

/// The same steps as done by a library with that fault: "flush dropped", "flush after the move", "written in place",
/// "deleted before the move", "master before the set" or "copy kept after the overwrite".
std::vector<Step> Plant(const std::string& fault, const Disk& base, const std::vector<Step>& steps);

} // namespace Crash
