// One use of a store: the library initialised on a directory, read, perhaps changed, ended.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "common/srclib/KxComn_Handle.h"
#include "policy/Policy.h"
#include "tools/kxrule/commands/RuleLibrary.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Console.h"
#include "tools/kxrule/console/Failure.h"

namespace Tool
{

using namespace KxPolicy;

/// What may stand in front of every command; UTF-8.
struct GlobalOptions
{
    std::string Directory; // empty: the library's own
    std::string Master;    // empty: the default
    bool Json = false;
    bool NoColour = false;
    bool Force = false;
    uint32_t Wait = 10;     // seconds, for others who change a store
    uint32_t MaxSize = 256; // megabytes of a file that is read
    uint32_t Keep = 0;      // of the copies that this tool makes; 0: all
};

/// The functions throw Failure. What was begun with BeginChange and not written leaves the files as they were: the
/// library is then not finalised, so its last write does not happen.
class Session
{
public:
    Session(const GlobalOptions& options, Console& console);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Reads the files of the store to look at it, without the library. Refuses a damaged one: what the library would
    /// make of it is not what lies there.
    void OpenToLook() { m_Looked = Look({}); }
    /// The same, with the rule sets handed over one by one; the policy then has them without rules. What was taken of a
    /// rule set that the policy does not have in the end is to be forgotten: it was deleted meanwhile.
    [[nodiscard]] Policy Look(const TakeRuleSet& take);
    enum class OnDamage
    {
        Refuse, // unless forced
        Mend    // the change is what mends it
    };
    /// Reads the store to change it, alone: see Claim. What is damaged is copied below RuleBackup first, and told. The
    /// library is loaded when it is first asked for: a policy that changes nothing needs none.
    void OpenToChange(OnDamage onDamage = OnDamage::Refuse);
    /// Everything in the store. The macros' names are cut to their field as the library hands them out.
    [[nodiscard]] Policy Read();
    /// Copies the files of the store into a dated directory below RuleBackup, unless this session has done so; before
    /// anything that deletes or replaces.
    void KeepCopy();
    /// Where the copy lies; empty: there is none.
    [[nodiscard]] const std::filesystem::path& Copies() const noexcept { return m_Copies; }
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
    /// A path as an absolute one: in the current directory, or in the rule directory where only there is something.
    [[nodiscard]] std::wstring ExistingPath(const std::string& path) const;
    /// The files in it.
    [[nodiscard]] RuleDirectory Store() const { return StoreAt(m_Directory, m_Options.Master); }

    /// Says on standard error what is damaged.
    void Warn(const std::string& text, const StoreReport& report);

    /// Makes this the only kxrule that changes the directory, until the session ends, and refuses while another process
    /// has the library initialised, unless forced. Waits for both as long as the options say.
    void Claim();

private:
    void Lock();
    /// Whether it had to wait.
    bool RefuseWhileInUse();
    /// Waits a moment, and says so the first time; false when the time for it is over.
    bool MayWait(const std::string& whom);
    void Open();
    /// Where a file could not be opened or written: which, and what the system says of it.
    [[nodiscard]] std::string Obstacle() const;

    const GlobalOptions& m_Options;
    Console& m_Console;
    std::wstring m_Directory;
    std::unique_ptr<RuleLibrary> m_Library;
    std::optional<Policy> m_Looked;
    std::filesystem::path m_Copies;
    KxCommon::UniqueKernelObject m_Lock;
    uint64_t m_Deadline; // by the system's tick count
    bool m_HasToldWaiting = false;
    bool m_Initialised = false;
    bool m_MayEnd = false; // whatever is unwritten may be written
};

/// A rule's and a macro's line of text as the library writes it; empty when it has none.
[[nodiscard]] std::string RuleLine(const PFW_RULE& rule);
[[nodiscard]] std::string MacroLine(const MacroRecord& macro);

/// What the file system knows a directory by, whatever it is called; empty when it cannot be opened (GetLastError).
[[nodiscard]] std::wstring IdentityOf(const std::wstring& directory);
/// A UTF-8 path as an absolute one.
[[nodiscard]] std::wstring AbsolutePath(const std::string& path);

} // namespace Tool
