// One use of a store: the library is initialised on a directory, read, perhaps used for a change, and ended.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "common/srclib/KxComn_Handle.h"
#include "policy/Policy.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/RuleLibrary.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Console.h"
#include "tools/kxrule/console/Failure.h"

namespace Tool
{

using namespace KxPolicy;

/// The options that every command takes; UTF-8.
struct GlobalOptions
{
    std::string Directory; // empty: the library's own
    std::string Master;    // empty: the default
    bool Json = false;
    bool NoColour = false;
    bool Force = false;
    uint32_t Wait = 10;     // seconds, while another process changes the store
    uint32_t MaxSize = 256; // megabytes, of a file that is read
    uint32_t Keep = 0;      // how many of this tool's copies to retain; 0: all
};

/// The functions throw Failure. A change that was begun with BeginChange and not written leaves the files as they were:
/// the library is then not finalised, so its last write does not happen.
class Session
{
public:
    Session(const GlobalOptions& options, Console& console);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Reads the files of the store without the library. Refuses a damaged store: what the library would make of it is
    /// not what the files contain.
    void OpenToLook() { m_Looked = Look({}); }
    /// The same, passing on the rule sets one by one; the policy then has them without rules. A rule set that was
    /// passed on but is not in the policy in the end was deleted meanwhile, and must be ignored.
    [[nodiscard]] Policy Look(const TakeRuleSet& take);
    enum class OnDamage
    {
        Refuse, // unless forced
        Mend    // the change repairs it
    };
    /// Reads the store to change it, exclusively: see Claim. Damaged files are first copied below RuleBackup, and
    /// reported. The library is loaded on first use: a policy that changes nothing does not need it.
    void OpenToChange(OnDamage onDamage = OnDamage::Refuse);
    /// Everything in the store. The names of macros are cut to their field, as the library returns them.
    [[nodiscard]] Policy Read();
    /// Copies the files of the store to a dated directory below RuleBackup, unless this session has already done so.
    /// Called before anything is deleted or replaced.
    void CopyFiles();
    /// Where the copy is; empty if there is none.
    [[nodiscard]] std::string Copies() const;
    /// Its name in the rule directory, in the active code page.
    [[nodiscard]] const std::string& CopiesName() const noexcept { return m_Copies; }
    /// Takes another session's copy for its own.
    void ShareCopies(const Session& other) { m_Copies = other.m_Copies; }
    /// Removes those beyond --keep, when the change is made: what it restored may be one of them.
    void RemoveOldCopies() const;
    /// From here on the command is not interrupted.
    void BeginChange() noexcept;
    /// Writes what was changed.
    void Write();

    [[nodiscard]] RuleLibrary& Library();
    [[nodiscard]] Console& Terminal() noexcept { return m_Console; }
    [[nodiscard]] const GlobalOptions& Options() const noexcept { return m_Options; }
    /// The rule directory, absolute, with a backslash at its end.
    [[nodiscard]] const std::wstring& Directory() const noexcept { return m_Directory; }

    [[nodiscard]] bool DirectoryExists() const noexcept;
    /// Makes a path absolute: in the current directory, or in the rule directory if it exists only there.
    [[nodiscard]] std::wstring ExistingPath(const std::string& path) const;
    /// The files in it.
    [[nodiscard]] RuleDirectory Store() const { return StoreAt(m_Directory, m_Options.Master); }

    /// Reports on standard error what is damaged.
    void Warn(const std::string& text, const StoreReport& report);

    /// Makes this the only kxrule that changes the directory, until the session ends. Waits as long as the options say.
    void Lock();
    enum class OnUnconfirmed
    {
        Refuse,
        TakeBack // the change is what takes it back
    };
    /// The same, and refuses while an import waits for its confirmation, or while another process has the library
    /// initialised, unless forced.
    void Claim(OnUnconfirmed onUnconfirmed = OnUnconfirmed::Refuse);
    /// Says on standard error, once, that an import waits for its confirmation or has been taken back.
    void TellUnconfirmed();

private:
    void RefuseUnconfirmed();
    /// Whether it had to wait.
    bool RefuseWhileInUse();
    /// Waits a moment, and says so the first time; false if the time is up.
    bool MayWait(const std::string& whom);
    void Open();
    /// If a file could not be opened or written: which one, and the system's reason.
    [[nodiscard]] std::string Obstacle() const;

    const GlobalOptions& m_Options;
    Console& m_Console;
    std::wstring m_Directory;
    std::unique_ptr<RuleLibrary> m_Library;
    std::optional<Policy> m_Looked;
    std::string m_Copies;
    KxCommon::UniqueKernelObject m_Lock;
    uint64_t m_Deadline; // by the system's tick count
    bool m_HasToldWaiting = false;
    bool m_HasToldUnconfirmed = false;
    bool m_Initialised = false;
    bool m_MayEnd = false; // unwritten changes may be written
};

/// The library's line of text for a rule or a macro; empty if there is none.
[[nodiscard]] std::string RuleLine(const PFW_RULE& rule);
[[nodiscard]] std::string MacroLine(const MacroRecord& macro);

/// The other processes that have the rule library loaded, as far as the system shows them: ": NAME (process 12), ...".
/// A process without a name is about to end.
[[nodiscard]] std::string LibraryUsers();
/// What identifies a directory to the file system, whatever its name; empty if it cannot be opened (GetLastError).
[[nodiscard]] std::wstring IdentityOf(const std::wstring& directory);
/// Throws Failure if there is none.
void RequireDirectory(const std::wstring& path);
/// Makes a UTF-8 path absolute.
[[nodiscard]] std::wstring AbsolutePath(const std::string& path);

} // namespace Tool
