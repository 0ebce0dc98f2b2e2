#include <new>
#include <optional>
#include <system_error>
#include <type_traits>

#include "base/registry.h"
#include "support/log_capture.h"
#include "support/machine_registry.h"
#include "support/real_windows.h"
#include "support/test.h"

IMPORTED(RegCloseKey, RegGetValueW, RegOpenKeyExW)

namespace repair
{
namespace
{
std::string Composed(const std::string& message, int code)
{
    return message + ": " + std::system_category().message(code);
}

template <typename Action>
void ExpectRegistryError(Action action, const std::string& message, int code)
{
    try
    {
        action();
        ADD_FAILURE() << "no registry error was thrown";
    }
    catch (const RegKeyError& error)
    {
        EXPECT_EQ(error.code(), std::error_code(code, std::system_category()));
        EXPECT_EQ(std::string(error.what()), Composed(message, code));
    }
}

// Proves: The registry error is caught => it carries status and text like the system's error type, can be copied, and is caught as any of its bases
TEST(RegistryError, CarriesTheStatusAndComposesItsTextLikeTheStandardError)
{
    static_assert(std::is_base_of_v<std::system_error, RegKeyError>);
    const RegKeyError error(-2147024891, std::system_category(), std::string("Some message"));
    const RegKeyError copy = error;  // NOLINT: a copy is what is tested
    EXPECT_EQ(copy.code(), std::error_code(-2147024891, std::system_category()));
    EXPECT_EQ(std::string(copy.what()), Composed("Some message", -2147024891));
}

// All texts of the registry are read like this.
// Proves: A key is opened => for reading, below the machine's root, in the process's own view; closed when its owner goes
// Proves: The key is opened => for reading, in the process's own view, and closed
// Proves: The driver key is opened => for reading, and closed
// Proves: The key is read (installed application version) => for reading only, in the process's own view, and closed
// Proves: The key is read (stopping the application) => for reading, and closed before the command tool runs
TEST(RegistryKeyOpening, AsksForReadingInTheProcessesOwnViewAndClosesTheKeyInAnyCase)
{
    const HKEY given = reinterpret_cast<HKEY>(static_cast<INT_PTR>(0x1234));
    int closed = 0;
    SUBSTITUTE(RegOpenKeyExW)
    open([&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_STREQ(path, L"SOFTWARE\\Some Key\\");
        EXPECT_EQ(std::tuple(root, options, access), std::tuple(HKEY_LOCAL_MACHINE, 0u, 0x20019u));
        *key = given;
        return ERROR_SUCCESS;
    });
    SUBSTITUTE(RegCloseKey)
    close([&](HKEY key) {
        EXPECT_EQ(key, given);
        ++closed;
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(OpenMachineKey(L"SOFTWARE\\Some Key\\").Get(), given);
    EXPECT_EQ(closed, 1);
    LSTATUS status = ERROR_SUCCESS;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY key, auto...) {
        EXPECT_EQ(key, given);
        return status != ERROR_BUSY ? status : throw std::bad_alloc();
    });
    EXPECT_EQ(ReadMachineString(L"SOFTWARE\\Some Key\\", L"Value"), L"");
    EXPECT_EQ(closed, 2);
    status = ERROR_ACCESS_DENIED;
    EXPECT_THROW(ReadMachineString(L"SOFTWARE\\Some Key\\", L"Value"), RegKeyError);
    EXPECT_EQ(closed, 3);
    status = ERROR_BUSY;
    EXPECT_THROW(ReadMachineString(L"SOFTWARE\\Some Key\\", L"Value"), std::bad_alloc);
    EXPECT_EQ(closed, 4);
}

// Proves: A key cannot be opened => registry error with the status and "Unable to open registry key"; nothing is logged
TEST(RegistryKeyOpening, FailureIsRaisedWithItsStatusAndNotLogged)
{
    MachineRegistry registry;
    LogCapture log;
    ExpectRegistryError([] { OpenMachineKey(L"SOFTWARE\\Nothing"); }, "Unable to open registry key", 2);
    ExpectRegistryError([] { ReadMachineString(L"SOFTWARE\\Nothing", L"Value"); }, "Unable to open registry key", 2);
    SUBSTITUTE(RegOpenKeyExW) open([](auto...) { return ERROR_ACCESS_DENIED; });
    ExpectRegistryError([] { OpenMachineKey(L"SOFTWARE\\Denied"); }, "Unable to open registry key", 5);
    EXPECT_TRUE(log.Lines().empty());
}

// Bytes of a stored value, and the text they are read as; without one, the value is refused.
struct StoredValue
{
    const char* description;
    DWORD type;
    std::vector<BYTE> data;
    std::optional<std::wstring> text = {};
};

// Proves: The value is not plain text => the same error, with the status that says so
// Proves: Empty text, no bytes, half a character => an empty text
TEST(RegistryStrings, TypeAndSizeDecide)
{
    const StoredValue values[] = {
        {"text", REG_SZ, {'2', 0, '4', 0, 0, 0}, L"24"},
        {"empty text", REG_SZ, {0, 0}, L""},
        {"no bytes", REG_SZ, {}, L""},
        {"text up to its first NUL", REG_SZ, {'a', 0, 0, 0, 'b', 0, 0, 0}, L"a"},
        {"no ASCII", REG_SZ, {0xAC, 0x20, 0xE9, 0, 0x3D, 0xD8, 0, 0xDE, 0, 0}, L"\u20ac\u00e9\U0001f600"},
        {"blanks stay", REG_SZ, {' ', 0, 'a', 0, ' ', 0, 0, 0}, L" a "},
        {"number", REG_DWORD, {1, 0, 0, 0}},
        {"long number", REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}},
        {"bytes", REG_BINARY, {'a', 0, 0, 0}},
        {"several texts", REG_MULTI_SZ, {'a', 0, 0, 0, 0, 0}},
        {"no type", REG_NONE, {'a', 0, 0, 0}}};
    MachineRegistry registry;
    LogCapture log;
    const auto read = [] { return ReadMachineString(L"SOFTWARE\\Key", L"Value"); };
    for (const StoredValue& value : values)
    {
        SCOPED_TRACE(value.description);
        registry.SetValue(L"SOFTWARE\\Key", L"Value", value.type, value.data);
        if (value.text)
        {
            EXPECT_EQ(read(), *value.text);
        }
        else
        {
            ExpectRegistryError(read, "Unable to get registry value", 1630);
        }
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST(RegistryStrings, TextWithoutATerminatorIsReadWithoutRunningPastItsEnd)
{
    MachineRegistry registry;
    registry.SetValue(L"SOFTWARE\\Key", L"One", REG_SZ, {'a'});
    registry.SetValue(L"SOFTWARE\\Key", L"Two", REG_SZ, {'a', 0});
    registry.SetValue(L"SOFTWARE\\Key", L"Four", REG_SZ, {'a', 0, 'b', 0});
    registry.SetValue(L"SOFTWARE\\Key", L"Five", REG_SZ, {'a', 0, 'b', 0, 'c'});
    const RegistryKey key = OpenMachineKey(L"SOFTWARE\\Key");
    EXPECT_LE(ReadRegistryString(key, L"", L"One").size(), 1u);
    if (WineVersion() >= 10)
    {
        // It leaves room for the terminator out of the size that the first read tells, and the second wants that room.
        for (const wchar_t* name : {L"Two", L"Four", L"Five"})
        {
            ExpectRegistryError([&] { ReadRegistryString(key, L"", name); }, "Unable to get registry value", 0);
        }
        return;
    }
    EXPECT_EQ(ReadRegistryString(key, L"", L"Two"), L"a");
    EXPECT_EQ(ReadRegistryString(key, L"", L"Four"), L"ab");
    EXPECT_EQ(ReadRegistryString(key, L"", L"Five").substr(0, 2), L"ab");
    EXPECT_LE(ReadRegistryString(key, L"", L"Five").size(), 3u);
}

// Proves: The value is missing => registry error "Unable to get registry value" with status 2
TEST(RegistryStrings, LongTextOfAKeyOrASubKeyIsReadWholeAndAMissingOneIsFileNotFound)
{
    MachineRegistry registry;
    registry.SetString(L"SOFTWARE\\Key\\Below", L"Value", L"below");
    registry.SetString(L"SOFTWARE\\Key", L"Value", std::wstring(20000, L'x'));
    const RegistryKey key = OpenMachineKey(L"SOFTWARE\\Key");
    EXPECT_EQ(ReadRegistryString(key, L"Below", L"Value"), L"below");
    EXPECT_EQ(ReadRegistryString(key, L"", L"Value"), std::wstring(20000, L'x'));
    for (const wchar_t* subKey : {L"", L"Below", L"Missing"})
    {
        ExpectRegistryError([&] { ReadRegistryString(key, subKey, L"Other"); }, "Unable to get registry value", 2);
    }
}

// Proves: A text is read => first its size, then the text up to its first NUL, from the key or a sub-key
TEST(RegistryStrings, FirstReadAsksForTheSizeAndTheSecondForTheText)
{
    const RegistryKey key = OpenMachineKey(L"SOFTWARE");
    int calls = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY handle, const wchar_t* subKey, const wchar_t* value, DWORD flags, DWORD* type, void* data,
            DWORD* size) {
        EXPECT_STREQ(subKey, L"sub");
        EXPECT_STREQ(value, L"name");
        EXPECT_EQ(std::tuple(handle, flags, type), std::tuple(key.Get(), 2u, nullptr));
        if (++calls == 1)
        {
            EXPECT_EQ(data, nullptr);
            *size = 6;
        }
        else
        {
            EXPECT_EQ(*size, 6u);
            std::wstring(L"ab").copy(static_cast<wchar_t*>(data), 2);
            static_cast<wchar_t*>(data)[2] = L'\0';
        }
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(ReadRegistryString(key, L"sub", L"name"), L"ab");
    EXPECT_EQ(calls, 2);
}

// Proves: First and second read disagree => the second decides whether it is an error, the error carries the first one's status
TEST(RegistryStrings, SecondReadDecidesAndTheStatusOfTheFirstIsRaised)
{
    int calls = 0;
    LSTATUS first = 0;
    LSTATUS second = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY, const wchar_t*, const wchar_t*, DWORD, DWORD*, void*, DWORD*) {
        return ++calls % 2 == 1 ? first : second;
    });  // the size stays as it is
    const auto read = [] { return ReadRegistryString(RegistryKey(), L"", L"Value"); };
    for (const auto& [ofFirst, ofSecond] : {std::pair(0, 5), std::pair(2, 2), std::pair(5, 2), std::pair(234, 1018)})
    {
        first = ofFirst;
        second = ofSecond;
        ExpectRegistryError(read, "Unable to get registry value", ofFirst);
    }
    second = 0;
    for (const LSTATUS ignored : {0, 2})
    {
        first = ignored;
        EXPECT_EQ(read(), L"");
    }
    EXPECT_EQ(calls, 12);
}

TEST(RegistryStrings, WithoutACharacterThereIsNoBuffer)
{
    int calls = 0;
    SUBSTITUTE(RegGetValueW)
    get([&](HKEY, const wchar_t*, const wchar_t*, DWORD, DWORD*, void* data, DWORD* size) {
        EXPECT_EQ(data, nullptr);
        *size = ++calls > 2 ? 1 : 0;
        return ERROR_SUCCESS;
    });
    EXPECT_EQ(ReadRegistryString(RegistryKey(), L"", L"Value"), L"");
    EXPECT_EQ(ReadRegistryString(RegistryKey(), L"", L"Value"), L"");
    EXPECT_EQ(calls, 4);
}

// Proves: A number cannot be written => the error's text names value and number, cut after 259 characters
TEST(RegistryWriteError, NamesValueAndNumberAndIsCut)
{
    EXPECT_EQ(FormatRegistryWriteError(L"VLTUWPReplaced", 1),
              "Unable to write to registry for value = VLTUWPReplaced data = 1.");
    EXPECT_EQ(FormatRegistryWriteError(L"", -2147483647 - 1),
              "Unable to write to registry for value =  data = -2147483648.");
    const std::string start = "Unable to write to registry for value = ";
    EXPECT_EQ(FormatRegistryWriteError(std::wstring(400, L'n'), 1), start + std::string(259 - start.size(), 'n'));
}
}  // namespace
}  // namespace repair
