#include <windows.h>

#include <oleauto.h>

#include <new>
#include <thread>

#include "store/winrt_runtime.h"
#include "support/fake_runtime.h"
#include "support/system_text.h"
#include "support/test.h"

IMPORTED(FormatMessageW, GetModuleHandleW, LoadLibraryExW)

namespace repair
{
namespace
{
constexpr HRESULT kNoText = static_cast<HRESULT>(0xA0001234);  // the system has no text for it: the customer bit is set

std::wstring MessageFor(HRESULT code)
{
    try
    {
        ThrowWinrtError(code);
    }
    catch (const WinrtError& error)
    {
        EXPECT_EQ(error.code, code);
        return error.message;
    }
}

class ErrorText : public testing::Test
{
protected:
    FakeRuntime runtime_;
};

// Proves: It carries none, one for another code, one that cannot tell, or it is another thread's => the system's text for the code; empty when there is none
// Own process: the functions of the Windows Runtime are looked up once in a process.
TEST_F(ErrorText, WithoutAnErrorObjectIsTheSystemsOneWithoutTrailingBlanks)
{
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
    EXPECT_EQ(MessageFor(kNoText), L"");
    std::thread([] { lab::PutErrorObject(Failure(kDenied, L"of another thread")); }).join();
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, OfTheSystemIsInTheUsersLanguageAndKeepsItsLineBreaks)
{
    wchar_t* memory = nullptr;
    SUBSTITUTE(FormatMessageW)
    format([&](DWORD flags, const void*, DWORD code, DWORD language, wchar_t* buffer, DWORD size, va_list*) {
        EXPECT_EQ(flags, 0x1300u);
        EXPECT_EQ(code, 0x80070005u);
        EXPECT_EQ(language, 0x0400u);
        EXPECT_EQ(size, 0u);
        memory = static_cast<wchar_t*>(LocalAlloc(LPTR, 64));
        wcscpy(memory, L"one\r\ntwo \t\r\n");
        *reinterpret_cast<wchar_t**>(buffer) = memory;
        return DWORD{12};
    });
    EXPECT_EQ(MessageFor(kDenied), L"one\r\ntwo");
}

// Proves: The thread carries an error object for this code => its restricted description, or its plain one, without trailing blanks
TEST_F(ErrorText, OfAnErrorObjectIsUsedIfItIsAboutThisCode)
{
    const std::wstring ofTheSystem = SystemText(kDenied);
    const std::pair<lab::Answer, std::wstring> rows[] = {
        {{.errorObjectResult = kDenied, .text = L"told \r\n", .hasText = true}, L"told"},
        {{.errorObjectResult = kDenied, .description = L"plain", .hasText = true}, L""},
        {{.errorObjectResult = kDenied, .description = L"plain\n"}, L"plain"},
        {{.errorObjectResult = E_FAIL, .text = L"of another", .hasText = true}, ofTheSystem},
        {{.errorObjectResult = kDenied, .detailsResult = S_FALSE, .description = L"half told"}, ofTheSystem},
        {{.isRestricted = false, .description = L"classic \t"}, L"classic"},
        {{.isRestricted = false, .description = L" "}, ofTheSystem}};
    for (const auto& [error, message] : rows)
    {
        lab::PutErrorObject(error);
        EXPECT_EQ(MessageFor(kDenied), message) << PrintToString(error.text + error.description);
    }
}

// Proves: The text was used => the object leaves the thread
TEST_F(ErrorText, IsUsedOnceTheObjectLeavesTheThread)
{
    lab::PutErrorObject(Failure(kDenied, L"once"));
    EXPECT_EQ(MessageFor(kDenied), L"once");
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, OfAFailureThatNoCallReportedIsNotThatOfAnErrorObject)
{
    lab::PutErrorObject({.hasErrorObject = true, .isRestricted = false, .description = L"of another failure"});
    try
    {
        TakeObject<IUnknown>(S_OK, nullptr);
        ADD_FAILURE() << "a success without an object was accepted";
    }
    catch (const WinrtError& error)
    {
        EXPECT_EQ(error.message.find(L"another"), std::wstring::npos);  // not every system has a text for the code
    }
}

// Proves: Exhausted memory => becomes the standard exception, so "Unknown expection"
TEST_F(ErrorText, ExhaustedMemoryIsTheStandardExceptionAndTakesTheObjectAlong)
{
    lab::PutErrorObject(Failure(E_OUTOFMEMORY, L"no memory"));
    EXPECT_THROW(ThrowWinrtError(E_OUTOFMEMORY), std::bad_alloc);
}

// Proves: No failure is to be described => the library with the error objects is not loaded
TEST_F(ErrorText, LibraryIsLoadedForAFailureOnly)
{
    SUBSTITUTE(GetModuleHandleW)
    find([&](const wchar_t* name) {
        return name != nullptr && std::wstring(name) == L"oleaut32.dll" ? HMODULE{nullptr} : find.Original()(name);
    });
    const RECORD(LoadLibraryExW) loaded;
    const auto loads = Contains(testing::FieldsAre(L"oleaut32.dll", nullptr, 0x800u));
    DropErrorObject();
    EXPECT_THAT(loaded.Calls(), Not(loads));
    MessageFor(kDenied);
    EXPECT_THAT(loaded.Calls(), loads);
}

TEST_F(ErrorText, WithoutTheErrorFunctionIsTheSystemsOne)
{
    runtime_.missingFunctions = {"GetErrorInfo"};
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

// Proves: A success code => is no error
TEST_F(ErrorText, SuccessCodesThrowNothing)
{
    EXPECT_NO_THROW(CheckResult(S_OK));
    EXPECT_NO_THROW(CheckResult(S_FALSE));
    EXPECT_THROW(CheckResult(E_FAIL), WinrtError);
}
}  // namespace
}  // namespace repair
