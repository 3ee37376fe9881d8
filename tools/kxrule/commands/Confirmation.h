// import --confirm: an import that is taken back unless somebody confirms it in time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "tools/kxrule/commands/Session.h"

namespace Tool
{

/// What a small file in the rule directory says of an import that was to be confirmed. As long as one waits nothing
/// else changes the store; when one was taken back, the file tells that until somebody changes something.
struct Unconfirmed
{
    bool IsTakenBack = false;
    bool IsWhole = false; // the files are what the import made of them, all of them
    std::string File;     // what was imported, as it was called
    uint64_t Time = 0;    // when it will be taken back or was: milliseconds since 1601, UTC
    uint32_t Seconds = 0; // how long it waits
    /// What was there before, as a name in the rule directory, UTF-8; empty: nothing. When it was taken back: what it
    /// had made.
    std::string Copies;
    std::string Master;  // the master file's name, UTF-8
    std::string Problem; // why it could not be taken back; what is left to do when it was

    bool operator==(const Unconfirmed&) const = default;
};

inline constexpr uint32_t kMostConfirmSeconds = 86400;

/// Nothing only if there is no such file: one that cannot be read is an import that waits no time, and a problem.
[[nodiscard]] std::optional<Unconfirmed> FindUnconfirmed(const RuleDirectory& store);
/// In words, and for programs.
[[nodiscard]] std::string UnconfirmedText(const Session& session, const Unconfirmed& unconfirmed);
[[nodiscard]] nlohmann::ordered_json UnconfirmedAsJson(const Unconfirmed& unconfirmed);
void RemoveUnconfirmed(const RuleDirectory& store);

/// Notes, before an import changes anything, that it has to be confirmed, and starts the process that takes it back.
/// The session has made its copy.
[[nodiscard]] Unconfirmed BeginUnconfirmed(Session& session, const std::string& file, uint32_t seconds);
/// The import is complete: from here on the time counts.
void StartTheTime(Session& session, Unconfirmed& unconfirmed);

int Confirm(Session& session);
/// For undo; false when nothing waits. Refuses, once, what has just been taken back: to undo that would bring it back.
[[nodiscard]] bool TakeBackUnconfirmed(Session& session);
/// Runs in the background process: waits for the confirmation or the end of the time, and then takes the import back.
int AwaitConfirmation(Session& session);

} // namespace Tool
