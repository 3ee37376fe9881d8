// What waits for a confirmation stands in a file, so that it outlives every process and the machine's restart; a
// detached kxrule waits beside. The file decides: whoever changes it holds the directory's lock, and the process looks
// into it before it does anything. Its event only spares it the waiting, and tells others that it is there.
#include "tools/kxrule/commands/Confirmation.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

#include "persistence/Copies.h"
#include "persistence/Files.h"
#include "policy/JsonText.h"
#include "policy/Utf8.h"
#include "policy/Words.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

constexpr char kFileName[] = "KxRulCfm.txt";
constexpr uint32_t kMostBytes = 1 << 16;
constexpr DWORD kPatience = 2000; // milliseconds, for programs that look at the file, and for a process to end
constexpr DWORD kStartTime = 10000;
constexpr DWORD kPause = 10000; // before another try to take back what could not be
constexpr uint64_t kSecond = 1000;
constexpr uint64_t kTicks = 10000; // of a file time in a millisecond

uint64_t TimeNow() noexcept
{
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    return (uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime) / kTicks;
}

/// The local time, as for RuleBackup.
std::string TimeText(uint64_t milliseconds)
{
    const uint64_t ticks = milliseconds * kTicks;
    const FILETIME utc = {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    FILETIME local{};
    SYSTEMTIME time{};
    if (::FileTimeToLocalFileTime(&utc, &local) == FALSE || ::FileTimeToSystemTime(&local, &time) == FALSE)
        return "an unknown time";
    char text[32];
    std::snprintf(text, std::size(text), "%04u-%02u-%02u %02u:%02u:%02u", time.wYear, time.wMonth, time.wDay,
                  time.wHour, time.wMinute, time.wSecond);
    return text;
}

std::string PathIn(const RuleDirectory& store)
{
    return store.Path() + kFileName;
}

/// Flushed, and put in place in one step.
void Write(const RuleDirectory& store, const Unconfirmed& unconfirmed)
{
    const std::string text = JsonLine(Json({{"takenBack", unconfirmed.IsTakenBack},
                                            {"whole", unconfirmed.IsWhole},
                                            {"master", unconfirmed.Master},
                                            {"file", unconfirmed.File},
                                            {"time", unconfirmed.Time},
                                            {"seconds", unconfirmed.Seconds},
                                            {"copies", unconfirmed.Copies},
                                            {"problem", unconfirmed.Problem}})) +
                             "\n";
    // Called as those of the store, so that tidy finds what is left of one.
    const std::string temporary = Files::TemporaryName(store.Path(), FileFormat::kMasterTemporary);
    KxCommon::UniqueFile file =
        temporary.empty() ? KxCommon::UniqueFile() : Files::Open(temporary.c_str(), GENERIC_WRITE, CREATE_ALWAYS);
    const bool isWritten = file && Files::Write(file.get(), text.data(), static_cast<uint32_t>(text.size())) &&
                           Files::Flush(file.get()) && Files::Close(file);
    const auto move = [&] { return Files::Move(temporary.c_str(), PathIn(store).c_str(), true); };
    if (isWritten && Files::Persist(kPatience, move, [](DWORD) { return true; }))
        return;
    const DWORD error = ::GetLastError();
    Files::Close(file);
    static_cast<void>(Files::Delete(temporary.c_str()));
    throw Failure(NarrowToUtf8(PathIn(store)) + " cannot be written: " + SystemText(error));
}

/// What is in the file, which may be anything.
std::optional<Unconfirmed> Parse(const std::string& text)
{
    const Json json = Json::parse(text, nullptr, false);
    const auto member = [&json](const char* name) { return json.is_object() ? json.value(name, Json()) : Json(); };
    for (const char* const name : {"file", "master", "copies", "problem"})
    {
        if (!member(name).is_string())
            return std::nullopt;
    }
    if (!member("takenBack").is_boolean() || !member("whole").is_boolean() || !member("time").is_number_unsigned() ||
        !member("seconds").is_number_unsigned() || member("time").get<uint64_t>() > uint64_t{INT64_MAX} / kTicks ||
        member("seconds").get<uint64_t>() > kMostConfirmSeconds ||
        (!member("takenBack").get<bool>() && member("seconds").get<uint64_t>() == 0))
        return std::nullopt;
    Unconfirmed read;
    read.IsTakenBack = member("takenBack").get<bool>();
    read.IsWhole = member("whole").get<bool>();
    read.Master = member("master").get<std::string>();
    read.File = member("file").get<std::string>();
    read.Time = member("time").get<uint64_t>();
    read.Seconds = member("seconds").get<uint32_t>();
    read.Copies = member("copies").get<std::string>();
    read.Problem = member("problem").get<std::string>();
    return read;
}

std::wstring EventName(const Session& session)
{
    return L"Global\\kxrule-confirm-" + IdentityOf(session.Directory());
}

/// The event of the process that waits; another account's may not be opened, but is there.
bool IsAwaited(const Session& session, KxCommon::UniqueKernelObject* event = nullptr)
{
    KxCommon::UniqueKernelObject opened(
        ::OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, EventName(session).c_str()));
    const bool isThere = opened || ::GetLastError() == ERROR_ACCESS_DENIED;
    if (event != nullptr)
        *event = std::move(opened);
    return isThere;
}

