// Runs the lab's Windows Runtime component inside the test program. Its packages and results are set in memory.
//
// The product looks the functions up at run time and keeps them, and the factories too, until the process ends. So each
// test that uses this needs a process of its own.
#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "lab/standins/winrt/classes.h"
#include "lab/standins/winrt/object.h"
#include "support/substitute.h"

IMPORTED(GetProcAddress, SysAllocString, WindowsCreateString, WindowsDeleteString)

namespace lab
{
inline void PrintTo(Completion::Kind when, std::ostream* stream)
{
    *stream << (when == Completion::kBefore   ? "before"
                : when == Completion::kInside ? "inside"
                : when == Completion::kThread ? "thread"
                                              : "later");
}
}  // namespace lab

namespace repair
{
inline constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);

namespace component = winrt_abi;

// A failure with this text in a restricted error object.
lab::Answer Failure(HRESULT code, const std::wstring& text);

// `packages` sets the answers of each package, `manager` those of the manager and its list, `store` those of the Store.
// The destructor reports what the product did not release.
class FakeRuntime : public lab::Script
{
public:
    FakeRuntime();
    ~FakeRuntime();
    FakeRuntime(const FakeRuntime&) = delete;
    FakeRuntime& operator=(const FakeRuntime&) = delete;
    FakeRuntime(FakeRuntime&&) = delete;
    FakeRuntime& operator=(FakeRuntime&&) = delete;

    void AnswerEveryClass(const std::wstring& method, const lab::Answer& answer);

    std::set<std::string> missingFunctions;
    std::map<std::string, HRESULT> failingFunctions;  // WindowsCreateString, WindowsDuplicateString
    std::function<void()> onActivation = [] {};
    std::function<void(const std::wstring& call)> onCall = [](const std::wstring&) {};

    // The calls of the product as the component records them, without the code S_OK.
    std::vector<std::wstring> Calls() const { return calls_.Get(); }
    void Record(const std::wstring& call);

private:
    SharedList<std::wstring> calls_;
    ImportPatch lookUp_;
    ImportPatch createString_;
    ImportPatch deleteString_;
    ImportPatch createBasicString_;
};
}  // namespace repair
