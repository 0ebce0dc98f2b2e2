#include "windows_check/runner.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string_view>

#include "store/winrt_runtime.h"
#include "windows_check/own_things.h"
#include "windows_check/words.h"

namespace windows_check
{
std::vector<Check>& AllChecks()
{
    static std::vector<Check> checks;
    return checks;
}

void Need(bool condition, const std::wstring& reason)
{
    if (!condition)
    {
        throw NotApplicable{reason};
    }
}

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
    Finding finding;
    std::atomic<DWORD> crash = 0;
};

// The attempt that is being waited for; the crash handler needs it.
std::atomic<Attempt*> current = nullptr;

DWORD mainThread = 0;  // the one that runs the checks

// The program itself crashed: removes what it made and restores the console, as far as that still works.
[[noreturn]] void EndBroken(DWORD code)
{
    constexpr UINT kNotMade = 2;  // the checks could not be made
    constexpr DWORD kPatienceMs = 15'000;
    static DWORD crash;
    crash = code;
    // On a thread of its own: the stack of this one may be used up, and it may hold a lock.
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

// A crash ends the check, not the program: its thread never goes on. A crash outside the checks ends the program.
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

// An uncaught exception on a thread that a check has started.
[[noreturn]] void NoteTerminate()
{
    constexpr DWORD kUncaughtException = 0x20474343;  // how the compiler's exceptions are numbered
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = kUncaughtException;
    EXCEPTION_POINTERS pointers = {&record, nullptr};
    NoteCrash(&pointers);
    std::abort();  // not reached
}

// A call of the Windows Runtime failed. Wine 8 does not have the classes.
Finding OfFailedCall(const repair::WinrtError& error)
{
    return error.code == REGDB_E_CLASSNOTREG
               ? Finding{nullptr, Saw(L"this system does not have the class"), Verdict::kNotApplicable}
               : Finding{nullptr, Saw(ResultOf(error.code), error.message)};
}

DWORD WINAPI RunOne(void* argument)
{
    const std::unique_ptr<std::shared_ptr<Attempt>> attempt(static_cast<std::shared_ptr<Attempt>*>(argument));
    Finding& finding = (*attempt)->finding;
    try
    {
        finding.seen = (*attempt)->check.look();
    }
    catch (const NotApplicable& reason)
    {
        finding = {nullptr, Saw(reason.reason), Verdict::kNotApplicable};
    }
    catch (const repair::WinrtError& error)
    {
        finding = OfFailedCall(error);
    }
    catch (const std::exception& error)
    {
        finding.seen = Saw(L"the check ended with an exception: " + Widened(error.what()));
    }
    catch (...)
    {
        finding.seen = Saw(L"the check ended with an exception");
    }
    SetEvent((*attempt)->done);
    return 0;
}

// Runs the check on a thread of its own.
Finding Look(const Check& check, DWORD limitMs)
{
    const auto attempt = std::make_shared<Attempt>(check);
    auto own = std::make_unique<std::shared_ptr<Attempt>>(attempt);
    current = attempt.get();
    const HANDLE thread = CreateThread(nullptr, 0, RunOne, own.get(), 0, nullptr);
    if (thread == nullptr)
    {
        current = nullptr;
        return {nullptr, Saw(L"no thread for the check: " + Number(GetLastError()))};
    }
    [[maybe_unused]] auto* const handedOver = own.release();
    CloseHandle(thread);
    const bool isDone = WaitForSingleObject(attempt->done, limitMs) == WAIT_OBJECT_0;
    current = nullptr;
    if (!isDone)
    {
        return {nullptr, Saw(kSilence + Number(limitMs / 1000) + L" s")};
    }
    if (attempt->crash != 0)
    {
        return {nullptr, Saw(L"the check crashed: " + Hex(attempt->crash))};
    }
    return attempt->finding;
}

bool IsWanted(const Fact& fact, const std::vector<std::wstring>& only)
{
    return only.empty() || std::any_of(only.begin(), only.end(), [&](const std::wstring& name) {
               return name == Widened(fact.id) || name == Widened(fact.group);
           });
}

Finding CheckFact(const Fact& fact, const Check& check, DWORD limitMs)
{
    const ULONGLONG start = GetTickCount64();
    Finding finding = Look(check, limitMs);
    finding.fact = &fact;
    finding.milliseconds = static_cast<DWORD>(GetTickCount64() - start);
    if (finding.verdict == Verdict::kDiffers &&
        std::count(fact.expected.begin(), fact.expected.end(), finding.seen.text) > 0)
    {
        finding.verdict = Verdict::kOk;
    }
    return finding;
}
}  // namespace

std::vector<Finding> RunChecks(const std::vector<std::wstring>& only, DWORD longestMs, std::wstring& complaint)
{
    std::map<std::string_view, Check> checks;
    for (const Check& check : AllChecks())
    {
        checks.emplace(check.id, check);
    }
    for (const Fact& fact : AllFacts())
    {
        complaint += checks.count(fact.id) == 0 ? L"there is no check of " + Widened(fact.id) + L"\n" : L"";
    }
    if (checks.size() != AllFacts().size() || AllChecks().size() != AllFacts().size())
    {
        complaint += Number(AllChecks().size()) + L" checks, " + Number(AllFacts().size()) + L" facts\n";
    }
    if (!complaint.empty())
    {
        return {};
    }

    mainThread = GetCurrentThreadId();
    SetUnhandledExceptionFilter(NoteCrash);
    std::set_terminate(NoteTerminate);
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);  // no box of the system, whatever happens
    // Checks that did not come back may hold what others wait for; the rest then gets less time.
    constexpr int kSilentOnes = 3;
    constexpr DWORD kShortMs = 3'000;
    int silent = 0;
    std::vector<Finding> findings;
    for (const Fact& fact : AllFacts())
    {
        if (IsWanted(fact, only))
        {
            const DWORD shortest = silent < kSilentOnes ? longestMs : std::min(longestMs, kShortMs);
            findings.push_back(CheckFact(fact, checks.at(fact.id), std::min(fact.limitMs, shortest)));
            silent += findings.back().seen.text.starts_with(kSilence) ? 1 : 0;
        }
    }
    return findings;
}
}  // namespace windows_check