/// Lets the process that waits look at the file again.
void Wake(const Session& session)
{
    if (KxCommon::UniqueKernelObject event; IsAwaited(session, &event) && event)
        ::SetEvent(event.get());
}

/// Whether the process that waits, told to look at the file again, ends in time, or none was there.
bool HasEnded(const Session& session, DWORD patience)
{
    const auto isGone = [&session]
    {
        Wake(session);
        return !IsAwaited(session);
    };
    return Files::Persist(patience, isGone, [](DWORD) { return true; });
}

/// Nothing waits any more: ends the process. One that does not end finds nothing to do when its time is over.
void EndWaiting(const Session& session)
{
    RemoveUnconfirmed(session.Store());
    static_cast<void>(HasEnded(session, kPatience));
}

/// A job whose processes end with it, as that of a remote shell may be, must let this one out.
bool EndsWithItsJob()
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    return ::QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &limits, sizeof limits, nullptr) !=
               FALSE &&
           (limits.BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE) != 0;
}

/// Starts this program once more, without console, handles and job of its own, and waits until it waits.
void StartWaiting(const Session& session)
{
    std::wstring program(32768, L'\0');
    program.resize(::GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())));
    // A backslash before a quotation mark would not end the argument.
    std::wstring command = L"\"" + program + L"\" --force --wait 86400 --dir \"" + session.Directory() + L".\"";
    if (!session.Options().Master.empty())
        command += L" --master \"" + FromUtf8(session.Options().Master) + L"\"";
    command += L" await-confirmation";
    // Not the current directory, which nobody could remove as long as the process is there.
    const std::wstring directory = program.substr(0, program.find_last_of(L'\\') + 1);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    const auto start = [&](DWORD flags)
    {
        return ::CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE,
                                DETACHED_PROCESS | CREATE_NEW_PROCESS_GROUP | flags, nullptr, directory.c_str(),
                                &startup, &process) != FALSE;
    };
    bool isStarted = start(CREATE_BREAKAWAY_FROM_JOB);
    if (!isStarted && ::GetLastError() == ERROR_ACCESS_DENIED)
    {
        if (EndsWithItsJob())
            throw Failure("nothing is changed: no process would outlive this session to take the import back; start "
                          "kxrule otherwise, as from a scheduled task");
        isStarted = start(0);
    }
    if (!isStarted)
        throw Failure("nothing is changed: the process that would take the import back cannot be started: " +
                      SystemText(::GetLastError()));
    const KxCommon::UniqueKernelObject handle(process.hProcess);
    const KxCommon::UniqueKernelObject thread(process.hThread);
    for (const ULONGLONG begin = ::GetTickCount64(); !IsAwaited(session);)
    {
        if (::WaitForSingleObject(handle.get(), 10) == WAIT_TIMEOUT && ::GetTickCount64() - begin < kStartTime)
            continue;
        ::TerminateProcess(handle.get(), ExitFailed);
        throw Failure("nothing is changed: the process that would take the import back does not start");
    }
}

/// Makes the files what they were, bit by bit, whatever that was. The session keeps what it replaces.
std::vector<std::string> TakeBack(Session& session, Unconfirmed& unconfirmed)
{
    const RuleDirectory store = session.Store();
    if (unconfirmed.Seconds == 0)
        throw Failure(unconfirmed.Problem);
    if (unconfirmed.Master != NarrowToUtf8(store.MasterFileName()))
        throw Failure("the import was made with --master " + unconfirmed.Master);
    const auto begin = [&] // from here on the files are neither the one nor the other
    {
        if (std::exchange(unconfirmed.IsWhole, false))
            Write(store, unconfirmed);
    };
    if (unconfirmed.Copies.empty())
    {
        begin();
        PutStore(session, store, {}); // there were none
        return {};
    }
    const std::vector<Copies::Dated> backups = Copies::FindBackups(store);
    const auto isMeant = [&](const Copies::Dated& copy) { return NarrowToUtf8(copy.Name) == unconfirmed.Copies; };
    if (std::none_of(backups.begin(), backups.end(), isMeant))
        throw Failure("there is no copy \"" + unconfirmed.Copies + "\"");
    const RuleDirectory source = StoreAt(session.Directory() + FromUtf8(unconfirmed.Copies), session.Options().Master);
    const auto changes = Copies::Compare(source, source);
    if (!Copies::HasManifest(source) || !changes || !changes->empty())
        throw Failure(unconfirmed.Copies + " is not what was copied");
    std::vector<std::string> names = StoreFileNames(source);
    begin();
    PutStore(session, source, names);
    return names;
}

