#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string_view>
#include <thread>

#include "base/handles.h"
#include "store/winrt_runtime.h"
#include "windows_check/findings.h"
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

namespace
{
constexpr wchar_t kSilence[] = L"no answer in ";

// Shared by the check's thread and the waiting one, which goes on without it after the time limit.
struct Attempt
{
    repair::EventHandle done = repair::EventHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Finding finding;
    std::atomic<DWORD> crash = 0;
};

// The attempt that is being waited for; the crash handler needs it.
std::atomic<Attempt*> current = nullptr;

DWORD mainThread = 0;  // the one that runs the checks

// A crash ends the check, not the program: its thread never goes on. A crash outside the checks ends the program.
LONG WINAPI NoteCrash(EXCEPTION_POINTERS* exception)
{
    const DWORD code = exception->ExceptionRecord->ExceptionCode;
    if (GetCurrentThreadId() == mainThread)
    {
        Print(L"\nThe program itself crashed: " + Hex(code) + L"\n");
        RemoveOwnThings();
        TerminateProcess(GetCurrentProcess(), kNotMade);
    }
    if (Attempt* const attempt = current.load())
    {
        attempt->crash = code;
        SetEvent(attempt->done.Get());
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

void RunOne(const Check& check, Finding& finding)
{
    try
    {
        finding.seen = check.look();
    }
    catch (const NotApplicable& reason)
    {
        finding = {nullptr, reason.reason, Verdict::kNotApplicable};
    }
    catch (const repair::WinrtError& error)
    {
        finding.seen = {ResultOf(error.code), error.message};
        if (error.code == REGDB_E_CLASSNOTREG)  // Wine 8 does not have the classes
        {
            finding = {nullptr, L"this system does not have the class", Verdict::kNotApplicable};
        }
    }
    catch (const std::exception& error)
    {
        finding.seen = L"the check ended with an exception: " + Widened(error.what());
    }
}

// Runs the check on a thread of its own.
Finding Look(const Check& check, DWORD limitMs)
{
    const auto attempt = std::make_shared<Attempt>();
    current = attempt.get();
    std::thread thread([attempt, check] {
        RunOne(check, attempt->finding);
        SetEvent(attempt->done.Get());
    });
    const bool isDone = WaitForSingleObject(attempt->done.Get(), limitMs) == WAIT_OBJECT_0;
    // A thread that is detached while it ends may crash in the compiler's library, during the next check.
    if (isDone && attempt->crash == 0)
    {
        thread.join();
    }
    else
    {
        thread.detach();
    }
    current = nullptr;
    if (!isDone)
    {
        return {nullptr, kSilence + Number(limitMs / 1000) + L" s"};
    }
    if (attempt->crash != 0)
    {
        return {nullptr, L"the check crashed: " + Hex(attempt->crash)};
    }
    return attempt->finding;
}

bool IsWanted(const Fact& fact, const std::vector<std::wstring>& only)
{
    return only.empty() || std::any_of(only.begin(), only.end(), [&](const std::wstring& name) {
               return name == Widened(fact.id) || name == Widened(fact.group);
           });
}

Finding CheckFact(const Fact& fact, DWORD limitMs)
{
    const auto check = std::find_if(AllChecks().begin(), AllChecks().end(),
                                    [&](const Check& one) { return std::string_view(one.id) == fact.id; });
    if (check == AllChecks().end())
    {
        return {&fact, L"the program has no check of it"};
    }
    const ULONGLONG start = GetTickCount64();
    Finding finding = Look(*check, limitMs);
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

std::vector<Finding> RunChecks(const std::vector<std::wstring>& only, DWORD longestMs)
{
    mainThread = GetCurrentThreadId();
    SetUnhandledExceptionFilter(NoteCrash);
    std::set_terminate(NoteTerminate);
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);  // no box of the system, whatever happens
    // A check that hangs may hold something that other checks wait for; so the rest gets less time.
    constexpr int kSilentOnes = 3;
    constexpr DWORD kShortMs = 3'000;
    int silent = 0;
    std::vector<Finding> findings;
    for (const Fact& fact : AllFacts())
    {
        if (IsWanted(fact, only))
        {
            const DWORD shortest = silent < kSilentOnes ? longestMs : std::min(longestMs, kShortMs);
            findings.push_back(CheckFact(fact, std::min(fact.limitMs, shortest)));
            silent += findings.back().seen.text.starts_with(kSilence) ? 1 : 0;
        }
    }
    return findings;
}
}  // namespace windows_check
