// A Windows Runtime with the two classes that the product uses, as the test describes them.
//
// The product looks the functions up at run time and keeps them, and the factories as well, until the process ends:
// so a test that uses this must be the only one of its process, as under ctest.
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

#include "support/runtime_abi.h"
#include "support/substitute.h"

IMPORTED(GetProcAddress)

namespace repair
{
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
    std::int32_t status = 1;  // AsyncStatus: 1 completed, 2 canceled, 3 error
};

// Names of calls that fail, and of getters that succeed without an object.
struct Faults
{
    std::map<std::string, HRESULT> fails;
    std::map<std::string, std::wstring> texts;  // the error object that a failing call leaves on the thread
    std::set<std::string> nulls;
};

struct FakePackage
{
    std::wstring name;
    component::Version version = {};
    bool isOk = true;
    Faults faults =
        {};  // GetId GetFullName GetVersion QueryInterface(IPackage3) GetStatus VerifyIsOK RemovePackage ...
    Ending removal = {};
    HRESULT removalError = S_OK;  // what the result of a completed removal says
    std::wstring removalText = {};
};

// An error object; `restricted` adds the interface with the error's own code.
::IUnknown* MakeErrorObject(const std::wstring& description, bool restricted, HRESULT code = S_OK,
                            const wchar_t* restrictedDescription = nullptr, HRESULT detailsResult = S_OK);
// Puts one on the calling thread, as a failing call does.
void LeaveErrorObject(::IUnknown* error);

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
    Faults faults;  // activation, ActivateInstance, FindPackages, First, GetHasCurrent, GetCurrent, MoveNext,
                    // GetDefault QueryInterface(...), Initialize, DownloadAndInstall, GetResults, GetOverallState
    Ending update;
    std::int32_t updateState = 3;
    std::function<void(component::StringIterable*)> onUpdate = [](component::StringIterable*) {};

    // Result of the activation while the thread has no apartment; CoIncrementMTAUsage makes one.
    HRESULT withoutApartment = S_OK;
    bool hasApartment = false;
    std::function<void()> onActivation = [] {};
    std::set<std::string> missingFunctions;

    // Calls of the product in order: "activate CLASS IID-OK", "mta", "find", "remove NAME OPTIONS", "complete", ...
    std::vector<std::wstring> Calls() const;
    void Record(const std::wstring& call);
    HRESULT ResultOf(const Faults& where, const std::string& method);

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

// Strings in the hands of anybody. Both are 0 when nothing was leaked; live objects are component::liveObjects.
int LiveStrings();
int LiveBasicStrings();

component::String MakeString(const std::wstring& text);
std::wstring TextOf(component::String text);
void DeleteString(component::String text);

// A removal or Store operation as the runtime would hand it out. The caller releases it.
component::AsyncOperation<component::DeploymentKind>* MakeRemoval(const FakePackage& package);
}  // namespace repair
