// A Windows Runtime with the two classes that the product uses, as the test describes them.
//
// The product looks the functions up at run time and keeps them, and the factories too, until the process ends. So each
// test that uses this needs a process of its own.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lab/standins/winrt/abi.h"
#include "support/substitute.h"

IMPORTED(GetProcAddress)

namespace repair
{
namespace component = winrt_abi;

enum class Completion
{
    kBefore,  // finished when the operation is handed out
    kInside,  // the handler is called inside put_Completed
    kLater,   // on another thread, after put_Completed has returned
};

inline void PrintTo(Completion when, std::ostream* stream)
{
    *stream << (when == Completion::kBefore ? "before" : when == Completion::kInside ? "inside" : "later");
}

struct Ending
{
    Completion when = Completion::kLater;
    std::int32_t status = component::kCompleted;
};

// By method, or by interface for QueryInterface. get_Status of an operation is called "IAsyncInfo.get_Status".
struct Faults
{
    std::map<std::wstring, HRESULT> fails;
    std::map<std::wstring, std::wstring> texts;  // the error object that a failing call leaves on the thread
    std::set<std::wstring> nulls;                // methods that succeed without an object
};

struct FakePackage
{
    std::wstring name;
    component::PackageVersion version = {};
    bool isOk = true;
    Faults faults = {};
    Ending removal = {};
    HRESULT removalError = S_OK;  // what the result of a completed removal says
    std::wstring removalText = {};
};

struct ErrorDescription
{
    std::wstring description;
    bool isRestricted = true;  // it also has the interface with the error's own code
    HRESULT code = S_OK;
    const wchar_t* restrictedDescription = nullptr;
    HRESULT detailsResult = S_OK;
};
// Puts an error object on the calling thread, as a failing call does.
void LeaveErrorObject(const ErrorDescription& error);

class FakeRuntime
{
public:
    FakeRuntime();
    ~FakeRuntime();
    FakeRuntime(const FakeRuntime&) = delete;
    FakeRuntime& operator=(const FakeRuntime&) = delete;
    FakeRuntime(FakeRuntime&&) = delete;
    FakeRuntime& operator=(FakeRuntime&&) = delete;

    std::list<FakePackage> packages;
    Faults faults;  // of everything but the packages; "activation" is RoGetActivationFactory
    Ending update;
    std::int32_t updateState = 3;
    std::function<void(component::IStringIterable*)> onUpdate = [](component::IStringIterable*) {};

    // Result of the activation while the thread has no apartment; CoIncrementMTAUsage makes one.
    HRESULT withoutApartment = S_OK;
    bool hasApartment = false;
    std::function<void()> onActivation = [] {};
    std::set<std::string> missingFunctions;

    // Calls of the product in order: "activate CLASS", "mta", "find", "remove NAME OPTIONS", "complete", ...
    std::vector<std::wstring> Calls() const;
    void Record(const std::wstring& call);

    // The code with which the method fails, with its error object; S_OK if it does not fail.
    static HRESULT ResultOf(const Faults& where, const std::wstring& method);

    HRESULT Activate(const std::wstring& name, const GUID& id, void** factory);
    void Later(std::function<void()> action);
    void WaitForThreads();

    static FakeRuntime& Current();

private:
    mutable std::mutex mutex_;
    std::vector<std::wstring> calls_;
    std::vector<std::thread> threads_;
    ImportPatch lookUp_;
};

// How many exist now: objects of the fake, strings, and strings of classic COM.
int LiveObjects();
int LiveStrings();
int LiveBasicStrings();

HSTRING MakeString(const std::wstring& text);
std::wstring TextOf(HSTRING text);
void DeleteString(HSTRING text);

// A removal as the runtime would hand it out, with one reference for the caller. The package must outlive it.
component::IDeploymentOperation* MakeRemoval(const FakePackage& package);
}  // namespace repair
