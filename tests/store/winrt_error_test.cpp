#include <windows.h>

#include <oleauto.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "store/winrt_runtime.h"
#include "support/fake_runtime.h"
#include "support/system_text.h"

IMPORTED(FormatMessageW)

namespace repair
{
namespace
{
constexpr HRESULT kDenied = static_cast<HRESULT>(0x80070005);
constexpr HRESULT kNoText = static_cast<HRESULT>(0xA0001234);  // nobody's: marked as a customer's code

std::wstring MessageFor(HRESULT code)
{
    try
    {
        ThrowWinrtError(code);
    }
    catch (const WinrtError& error)
    {
        EXPECT_EQ(error.code, code);
        EXPECT_EQ(component::liveObjects, 0);  // the error object was taken off the thread and released
        EXPECT_EQ(LiveBasicStrings(), 0);
        return error.message;
    }
}

class ErrorText : public testing::Test
{
protected:
    FakeRuntime runtime_;
};

// Proves: It carries none, one for another code, one that cannot tell, or it is another thread's => the system's text for the code; empty when there is none
TEST_F(ErrorText, WithoutAnErrorObjectIsTheSystemsOneWithoutTrailingBlanks)
{
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, IsEmptyWhereTheSystemHasNone)
{
    EXPECT_EQ(MessageFor(kNoText), L"");
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
TEST_F(ErrorText, IsTheRestrictedDescriptionWhenThereIsOne)
{
    LeaveErrorObject(MakeErrorObject(L"plain", true, kDenied, L"restricted \r\n"));
    EXPECT_EQ(MessageFor(kDenied), L"restricted");
}

TEST_F(ErrorText, IsTheRestrictedDescriptionEvenWhenThatIsEmpty)
{
    LeaveErrorObject(MakeErrorObject(L"plain", true, kDenied, L""));
    EXPECT_EQ(MessageFor(kDenied), L"");
}

TEST_F(ErrorText, IsThePlainDescriptionWithoutARestrictedOne)
{
    LeaveErrorObject(MakeErrorObject(L"plain\n", true, kDenied));
    EXPECT_EQ(MessageFor(kDenied), L"plain");
}

TEST_F(ErrorText, OfAnObjectForAnotherErrorIsNotUsed)
{
    LeaveErrorObject(MakeErrorObject(L"about something else", true, E_FAIL));
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, OfAnObjectThatCannotTellItsDetailsIsNotUsed)
{
    LeaveErrorObject(MakeErrorObject(L"half told", true, kDenied, nullptr, S_FALSE));
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, IsTheDescriptionOfAnObjectWithoutTheRestrictedInterface)
{
    LeaveErrorObject(MakeErrorObject(L"classic \t", false));
    EXPECT_EQ(MessageFor(kDenied), L"classic");
}

TEST_F(ErrorText, OfAClassicObjectWithoutADescriptionIsTheSystemsOne)
{
    LeaveErrorObject(MakeErrorObject(L" ", false));
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

// Proves: The text was used => the object leaves the thread
TEST_F(ErrorText, IsUsedOnceTheObjectLeavesTheThread)
{
    LeaveErrorObject(MakeErrorObject(L"once", true, kDenied));
    EXPECT_EQ(MessageFor(kDenied), L"once");
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

TEST_F(ErrorText, OfAnotherThreadIsNotUsed)
{
    std::thread([] { LeaveErrorObject(MakeErrorObject(L"elsewhere", true, kDenied)); }).join();
    EXPECT_EQ(MessageFor(kDenied), SystemText(kDenied));
}

// Proves: Exhausted memory => becomes the standard exception, so "Unknown expection"
TEST_F(ErrorText, ExhaustedMemoryIsTheStandardExceptionAndTakesTheObjectAlong)
{
    LeaveErrorObject(MakeErrorObject(L"no memory", true, E_OUTOFMEMORY));
    EXPECT_THROW(ThrowWinrtError(E_OUTOFMEMORY), std::bad_alloc);
    EXPECT_EQ(component::liveObjects, 0);
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
