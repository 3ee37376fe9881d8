// Ctrl-C, and the end of the console or the session.
#pragma once

namespace Tool
{

/// From here on an interrupt ends the program at once, with a message and ExitInterrupted.
void WatchInterrupts(bool json) noexcept;
/// From here on something may have been changed: an interrupt is deferred until the command is done, which then says so
/// itself. If an interrupt came earlier, this does not return.
void HoldInterrupts() noexcept;

} // namespace Tool
