#include "script.h"

#include <algorithm>
#include <cwchar>
#include <set>

#include "classes.h"
#include "lab_file.h"
#include "record.h"

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
    {
        throw Fault{L"not a code like 0x80004005: " + text};
    }
    return static_cast<HRESULT>(static_cast<ULONG>(value));
}

// <hr>[!<hr of the error object>][:<text> | :<description>|<restricted text> | =<text of a plain IErrorInfo>]
Answer ParseFailure(const std::wstring& value)
{
    Answer answer;
    const std::size_t mark = value.find_first_of(L":=");
    const std::wstring codes = Trim(value.substr(0, mark));
    const std::size_t second = codes.find(L'!');
    answer.result = ParseHresult(codes.substr(0, second));
    answer.errorObjectResult = second == codes.npos ? answer.result : ParseHresult(codes.substr(second + 1));
    answer.hasErrorObject = mark != value.npos;
    if (!answer.hasErrorObject)
    {
        return answer;
    }
    const std::wstring text = value.substr(mark + 1);
    const std::size_t bar = text.find(L'|');
    answer.isRestricted = value[mark] == L':';
    answer.description = standin::Unescape(text.substr(0, bar));
    if (answer.isRestricted && bar == text.npos)
    {
        answer.text = answer.description;
        answer.hasText = true;
    }
    else if (bar != text.npos && bar + 1 < text.size())
    {
        answer.text = standin::Unescape(text.substr(bar + 1));
        answer.hasText = true;
    }
    return answer;
}

bool OneOf(const std::wstring& value, const std::wstring& no, const std::wstring& yes)
{
    if (value != no && value != yes)
    {
        throw Fault{no + L" or " + yes + L", not: " + value};
    }
    return value == yes;
}

bool ParseYesNo(const std::wstring& value)
{
    return OneOf(value, L"no", L"yes");
}

abi::PackageVersion ParseVersion(const std::wstring& value)
{
    unsigned parts[4] = {};
    int end = 0;
    const int read = std::swscanf(value.c_str(), L"%u.%u.%u.%u%n", &parts[0], &parts[1], &parts[2], &parts[3], &end);
    if (read != 4 || end != static_cast<int>(value.size()) || *std::max_element(parts, parts + 4) > 0xFFFF)
    {
        throw Fault{L"not a version like 1.2.3.4: " + value};
    }
    return {static_cast<UINT16>(parts[0]), static_cast<UINT16>(parts[1]), static_cast<UINT16>(parts[2]),
            static_cast<UINT16>(parts[3])};
}

Completion ParseCompletion(const std::wstring& value)
{
    static const std::map<std::wstring, Completion::Kind> kKinds = {
        {L"before", Completion::kBefore}, {L"inside", Completion::kInside}, {L"thread", Completion::kThread}};
    const auto kind = kKinds.find(value);
    unsigned long long milliseconds = 0;
    if (kind != kKinds.end())
    {
        return {kind->second, 0};
    }
    if (StartsWith(value, L"later:") && ParseNumber(value.substr(6), milliseconds))
    {
        return {Completion::kLater, static_cast<DWORD>(milliseconds)};
    }
    throw Fault{L"before, inside, thread, or later:<ms>, not: " + value};
}

Ending ParseEnding(const std::wstring& value)
{
    if (value == L"completed" || value == L"canceled")
    {
        return {value == L"completed" ? abi::kCompleted : abi::kCanceled, {}};
    }
    if (StartsWith(value, L"error:"))
    {
        return {abi::kError, ParseFailure(value.substr(6))};
    }
    throw Fault{L"completed, canceled or error:<code>, not: " + value};
}

// Reads "ok", "null", a failure, or "<number of the call>:<failure>".
void SetAnswer(Answers& answers, const wchar_t* method, const std::wstring& value)
{
    const std::size_t mark = value.find(L':');
    unsigned long long call = 0;
    if (value == L"null")
    {
        answers[method] = Answer();
    }
    else if (!StartsWith(value, L"0x") && ParseNumber(value.substr(0, mark), call) && call > 0 && mark != value.npos)
    {
        answers[method] = ParseFailure(value.substr(mark + 1));
        answers[method].onlyCall = static_cast<unsigned>(call);
    }
    else if (value != L"ok")
    {
        answers[method] = ParseFailure(value);
    }
}

void SetActivation(ClassScript& script, const std::wstring& value)
{
    script.needsApartment = value == L"mta";
    if (!script.needsApartment)
    {
        SetAnswer(script.answers, L"activation", value);
    }
}

std::wstring KnownMethod(const std::wstring& name)
{
    static const std::set<std::wstring> kMethods = {
        L"package",       L"get_Id",     L"get_FullName",  L"get_Version",
        L"IPackage3",     L"get_Status", L"VerifyIsOK",    L"RemovePackageAsync",
        L"put_Completed", L"GetResults", L"get_ErrorText", L"get_ExtendedErrorCode"};
    if (!kMethods.contains(name))
    {
        throw Fault{L"no such method here: " + name};
    }
    return name;
}

void SetFailure(PackageScript& package, const std::wstring& value)
{
    const std::size_t colon = value.find(L':');
    if (colon == value.npos)
    {
        throw Fault{L"not <method>:<failure>: " + value};
    }
    package.answers[KnownMethod(value.substr(0, colon))] = ParseFailure(value.substr(colon + 1));
}

