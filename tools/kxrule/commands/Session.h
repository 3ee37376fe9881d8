// One use of a store: the library initialised on a directory, read, perhaps changed, ended.
#pragma once

#include <memory>
#include <string>

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
};

/// The functions throw Failure. What was begun with BeginChange and not written leaves the files as they were: the library
/// is then not finalised, so its last write does not happen.
class Session
{
public:
    Session(const GlobalOptions& options, Console& console);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Reads the store to look at it. Refuses a damaged one, since reading it with the library would move its files.
    void OpenToLook();
    /// Reads the store to change it. Refuses while another process has the library initialised, unless forced.
    void OpenToChange();
    /// Everything in the store. The macros' names are cut to their field as the library hands them out.
    [[nodiscard]] Policy Read();
    /// Copies the files of the store into a dated directory below RuleBackup; before anything that deletes.
    void KeepCopy();
    void BeginChange() noexcept { m_MayEnd = false; }
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

    /// A stored rule's and any macro's line of text; empty when the library has none for it.
    [[nodiscard]] std::string RuleLine(uint16_t ruleSetIndex, uint16_t ruleIndex);
    [[nodiscard]] std::string MacroLine(const MacroRecord& macro);

    /// Refuses while another process has the library initialised, unless forced.
    void RefuseWhileInUse() const;

private:
    void Open();
    [[nodiscard]] std::vector<RuleSetRecord> ReadRuleSets();
    [[nodiscard]] std::vector<MacroRecord> ReadMacros();

    const GlobalOptions& m_Options;
    Console& m_Console;
    std::wstring m_Directory;
    std::unique_ptr<RuleLibrary> m_Library;
    bool m_Initialised = false;
    bool m_MayEnd = false; // whatever is unwritten may be written
};

/// A UTF-8 path as an absolute one.
[[nodiscard]] std::wstring AbsolutePath(const std::string& path);

} // namespace Tool
