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
    uint32_t Wait = 10; // seconds, for others who change a store
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
    void OpenToLook();
    enum class OnDamage
    {
        Refuse, // unless forced
        Mend    // the change is what mends it
    };
    /// Reads the store with the library to change it, alone: see Claim. What is damaged is copied below RuleBackup
    /// first, and told.
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

    [[nodiscard]] RuleLibrary& Library() { return *m_Library; }
    [[nodiscard]] Console& Terminal() noexcept { return m_Console; }
    [[nodiscard]] const GlobalOptions& Options() const noexcept { return m_Options; }
    /// The rule directory, absolute, with a backslash at its end.
    [[nodiscard]] const std::wstring& Directory() const noexcept { return m_Directory; }

    [[nodiscard]] bool DirectoryExists() const noexcept;
    /// The files in it.
    [[nodiscard]] RuleDirectory Store() const { return StoreAt(m_Directory, m_Options.Master); }

    /// Says on standard error what is damaged.
    void Warn(const std::string& text, const StoreReport& report);

    /// Makes this the only kxrule that changes the directory, until the session ends, and refuses while another process
    /// has the library initialised, unless forced. Waits for both as long as the options say.
    void Claim();

private:
    void Lock();
    void RefuseWhileInUse();
    /// Waits a moment, and says so the first time; false when the time for it is over.
    bool MayWait(const std::string& whom);
    void Open();

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

/// A UTF-8 path as an absolute one.
[[nodiscard]] std::wstring AbsolutePath(const std::string& path);

} // namespace Tool
