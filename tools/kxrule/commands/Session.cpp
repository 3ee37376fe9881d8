// The library on a directory, from start to end.
#include "tools/kxrule/commands/Session.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Windows.h"

#include <tlhelp32.h>

#include "common/srclib/KxComn_Names.h"
#include "common/srclib/KxComn_Record.h"
#include "persistence/Copies.h"
#include "persistence/Files.h"
#include "policy/Apply.h"
#include "policy/JsonText.h"
#include "policy/LibraryStore.h"
#include "policy/ResultCodes.h"
#include "policy/Utf8.h"
#include "rules/Macro.h"
#include "rules/RuleText.h"
#include "tools/kxrule/commands/Confirmation.h"
#include "tools/kxrule/console/Columns.h"
#include "tools/kxrule/console/Interrupt.h"

namespace Tool
{
namespace
{

/// Whether a process has the rule library loaded; also false if access to it is denied.
bool HasLibrary(DWORD process)
{
    const KxCommon::UniqueFile modules(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, process));
    MODULEENTRY32W module{};
    module.dwSize = sizeof module;
    for (BOOL more = modules && ::Module32FirstW(modules.get(), &module); more != FALSE;
         more = ::Module32NextW(modules.get(), &module))
    {
        if (KxCommon::String::EqualNoCase(module.szModule, L"KxPfwRul.dll"))
            return true;
    }
    return false;
}

bool IsDirectory(const std::wstring& path) noexcept
{
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace

std::string LibraryUsers()
{
    const KxCommon::UniqueFile processes(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W process{};
    process.dwSize = sizeof process;
    std::string users;
    for (BOOL more = processes && ::Process32FirstW(processes.get(), &process); more != FALSE;
         more = ::Process32NextW(processes.get(), &process))
    {
        const DWORD id = process.th32ProcessID;
        if (id != 0 && id != ::GetCurrentProcessId() && process.szExeFile[0] != L'\0' && HasLibrary(id))
            users +=
                (users.empty() ? ": " : ", ") + ToUtf8(process.szExeFile) + " (process " + std::to_string(id) + ")";
    }
    return users;
}

void RequireDirectory(const std::wstring& path)
{
    if (!IsDirectory(path))
        throw Failure(Printable(ToUtf8(path)) + " is not a directory");
}

std::wstring IdentityOf(const std::wstring& directory)
{
    const KxCommon::UniqueFile handle(::CreateFileW(directory.c_str(), 0,
                                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION info{};
    if (!handle || ::GetFileInformationByHandle(handle.get(), &info) == FALSE)
        return {};
    wchar_t name[64];
    ::swprintf(name, std::size(name), L"%08lx-%08lx%08lx", info.dwVolumeSerialNumber, info.nFileIndexHigh,
               info.nFileIndexLow);
    return name;
}

std::wstring AbsolutePath(const std::string& path)
{
    const std::wstring wide = FromUtf8(path);
    std::wstring full(MAX_PATH, L'\0');
    DWORD length = ::GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length >= full.size())
    {
        full.resize(length);
        length = ::GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    }
    full.resize(length < full.size() ? length : 0);
    if (full.empty())
        throw Failure("\"" + path + "\" is not a path: " + SystemText(::GetLastError()));
    return full;
}

Session::Session(const GlobalOptions& options, Console& console) : m_Options(options), m_Console(console)
{
    m_Directory = options.Directory.empty() ? RuleLibrary::OwnDirectory() : AbsolutePath(options.Directory);
    if (m_Directory.back() != L'\\')
        m_Directory += L'\\';
    if (options.Master.find_first_of("\\/:") != std::string::npos)
        throw Failure("--master takes the name of a file in the rule directory, not a path", ExitUsage);
    m_Deadline = ::GetTickCount64() + uint64_t{1000} * options.Wait;
}

Session::~Session()
{
    if (m_Initialised && m_MayEnd)
        m_Library->kxRuleFinalize();
    else if (m_Initialised)
        static_cast<void>(m_Library.release()); // only a library that has been finalised may be unloaded
    if (m_Lock)
        ::ReleaseMutex(m_Lock.get());
}

bool Session::DirectoryExists() const noexcept
{
    return IsDirectory(m_Directory);
}

bool Session::MayWait(const std::string& whom)
{
    if (::GetTickCount64() >= m_Deadline)
        return false;
    if (!std::exchange(m_HasToldWaiting, true))
    {
        const std::string text = "waiting for " + whom + LibraryUsers();
        m_Console.Error(m_Options.Json ? JsonLine(Json({{"waiting", text}})) + "\n" : "kxrule: " + text + "\n");
    }
    ::Sleep(100);
    return true;
}

// By the identity of the directory, not by its name, of which there may be several. (For a directory on another
// machine, the lock excludes only programs of this machine.)
void Session::Lock()
{
    if (m_Lock)
        return;
    Store().MakeIfMissing();
    const std::wstring identity = IdentityOf(m_Directory);
    if (identity.empty())
        throw Failure(ToUtf8(m_Directory) + " cannot be opened: " + SystemText(::GetLastError()));
    const std::wstring name = L"Global\\kxrule-" + identity;
    for (;;)
    {
        // The mutex of another account cannot be opened; it exists as long as its owner does.
        KxCommon::UniqueKernelObject lock(::CreateMutexW(nullptr, FALSE, name.c_str()));
        const DWORD waited = lock ? ::WaitForSingleObject(lock.get(), 0) : WAIT_TIMEOUT;
        if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
        {
            m_Lock = std::move(lock);
            return;
        }
        if (!MayWait("another kxrule that is changing this store"))
            throw Failure("another kxrule is changing this store" + LibraryUsers() + "; use --wait to wait longer");
    }
}

bool Session::RefuseWhileInUse()
{
    const std::wstring name = L"Global\\" + std::wstring(KxCommon::Names::kMutexName);
    for (bool hasWaited = false; !m_Options.Force; hasWaited = true)
    {
        const KxCommon::UniqueKernelObject mutex(::OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
        if (!mutex && ::GetLastError() != ERROR_ACCESS_DENIED)
            return hasWaited;
        if (!MayWait("another process that has the rule library initialised"))
            throw Failure("another process has the rule library initialised" + LibraryUsers() +
                          " and may overwrite this change with its own state; stop it first, or use --force");
    }
    return false;
}

void Session::RefuseUnconfirmed()
{
    const std::optional<Unconfirmed> unconfirmed = FindUnconfirmed(Store());
    if (!unconfirmed)
        return;
    if (!unconfirmed->IsTakenBack)
        throw Failure("nothing is changed: " + UnconfirmedText(*this, *unconfirmed));
    TellUnconfirmed();
    RemoveUnconfirmed(Store());
}

void Session::TellUnconfirmed()
{
    const std::optional<Unconfirmed> unconfirmed = FindUnconfirmed(Store());
    if (!unconfirmed || std::exchange(m_HasToldUnconfirmed, true))
        return;
    const std::string text = UnconfirmedText(*this, *unconfirmed);
    m_Console.Error(m_Options.Json
                        ? JsonLine(Json({{"warning", text}, {"unconfirmed", UnconfirmedAsJson(*unconfirmed)}})) + "\n"
                        : "kxrule: " + text + "\n");
}

void Session::Claim(OnUnconfirmed onUnconfirmed)
{
    Lock();
    if (onUnconfirmed == OnUnconfirmed::Refuse)
        RefuseUnconfirmed();
    static_cast<void>(RefuseWhileInUse());
}

void Session::BeginChange() noexcept
{
    HoldInterrupts();
    m_MayEnd = false;
}

void Session::Open()
{
    const RuleDirectory store = Store();
    m_Library = std::make_unique<RuleLibrary>();
    Check(m_Library->kxRuleInitialize(store.Path().c_str(), store.MasterFileName().c_str()), "starting the library");
    m_Initialised = true;
    const int32_t result = m_Library->kxRuleRead();
    if (result != KXRULE_OK)
        throw Failure("reading " + ToUtf8(m_Directory) + ": " + ResultText(result) + Obstacle() +
                          "; \"kxrule verify\" shows which file",
                      ExitFailed, result);
}

RuleLibrary& Session::Library()
{
    if (!m_Library)
        Open();
    return *m_Library;
}

std::string Session::Obstacle() const
{
    const RuleDirectory store = Store();
    const std::string& path = store.Path();
    std::vector<std::string> names = {store.MasterFileName(), store.MacroFileName()};
    static_cast<void>(store.FindRuleSetFiles(names));
    std::string why;
    for (const std::string& name : names)
    {
        const DWORD attributes = Files::Attributes((path + name).c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES)
            continue;
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) // that surely is one
            return "; " + NarrowToUtf8(name) + " is a directory";
        if (!why.empty())
            continue;
        if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
            why = "; " + NarrowToUtf8(name) + " is write-protected";
        else if (!Files::Open((path + name).c_str(), GENERIC_WRITE, OPEN_EXISTING,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
            why = "; " + NarrowToUtf8(name) + ": " + SystemText(::GetLastError());
    }
    if (!why.empty())
        return why;
    const std::string temporary = Files::TemporaryName(path, FileFormat::kRuleSetTemporary);
    if (temporary.empty())
        return "; a file in it: " + SystemText(::GetLastError());
    {
        const std::vector<char> block(1 << 16);
        const KxCommon::UniqueFile file = Files::Open(temporary.c_str(), GENERIC_WRITE, CREATE_ALWAYS);
        if (!file || !Files::Write(file.get(), block.data(), static_cast<uint32_t>(block.size())))
            why = "; a file in it: " + SystemText(::GetLastError());
    }
    static_cast<void>(Files::Delete(temporary.c_str()));
    return why;
}

std::wstring Session::ExistingPath(const std::string& path) const
{
    const std::wstring here = AbsolutePath(path);
    const std::wstring inStore = m_Directory + FromUtf8(path);
    const bool isThere = ::GetFileAttributesW(here.c_str()) == INVALID_FILE_ATTRIBUTES &&
                         ::GetFileAttributesW(inStore.c_str()) != INVALID_FILE_ATTRIBUTES;
    return isThere ? inStore : here;
}

Policy Session::Look(const TakeRuleSet& take)
{
    RequireDirectory(m_Directory);
    const RuleDirectory store = Store();
    if (!m_Options.Master.empty() && !store.MayExist(store.MasterFileName()) &&
        store.MayExist(FileFormat::kMasterFileName))
        throw Failure(ToUtf8(m_Directory) + " has no master file \"" + m_Options.Master + "\", but " +
                      FileFormat::kMasterFileName);
    TellUnconfirmed();
    Policy policy;
    StoreReport report = CheckStore(store, m_Console, false, &policy, take);
    // A rule set that was deleted after the list was read looks like a missing one; the second read has the new list.
    if (report.IsDamaged())
        report = CheckStore(store, m_Console, false, &(policy = {}), take);
    if (report.IsDamaged())
        throw Failure("the store is damaged; \"kxrule verify\" shows what the library would do with it" +
                      report.Problems());
    return policy;
}

void Session::OpenToChange(OnDamage onDamage)
{
    Lock();
    RefuseUnconfirmed();
    const RuleDirectory store = Store();
    Policy policy;
    StoreReport report;
    do // the process that was waited for has changed it
    {
        policy = {};
        report = CheckStore(store, m_Console, false, &policy);
        if (report.IsDamaged() && onDamage == OnDamage::Refuse && !m_Options.Force)
            throw Failure(
                "the store is damaged, and nothing was changed" + report.Problems() +
                "\n\"kxrule restore\" brings a copy back, \"kxrule import FILE --replace\" makes the store match a "
                "policy, and --force continues with what can be read");
    } while (RefuseWhileInUse());
    m_MayEnd = true;
    if (!report.IsDamaged())
    {
        m_Looked = std::move(policy);
        return;
    }
    HoldInterrupts();
    CopyFiles();
    if (report.IsStopped && !m_Copies.empty()) // the library would read nothing
        store.Remove(store.MacroFileName());
    Warn("the store was damaged; copies of its files as they were are in " + Copies(), report);
    Open(); // changes start from what it makes of the damage
}

void Session::Warn(const std::string& text, const StoreReport& report)
{
    if (!m_Options.Json)
        return m_Console.Error("kxrule: " + text + report.Problems() + "\n");
    Json json = {{"warning", text}, {"files", Json::array()}};
    if (!m_Copies.empty())
        json["copies"] = Copies();
    for (const FileReport& file : report.Files)
    {
        if (file.What == Finding::Damaged)
            json["files"].push_back(
                {{"file", file.File}, {"problem", file.Problem}, {"consequence", file.Consequence}});
    }
    m_Console.Error(json.dump(2) + "\n");
}

void Session::CopyFiles()
{
    if (!m_Copies.empty())
        return;
    HoldInterrupts(); // half a copy would look like a whole one
    const RuleDirectory store = Store();
    const std::vector<std::string> names = StoreFileNames(store);
    std::string backup;
    std::string failed;
    if (!names.empty() && !Copies::CopyToBackup(store, names, backup, failed))
        throw Failure("copying " + NarrowToUtf8(failed) + " below " + ToUtf8(m_Directory) +
                      FileFormat::kBackupDirectory + ": " + SystemText(::GetLastError()));
    if (!names.empty())
        m_Copies = backup;
}

std::string Session::Copies() const
{
    return m_Copies.empty() ? std::string() : ToUtf8(m_Directory) + NarrowToUtf8(m_Copies);
}

void Session::RemoveOldCopies() const
{
    if (m_Options.Keep > 0 && !m_Copies.empty())
        Copies::RemoveOldest(Store(), m_Options.Keep, m_Copies);
}

void Session::Write()
{
    const int32_t result = Library().kxRuleWrite();
    if (result < 0)
        throw Failure("writing " + ToUtf8(m_Directory) + ": " + ResultText(result) + Obstacle(), ExitFailed, result);
    m_MayEnd = true;
}

Policy Session::Read()
{
    if (m_Looked)
        return *std::exchange(m_Looked, std::nullopt);
    Progress progress(m_Console, "reading the store");
    return ReadStore(*m_Library, [&progress](size_t done, size_t all) { progress.Show(done, all); });
}

std::string RuleLine(const PFW_RULE& rule)
{
    RuleText::Line line;
    return RuleText::Render(rule, line) == KXRULE_OK ? NarrowToUtf8(line.View()) : std::string();
}

std::string MacroLine(const MacroRecord& macro)
{
    std::string line;
    if (CMacro(macro.Name, macro.Items).GetMacroString(line) != KXRULE_OK)
        line = macro.Name + "=";
    return NarrowToUtf8(line);
}

} // namespace Tool