void SetWindow(StoreScript& store, const std::wstring& value)
{
    if (value == L"missing")
    {
        store.answers[abi::IInitializeWithWindow::kName].result = E_NOINTERFACE;
    }
    else
    {
        SetAnswer(store.answers, L"Initialize", value);
    }
}

void SetContext3(StoreScript& store, const std::wstring& value)
{
    if (!ParseYesNo(value))
    {
        store.answers[abi::IStoreContext3::kName].result = E_NOINTERFACE;
    }
}

void SetState(StoreScript& store, const std::wstring& value)
{
    unsigned long long state = 0;
    if (!ParseNumber(value, state))
    {
        throw Fault{L"not a number: " + value};
    }
    store.state = static_cast<INT32>(state);
}

void SetInstalls(StoreScript& store, const std::wstring& value)
{
    const std::size_t bar = value.find(L'|');
    if (bar == value.npos)
    {
        throw Fault{L"<full name> | <version>, not: " + value};
    }
    store.installsName = Trim(value.substr(0, bar));
    store.installsVersion = ParseVersion(Trim(value.substr(bar + 1)));
}

// Keys whose value is the outcome of this method, and keys with a setter of their own.
using Methods = std::map<std::wstring, const wchar_t*>;
template <class Section>
using Keys = std::map<std::wstring, void (*)(Section&, const std::wstring& value)>;

const Methods kManagerMethods = {{L"create", L"ActivateInstance"},
                                 {L"find", L"FindPackages"},
                                 {L"first", L"First"},
                                 {L"next", L"MoveNext"},
                                 {L"current", L"get_Current"}};
const Keys<ClassScript> kManagerKeys = {{L"activation", SetActivation}};

const Keys<PackageScript> kPackageKeys = {
    {L"name",
     [](PackageScript& to, const std::wstring& value) {
         to.hasName = value != L"(null)";
         to.name = value;
     }},
    {L"version", [](PackageScript& to, const std::wstring& value) { to.version = ParseVersion(value); }},
    {L"ok", [](PackageScript& to, const std::wstring& value) { to.isOk = ParseYesNo(value); }},
    {L"user", [](PackageScript& to, const std::wstring& value) { to.user = value; }},
    {L"fail", SetFailure},
    {L"null", [](PackageScript& to, const std::wstring& value) { to.answers[KnownMethod(value)] = Answer(); }},
    {L"removal", [](PackageScript& to, const std::wstring& value) { to.removal = ParseFailure(value); }},
    {L"removal_end", [](PackageScript& to, const std::wstring& value) { to.end = ParseEnding(value); }},
    {L"completion", [](PackageScript& to, const std::wstring& value) { to.completion = ParseCompletion(value); }},
};

const Methods kStoreMethods = {{L"default", L"GetDefault"},
                               {L"request", L"DownloadAndInstallStorePackagesAsync"},
                               {L"results", L"GetResults"},
                               {L"overall", L"get_OverallState"}};
const Keys<StoreScript> kStoreKeys = {
    {L"activation", [](StoreScript& to, const std::wstring& value) { SetActivation(to, value); }},
    {L"window", SetWindow},
    {L"context3", SetContext3},
    {L"walk",
     [](StoreScript& to, const std::wstring& value) { to.walksWithGetMany = OneOf(value, L"iterator", L"getmany"); }},
    {L"read", [](StoreScript& to, const std::wstring& value) { to.readsLate = OneOf(value, L"now", L"late"); }},
    {L"state", SetState},
    {L"end", [](StoreScript& to, const std::wstring& value) { to.end = ParseEnding(value); }},
    {L"completion", [](StoreScript& to, const std::wstring& value) { to.completion = ParseCompletion(value); }},
    {L"installs", SetInstalls},
};

template <class Section>
void Set(const Methods& methods, const Keys<Section>& keys, Section& section, const std::wstring& key,
         const std::wstring& value)
{
    const auto method = methods.find(key);
    const auto setter = keys.find(key);
    if (method != methods.end())
    {
        SetAnswer(section.answers, method->second, value);
    }
    else if (setter != keys.end())
    {
        setter->second(section, value);
    }
    else
    {
        throw Fault{L"no such key here"};
    }
}

void Set(Script& script, const std::wstring& section, const std::wstring& key, const std::wstring& value)
{
    if (section == L"[manager]")
    {
        Set(kManagerMethods, kManagerKeys, script.manager, key, value);
    }
    else if (section == L"[store]")
    {
        Set(kStoreMethods, kStoreKeys, script.store, key, value);
    }
    else if (script.packages.empty())
    {
        throw Fault{L"not in a section"};
    }
    else
    {
        Set({}, kPackageKeys, script.packages.back(), key, value);
    }
}

void BeginSection(Script& script, const std::wstring& header)
{
    if (header == L"[package]")
    {
        script.packages.emplace_back();
    }
    else if (header != L"[manager]" && header != L"[store]")
    {
        throw Fault{L"no such section"};
    }
}
}  // namespace

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
            {
                BeginSection(script, section = line.text);
            }
            else if (equal == line.text.npos)
            {
                throw Fault{L"not key = value"};
            }
            else
            {
                Set(script, section, Trim(line.text.substr(0, equal)), Trim(line.text.substr(equal + 1)));
            }
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
