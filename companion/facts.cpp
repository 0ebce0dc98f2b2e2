#include "companion/facts.h"

#include <cstring>
#include <string>

#include <windows.h>

#include <nlohmann/json.hpp>

#include "base/registry.h"
#include "companion/log_facts.h"
#include "companion/status.h"
#include "companion/tool_log.h"
#include "companion/tool_process.h"
#include "companion/unicode.h"
#include "resources/version.h"
#include "store/store_packages.h"

namespace repair
{
namespace
{
using Json = nlohmann::ordered_json;

constexpr wchar_t kWindowsKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

Json WindowsValue(const wchar_t* name)
{
    try
    {
        return ToUtf8(ReadMachineString(kWindowsKey, name));
    }
    catch (const RegKeyError&)
    {
        return nullptr;
    }
}

// Returns the file version of the tool beside this program, or null.
Json VersionOfTool()
{
    const std::wstring tool = ToolBesideUs();
    const HMODULE file =
        LoadLibraryExW(tool.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (file == nullptr)
    {
        return nullptr;
    }
    Json version;
    const HRSRC found = FindResourceW(file, MAKEINTRESOURCEW(VS_VERSION_INFO), RT_VERSION);
    const HGLOBAL loaded = found != nullptr ? LoadResource(file, found) : nullptr;
    const auto* const bytes = static_cast<const char*>(loaded != nullptr ? LockResource(loaded) : nullptr);
    constexpr size_t kFixedAt = 40;  // after the header, "VS_VERSION_INFO" and its padding
    VS_FIXEDFILEINFO fixed = {};
    if (bytes != nullptr && SizeofResource(file, found) >= kFixedAt + sizeof(fixed))
    {
        std::memcpy(&fixed, bytes + kFixedAt, sizeof(fixed));
    }
    if (fixed.dwSignature == VS_FFI_SIGNATURE)
    {
        const DWORD parts[] = {HIWORD(fixed.dwFileVersionMS), LOWORD(fixed.dwFileVersionMS),
                               HIWORD(fixed.dwFileVersionLS), LOWORD(fixed.dwFileVersionLS)};
        std::string text;
        for (const DWORD part : parts)
        {
            text += (text.empty() ? "" : ".") + std::to_string(part);
        }
        version = text;
    }
    FreeLibrary(file);
    return version;
}
}  // namespace

Json FindFacts()
{
    wchar_t language[LOCALE_NAME_MAX_LENGTH] = {};
    GetUserDefaultLocaleName(language, LOCALE_NAME_MAX_LENGTH);
    Json facts;
    facts["windows"] = {{"product", WindowsValue(L"ProductName")},
                        {"release", WindowsValue(L"DisplayVersion")},
                        {"build", WindowsValue(L"CurrentBuild")},
                        {"language", ToUtf8(language)}};
    facts["tool"] = VersionOfTool();
    facts["companion"] = TAVIK_VERSION_TEXT;
    Status status = FindStatus();
    if (!status.machine.installed.edition.isStore)  // where there is a desktop edition, the tool does not ask
    {
        QueryStorePackageVersion();
        LogFacts store;
        for (const std::string& line : TakeToolLog())
        {
            store.Take(line);
        }
        status.storePackages = store.StorePackages();
    }
    facts.update(StatusAsJson(status));
    return facts;
}
}  // namespace repair