/// What is left to do when the files are the old ones again.
std::string ToRestart()
{
    const std::string users = LibraryUsers();
    return users.empty() ? "" : "restart what has read the rules before" + users;
}

/// Takes it back if it still waits, or notes why it could not. In a session of its own: between two tries others may
/// have the lock. All tries have one copy of what they replace: the disk may be full one day.
void TakeBackInTime(Session& waiting, const Unconfirmed& awaited)
{
    Session session(waiting.Options(), waiting.Terminal());
    session.ShareCopies(waiting);
    session.Claim(Session::OnUnconfirmed::TakeBack);
    if (FindUnconfirmed(session.Store()) != awaited)
        return;
    Unconfirmed now = awaited;
    try
    {
        static_cast<void>(TakeBack(session, now));
        now.IsTakenBack = true;
        now.Time = TimeNow();
        now.Copies = NarrowToUtf8(session.CopiesName());
        now.Problem = ToRestart();
    }
    catch (const std::exception& exception)
    {
        now.Problem = exception.what();
    }
    waiting.ShareCopies(session);
    if (now != awaited)
        Write(session.Store(), now);
}

} // namespace

std::optional<Unconfirmed> FindUnconfirmed(const RuleDirectory& store)
{
    KxCommon::UniqueFile file;
    const auto open = [&]
    {
        file = Files::Open(PathIn(store).c_str(), GENERIC_READ, OPEN_EXISTING,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        return static_cast<bool>(file);
    };
    if (!Files::Persist(kPatience, open, Files::IsUnknown) && !Files::IsUnknown(::GetLastError()))
        return std::nullopt;
    std::string text(kMostBytes, '\0');
    uint32_t got = 0;
    if (!file || !Files::Read(file.get(), text.data(), kMostBytes, &got))
        got = 0;
    text.resize(got);
    std::optional<Unconfirmed> read = Parse(text);
    if (!read)
        read.emplace().Problem = std::string(kFileName) + " cannot be read";
    if (read->IsTakenBack && read->Time == 0) // it is over, and only its file is left
        return std::nullopt;
    return read;
}

std::string UnconfirmedText(const Session& session, const Unconfirmed& unconfirmed)
{
    const std::string import = "the import of \"" + Printable(unconfirmed.File) + "\" ";
    const std::string problem = Printable(unconfirmed.Problem);
    if (unconfirmed.IsTakenBack)
        return import + "was not confirmed and was taken back " + TimeText(unconfirmed.Time) +
               (unconfirmed.Copies.empty() ? "" : "; what it had made is in " + Printable(unconfirmed.Copies)) +
               (problem.empty() ? "" : "; " + problem);
    const std::string choice = "\"kxrule confirm\" keeps it, \"kxrule undo\" takes it back";
    if (!problem.empty())
        return import + "was not confirmed, and could not be taken back: " + problem + "; " + choice;
    return IsAwaited(session) ? import + "will be taken back " + TimeText(unconfirmed.Time) + "; " + choice
                              : import +
                                    "was not confirmed, and nothing is left that takes it back, as after a "
                                    "restart of the machine; " +
                                    choice;
}

Json UnconfirmedAsJson(const Unconfirmed& unconfirmed)
{
    Json json = {{"file", unconfirmed.File},
                 {"seconds", unconfirmed.Seconds},
                 {unconfirmed.IsTakenBack ? "takenBack" : "until", TimeText(unconfirmed.Time)}};
    if (!unconfirmed.Copies.empty())
        json["copies"] = unconfirmed.Copies;
    if (!unconfirmed.Problem.empty())
        json["problem"] = unconfirmed.Problem;
    return json;
}

// The end of a file may not outlive a loss of power: what comes back then must not wait for anything.
void RemoveUnconfirmed(const RuleDirectory& store)
{
    Unconfirmed over;
    over.IsTakenBack = true;
    const auto remove = [&] { return Files::Delete(PathIn(store).c_str()); };
    try
    {
        Write(store, over);
    }
    catch (const Failure&)
    {
        if (!remove()) // on a full disk this needs no room
            throw;
        return;
    }
    static_cast<void>(Files::Persist(kPatience, remove, [](DWORD error) { return Files::IsUnknown(error); }));
}

Unconfirmed BeginUnconfirmed(Session& session, const std::string& file, uint32_t seconds)
{
    // One that waited before this note is written ends; afterwards it would wait for this one, or could not be reached.
    if (!HasEnded(session, kStartTime))
        throw Failure("nothing is changed: the process that waited for an earlier import does not end; end \"kxrule "
                      "await-confirmation\", or import without --confirm");
    Unconfirmed unconfirmed;
    unconfirmed.File = file;
    unconfirmed.Master = NarrowToUtf8(session.Store().MasterFileName());
    unconfirmed.Seconds = seconds;
    unconfirmed.Time = TimeNow() + kSecond * seconds;
    unconfirmed.Copies = NarrowToUtf8(session.CopiesName());
    Write(session.Store(), unconfirmed);
    try
    {
        StartWaiting(session);
    }
    catch (...)
    {
        RemoveUnconfirmed(session.Store());
        throw;
    }
    return unconfirmed;
}

void StartTheTime(Session& session, Unconfirmed& unconfirmed)
{
    unconfirmed.Time = TimeNow() + kSecond * unconfirmed.Seconds;
    unconfirmed.IsWhole = true;
    Write(session.Store(), unconfirmed);
    Wake(session);
    if (!IsAwaited(session))
        throw Failure(UnconfirmedText(session, unconfirmed));
}

int Confirm(Session& session)
{
    RequireDirectory(session.Directory());
    session.Lock();
    const std::optional<Unconfirmed> unconfirmed = FindUnconfirmed(session.Store());
    if (!unconfirmed)
        throw Failure("no import waits for a confirmation");
    if (!unconfirmed->IsTakenBack && !unconfirmed->IsWhole && !session.Options().Force)
        throw Failure(
            "the files are not what the import makes of them; \"kxrule undo\" takes it back, \"kxrule --force "
            "confirm\" keeps them as they are");
    session.BeginChange();
    EndWaiting(session);
    if (unconfirmed->IsTakenBack)
        throw Failure("too late: " + UnconfirmedText(session, *unconfirmed));
    session.Terminal().Out(session.Options().Json
                               ? JsonLine(Json({{"confirmed", unconfirmed->File}})) + "\n"
                               : "the import of \"" + Printable(unconfirmed->File) + "\" is confirmed and stays\n");
    return ExitDone;
}

bool TakeBackUnconfirmed(Session& session)
{
    const std::optional<Unconfirmed> seen = FindUnconfirmed(session.Store());
    if (!seen)
        return false;
    session.Claim(Session::OnUnconfirmed::TakeBack);
    std::optional<Unconfirmed> unconfirmed = FindUnconfirmed(session.Store());
    if (!unconfirmed)
        throw Failure("the import has been confirmed meanwhile");
    if (unconfirmed->IsTakenBack)
    {
        session.BeginChange();
        RemoveUnconfirmed(session.Store());
        throw Failure(UnconfirmedText(session, *unconfirmed) + "; \"kxrule undo\" once more brings it back");
    }
    const std::vector<std::string> names = TakeBack(session, *unconfirmed);
    EndWaiting(session);
    TellRestored(session, names);
    return true;
}

int AwaitConfirmation(Session& session)
{
    const KxCommon::UniqueKernelObject event(::CreateEventW(nullptr, FALSE, FALSE, EventName(session).c_str()));
    if (!event)
        throw Failure("waiting for a confirmation: " + SystemText(::GetLastError()));
    std::optional<Unconfirmed> awaited = FindUnconfirmed(session.Store());
    while (awaited && !awaited->IsTakenBack)
    {
        // The wall clock is read only once: changing it does not change the delay.
        const uint64_t rest = std::min(awaited->Time - std::min(TimeNow(), awaited->Time), kSecond * awaited->Seconds);
        const bool isAgain = !awaited->Problem.empty();
        if (::WaitForSingleObject(event.get(), isAgain ? kPause : static_cast<DWORD>(rest)) == WAIT_TIMEOUT &&
            awaited->Seconds > 0)
        {
            try
            {
                TakeBackInTime(session, *awaited);
            }
            catch (const std::exception&) // the file cannot be written, either
            {
                ::WaitForSingleObject(event.get(), kPause);
            }
        }
        awaited = FindUnconfirmed(session.Store());
    }
    return ExitDone;
}

} // namespace Tool
