#include "script.h"

#include "error_info.h"
#include "lab_file.h"

namespace lab
{
namespace
{
constexpr const wchar_t* kScriptPath = L"C:\\lab\\standins\\store.txt";

using standin::ParseNumber;
using standin::StartsWith;
using standin::Trim;

// Thrown by the readers below; the line is then reported.
struct Fault
{
    std::wstring why;
};

HRESULT ParseHresult(const std::wstring& text)
{
    unsigned long long value = 0;
    if (!StartsWith(text, L"0x") || !ParseNumber(text, value) || value > MAXDWORD)
        throw Fault{L"not a code like 0x80004005: " + text};
    return static_cast<HRESULT>(static_cast<ULONG>(value));
}

// <hr>[!<hr of the error object>][:<text> | :<description>|<restricted text> | =<text of a plain IErrorInfo>]
Outcome ParseFailure(const std::wstring& value)
{
    Outcome outcome;
    const std::size_t mark = value.find_first_of(L":=");
    const std::wstring codes = Trim(value.substr(0, mark));
    const std::size_t second = codes.find(L'!');
    outcome.result = ParseHresult(codes.substr(0, second));
    outcome.errorObjectResult = second == codes.npos ? outcome.result : ParseHresult(codes.substr(second + 1));
    outcome.hasErrorObject = mark != value.npos;
    if (!outcome.hasErrorObject)
        return outcome;
    const std::wstring text = value.substr(mark + 1);
    const std::size_t bar = text.find(L'|');
    outcome.isRestricted = value[mark] == L':';
    outcome.description = standin::Unescape(text.substr(0, bar));
    if (outcome.isRestricted && bar == text.npos)
    {
        outcome.text = outcome.description;
        outcome.hasText = true;
    }
    else if (bar != text.npos && bar + 1 < text.size())
    {
        outcome.text = standin::Unescape(text.substr(bar + 1));
        outcome.hasText = true;
    }
    return outcome;
}

Outcome ParseOutcome(const std::wstring& value)
{
    Outcome outcome;
    if (value == L"ok")
        return outcome;
    outcome.isNull = value == L"null";
    return outcome.isNull ? outcome : ParseFailure(value);
}

bool ParseYesNo(const std::wstring& value)
{
    if (value != L"yes" && value != L"no")
        throw Fault{L"yes or no, not: " + value};
    return value == L"yes";
}

void ParseActivation(const std::wstring& value, Outcome& outcome, bool& needsApartment)
{
    needsApartment = value == L"mta";
    if (!needsApartment)
        outcome = ParseOutcome(value);
}

abi::PackageVersion ParseVersion(const std::wstring& value)
{
    UINT16 parts[4] = {};
    std::wstring rest = value + L".";
    for (UINT16& part : parts)
    {
        const std::size_t dot = rest.find(L'.');
        unsigned long long number = 0;
        if (dot == rest.npos || !ParseNumber(rest.substr(0, dot), number) || number > 0xFFFF)
            throw Fault{L"not a version like 1.2.3.4: " + value};
        part = static_cast<UINT16>(number);
        rest.erase(0, dot + 1);
    }
    if (!rest.empty())
        throw Fault{L"not a version like 1.2.3.4: " + value};
    return {parts[0], parts[1], parts[2], parts[3]};
}

Completion ParseCompletion(const std::wstring& value)
{
    unsigned long long milliseconds = 0;
    if (value == L"before")
        return {Completion::Before, 0};
    if (value == L"inside")
        return {Completion::Inside, 0};
    if (value == L"thread")
        return {Completion::Thread, 0};
    if (value == L"never")
        return {Completion::Never, 0};
    if (StartsWith(value, L"later:") && ParseNumber(value.substr(6), milliseconds))
        return {Completion::Later, static_cast<DWORD>(milliseconds)};
    throw Fault{L"before, inside, thread, later:<ms> or never, not: " + value};
}

Ending ParseEnding(const std::wstring& value)
{
    if (value == L"completed")
        return {};
    if (value == L"canceled")
        return {abi::kCanceled, {}};
    if (StartsWith(value, L"error:"))
        return {abi::kError, ParseFailure(value.substr(6))};
    throw Fault{L"completed, canceled or error:<code>, not: " + value};
}

CountedFailure ParseCounted(const std::wstring& value)
{
    unsigned long long call = 0;
    const std::size_t mark = value.find(L':');
    if (value == L"ok")
        return {};
    if (mark == value.npos || !ParseNumber(value.substr(0, mark), call) || call == 0)
        throw Fault{L"ok or <number of the call>:<code>, not: " + value};
    return {static_cast<unsigned>(call), ParseFailure(value.substr(mark + 1))};
}

bool SetManager(ManagerScript& manager, const std::wstring& key, const std::wstring& value)
{
    if (key == L"activation")
        ParseActivation(value, manager.activation, manager.needsApartment);
    else if (key == L"create")
        manager.create = ParseOutcome(value);
    else if (key == L"find")
        manager.find = ParseOutcome(value);
    else if (key == L"first")
        manager.first = ParseOutcome(value);
    else if (key == L"next")
        manager.next = ParseCounted(value);
    else if (key == L"current")
        manager.current = ParseCounted(value);
    else
        return false;
    return true;
}

const std::set<std::wstring> kMethods = {L"get_Id",     L"get_FullName",  L"get_Version",          L"IPackage3",
                                         L"get_Status", L"VerifyIsOK",    L"RemovePackageAsync",   L"put_Completed",
                                         L"GetResults", L"get_ErrorText", L"get_ExtendedErrorCode"};
const std::set<std::wstring> kNullable = {L"package",    L"get_Id",       L"get_Status", L"RemovePackageAsync",
                                          L"GetResults", L"get_ErrorText"};

std::wstring KnownName(const std::set<std::wstring>& known, const std::wstring& name)
{
    if (!known.contains(name))
        throw Fault{L"no such method here: " + name};
    return name;
}

bool SetPackage(PackageScript& package, const std::wstring& key, const std::wstring& value)
{
    const std::size_t colon = value.find(L':');
    if (key == L"name")
    {
        package.hasName = value != L"(null)";
        package.name = value;
    }
    else if (key == L"version")
        package.version = ParseVersion(value);
    else if (key == L"ok")
        package.isOk = ParseYesNo(value);
    else if (key == L"user")
        package.user = value;
    else if (key == L"fail" && colon != value.npos)
        package.failures[KnownName(kMethods, value.substr(0, colon))] = ParseFailure(value.substr(colon + 1));
    else if (key == L"null")
        package.nulls.insert(KnownName(kNullable, value));
    else if (key == L"removal")
        package.removal = ParseFailure(value);
    else if (key == L"removal_end")
        package.removalEnd = ParseEnding(value);
    else if (key == L"completion")
        package.completion = ParseCompletion(value);
    else if (key == L"keep")
        package.stays = ParseYesNo(value);
    else
        return false;
    return true;
}

void SetInstalls(StoreScript& store, const std::wstring& value)
{
    const std::size_t bar = value.find(L'|');
    if (bar == value.npos)
        throw Fault{L"<full name> | <version>, not: " + value};
    store.installsName = Trim(value.substr(0, bar));
    store.installsVersion = ParseVersion(Trim(value.substr(bar + 1)));
}

INT32 ParseState(const std::wstring& value)
{
    unsigned long long state = 0;
    if (!ParseNumber(value, state))
        throw Fault{L"not a number: " + value};
    return static_cast<INT32>(state);
}

bool OneOf(const std::wstring& value, const std::wstring& no, const std::wstring& yes)
{
    if (value != no && value != yes)
        throw Fault{no + L" or " + yes + L", not: " + value};
    return value == yes;
}

bool SetStore(StoreScript& store, const std::wstring& key, const std::wstring& value)
{
    if (key == L"activation")
        ParseActivation(value, store.activation, store.needsApartment);
    else if (key == L"default")
        store.context = ParseOutcome(value);
    else if (key == L"window" && value == L"missing")
        store.hasWindow = false;
    else if (key == L"window")
        store.window = ParseOutcome(value);
    else if (key == L"context3")
        store.hasContext3 = ParseYesNo(value);
    else if (key == L"request")
        store.request = ParseOutcome(value);
    else if (key == L"walk")
        store.walksWithGetMany = OneOf(value, L"iterator", L"getmany");
    else if (key == L"read")
        store.readsLate = OneOf(value, L"now", L"late");
    else if (key == L"state")
        store.state = ParseState(value);
    else if (key == L"end")
        store.end = ParseEnding(value);
    else if (key == L"results")
        store.results = ParseOutcome(value);
    else if (key == L"overall")
        store.overall = ParseOutcome(value);
    else if (key == L"completion")
        store.completion = ParseCompletion(value);
    else if (key == L"installs")
        SetInstalls(store, value);
    else
        return false;
    return true;
}

void BeginSection(Script& script, const std::wstring& header)
{
    if (header == L"[package]")
        script.packages.emplace_back();
    else if (header != L"[manager]" && header != L"[store]")
        throw Fault{L"no such section"};
}

bool Set(Script& script, const std::wstring& section, const std::wstring& key, const std::wstring& value)
{
    if (section == L"[manager]")
        return SetManager(script.manager, key, value);
    if (section == L"[store]")
        return SetStore(script.store, key, value);
    return !script.packages.empty() && SetPackage(script.packages.at(script.packages.size() - 1), key, value);
}
}  // namespace

HRESULT Outcome::Apply() const
{
    if (hasErrorObject)
        PutErrorObject(*this);
    return result;
}

Script ReadScript()
{
    Script script;
    std::wstring section;
    for (const standin::Line& line : standin::ReadLines(kScriptPath))
    {
        try
        {
            const std::size_t equal = line.text.find(L'=');
            if (StartsWith(line.text, L"["))
                BeginSection(script, section = line.text);
            else if (equal == line.text.npos)
                throw Fault{L"not key = value"};
            else if (!Set(script, section, Trim(line.text.substr(0, equal)), Trim(line.text.substr(equal + 1))))
                throw Fault{L"no such key here"};
        }
        catch (const Fault& fault)
        {
            script.isBad = true;
            Record(L"!bad line " + std::to_wstring(line.number) + L" of store.txt: " + fault.why + L": " + line.text);
        }
    }
    return script;
}
}  // namespace lab
