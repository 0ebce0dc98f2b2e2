#include "windows_check/runner.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string_view>

#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
namespace
{
constexpr wchar_t kSilence[] = L"no answer in ";

// Shared by the check's thread and the one that waits for it, which may go on alone.
struct Attempt
{
    explicit Attempt(const Check& wanted) : check(wanted), done(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Attempt() { CloseHandle(done); }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;
    Attempt(Attempt&&) = delete;
    Attempt& operator=(Attempt&&) = delete;

    Check check;
    HANDLE done;
    Seen seen;
    std::atomic<DWORD> crash = 0;
};

// The one that is being waited for; only a crash looks at it.
std::atomic<Attempt*> current = nullptr;

DWORD mainThread = 0;  // the one that runs the checks

// The program itself is broken: what it made is removed and the console given back, as far as that still works.
[[noreturn]] void EndBroken(DWORD code)
{
    constexpr UINT kNotMade = 2;  // the checks could not be made
    constexpr DWORD kPatienceMs = 15'000;
    static DWORD crash;
    crash = code;
    // On a thread of its own: the stack of this one may be used up, and a lock that it holds must not keep it for ever.
    const HANDLE cleaner = CreateThread(
        nullptr, 0,
        [](void*) -> DWORD {
            const std::string text = Utf8(L"\nThe program itself crashed: " + Hex(crash) + L"\n");
            DWORD written = 0;
            WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
            RemoveOwnThings();
            GiveConsoleBack();
            return 0;
        },
        nullptr, 0, nullptr);
    WaitForSingleObject(cleaner, kPatienceMs);
    TerminateProcess(GetCurrentProcess(), kNotMade);
    std::abort();  // not reached
}

// A crash ends the check, not the program: its thread never goes on. One outside of the checks ends the program.
LONG WINAPI NoteCrash(EXCEPTION_POINTERS* exception)
{
    if (GetCurrentThreadId() == mainThread)
    {
        EndBroken(exception->ExceptionRecord->ExceptionCode);
    }
    if (Attempt* const attempt = current.load())
    {
        attempt->crash = exception->ExceptionRecord->ExceptionCode;
        SetEvent(attempt->done);
    }
    for (;;)
    {
        Sleep(INFINITE);
    }
}

// An exception that nobody catches, on a thread that a check has started.
[[noreturn]] void NoteTerminate()
{
    constexpr DWORD kUncaughtException = 0x20474343;  // how the compiler's exceptions are numbered
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = kUncaughtException;
    EXCEPTION_POINTERS pointers = {&record, nullptr};
    NoteCrash(&pointers);
    std::abort();  // not reached
}

DWORD WINAPI RunOne(void* argument)
{
    const std::unique_ptr<std::shared_ptr<Attempt>> attempt(static_cast<std::shared_ptr<Attempt>*>(argument));
    Seen seen;
    try
    {
        seen = (*attempt)->check.look();
    }
    catch (const std::exception& error)
    {
        seen = Saw(L"the check ended with an exception: " + Widened(error.what()));
    }
    catch (...)
    {
        seen = Saw(L"the check ended with an exception");
    }
    (*attempt)->seen = std::move(seen);
    SetEvent((*attempt)->done);
    return 0;
}

Seen Look(const Check& check, DWORD longestMs)
{
    const auto attempt = std::make_shared<Attempt>(check);
    auto own = std::make_unique<std::shared_ptr<Attempt>>(attempt);
    current = attempt.get();
    const HANDLE thread = CreateThread(nullptr, 0, RunOne, own.get(), 0, nullptr);
    if (thread == nullptr)
    {
        current = nullptr;
        return Saw(L"no thread for the check: " + Number(GetLastError()));
    }
    [[maybe_unused]] auto* const handedOver = own.release();
    CloseHandle(thread);
    const DWORD limitMs = std::min(check.limitMs, longestMs);
    const bool isDone = WaitForSingleObject(attempt->done, limitMs) == WAIT_OBJECT_0;
    current = nullptr;
    if (!isDone)
    {
        return Saw(kSilence + Number(limitMs / 1000) + L" s");
    }
    if (attempt->crash != 0)
    {
        return Saw(L"the check crashed: " + Hex(attempt->crash));
    }
    return attempt->seen;
}

std::map<std::string_view, Check> ChecksById(std::wstring& complaint)
{
    std::map<std::string_view, Check> checks;
    for (const auto list :
         {LibraryChecks, ProcessChecks, EventChecks, RegistryChecks, MessageChecks, TextChecks, ReadingChecks,
          FolderChecks, RemovalChecks, SharingChecks, SecurityChecks, DeviceChecks, InfChecks, InstallerChecks,
          InternetChecks, DownloadChecks, RuntimeChecks, StoreChecks, WindowChecks})
    {
        for (const Check& check : list())
        {
            if (!checks.emplace(check.id, check).second)
            {
                complaint += L"two checks are called " + Widened(check.id) + L"\n";
            }
        }
    }
    return checks;
}
}  // namespace

namespace
{
bool IsWanted(const Fact& fact, const std::vector<std::wstring>& only)
{
    return only.empty() || std::any_of(only.begin(), only.end(), [&](const std::wstring& name) {
               return name == Widened(fact.id) || name == Widened(fact.group);
           });
}
}  // namespace

const char* NameOf(Verdict verdict)
{
    switch (verdict)
    {
        case Verdict::kOk:
            return "ok";
        case Verdict::kNotApplicable:
            return "not applicable";
        case Verdict::kDiffers:
            break;
    }
    return "differs";
}

std::vector<Finding> RunChecks(const std::vector<std::wstring>& only, DWORD longestMs, std::wstring& complaint)
{
    std::map<std::string_view, Check> checks = ChecksById(complaint);
    for (const Fact& fact : AllFacts())
    {
        if (checks.count(fact.id) == 0)
        {
            complaint += L"no check looks at " + Widened(fact.id) + L"\n";
        }
    }
    if (checks.size() != AllFacts().size())
    {
        complaint += Number(static_cast<long long>(checks.size())) + L" checks, " +
                     Number(static_cast<long long>(AllFacts().size())) + L" facts\n";
    }
    if (!complaint.empty())
    {
        return {};
    }

    mainThread = GetCurrentThreadId();
    SetUnhandledExceptionFilter(NoteCrash);
    std::set_terminate(NoteTerminate);
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);  // no box of the system, whatever happens
    // Where several did not come back they may hold what others wait for: nobody should wait for hours.
    constexpr int kSilentOnes = 3;
    constexpr DWORD kShortMs = 3'000;
    int silent = 0;
    std::vector<Finding> findings;
    for (const Fact& fact : AllFacts())
    {
        if (!IsWanted(fact, only))
        {
            continue;
        }
        Finding finding;
        finding.fact = &fact;
        const ULONGLONG start = GetTickCount64();
        finding.seen = Look(checks.at(fact.id), silent < kSilentOnes ? longestMs : std::min(longestMs, kShortMs));
        silent += finding.seen.text.starts_with(kSilence) ? 1 : 0;
        finding.milliseconds = static_cast<DWORD>(GetTickCount64() - start);
        if (!finding.seen.applies)
        {
            finding.verdict = Verdict::kNotApplicable;
        }
        for (const std::wstring_view expected : fact.expected)
        {
            if (finding.seen.applies && finding.seen.text == expected)
            {
                finding.verdict = Verdict::kOk;
            }
        }
        findings.push_back(std::move(finding));
    }
    return findings;
}
}  // namespace windows_check
