// A machine on which programs and installer packages do nothing but leave a record: no program is started, the Windows
// Installer is not called, the temporary folder is the test's own. Files and registry are real.
#pragma once

#include <windows.h>

#include <msi.h>
#include <shellapi.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/substitute.h"
#include "support/temporary_folder.h"

IMPORTED(CreateFileW, GetExitCodeProcess, MsiEnumRelatedProductsW, MsiGetProductInfoW, MsiInstallProductW,
         ShellExecuteExW, WaitForSingleObject)

namespace repair
{
inline constexpr wchar_t kHalden[] = L"{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}";

class FakeMachine
{
public:
    ~FakeMachine() { EndProcess(); }

    // Closes the marker files, which the product leaves open until its process ends.
    void EndProcess()
    {
        for (const HANDLE file : std::exchange(markerFiles_, {}))
        {
            CloseHandle(file);
        }
    }

    // With a trailing backslash, as GetTempPathW gives it.
    std::wstring Temporary() const { return folder_.Path() + L"\\"; }
    std::wstring ExtractionFolder() const { return Temporary() + L"Tavik_VLTInstallerDownload\\LPInstaller"; }
    const TemporaryFolder& Folder() const { return folder_; }

    // The installer unpacks this file (a path below the extraction folder, with a backslash in front).
    void Unpacks(const std::wstring& relativePath)
    {
        onRun = [this, relativePath] {
            const std::wstring path = ExtractionFolder() + relativePath;
            CreateDirectories(path.substr(0, path.rfind(L'\\')));
            CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        };
    }
    void UnpacksMainPackage() { Unpacks(L"\\HL\\halden\\halden64\\dwx-next64.msi"); }

    // "run FILE | PARAMETERS | FOLDER", "wait MS", "related CODE", "install PACKAGE | PROPERTIES", in the order of the
    // calls. A test may add calls of its own.
    std::vector<std::wstring> steps;
    // Cached packages of the installed products by upgrade code; an empty text is one that cannot be read.
    std::map<std::wstring, std::vector<std::wstring>> products;
    std::map<std::wstring, UINT> packageResults;  // of MsiInstallProductW; others succeed
    std::map<std::wstring, DWORD> exitCodes;      // of programs; others end with 0
    std::map<std::wstring, DWORD> startErrors;    // programs that do not start, with the error
    std::function<void()> onRun = [] {};

    // Only the steps that begin with the word.
    std::vector<std::wstring> StepsOf(const std::wstring& word) const
    {
        std::vector<std::wstring> found;
        for (const std::wstring& step : steps)
        {
            if (step.compare(0, word.size() + 1, word + L" ") == 0)
            {
                found.push_back(step);
            }
        }
        return found;
    }

private:
    SystemTemporaryFolder folder_;
    std::vector<HANDLE> markerFiles_;
    std::atomic<HANDLE> process_ = nullptr;
    std::wstring program_;
    std::map<std::wstring, std::wstring> packages_;  // by product code

    SUBSTITUTE(ShellExecuteExW)
    shellExecute_{[this](SHELLEXECUTEINFOW* start) {
        const std::wstring folder = start->lpDirectory != nullptr ? start->lpDirectory : L"-";
        steps.push_back(std::wstring(L"run ") + start->lpFile + L" | " + start->lpParameters + L" | " + folder);
        program_ = start->lpFile;
        if (startErrors.count(program_) != 0)
        {
            return FailWith(startErrors[program_]);
        }
        onRun();
        process_ = CreateEventW(nullptr, TRUE, TRUE, nullptr);  // an event: can be waited for and closed like a process
        start->hProcess = process_;
        return TRUE;
    }};
    SUBSTITUTE(WaitForSingleObject)
    wait_{[this](HANDLE handle, DWORD milliseconds) {
        if (handle != nullptr && handle == process_)
        {
            steps.push_back(L"wait " + std::to_wstring(milliseconds));
        }
        return wait_.Original()(handle, milliseconds);
    }};
    SUBSTITUTE(GetExitCodeProcess)
    exitCode_{[this](HANDLE, DWORD* code) {
        process_ = nullptr;
        *code = exitCodes[program_];
        return TRUE;
    }};
    SUBSTITUTE(MsiEnumRelatedProductsW)
    enumerate_{[this](const wchar_t* upgradeCode, DWORD, DWORD index, wchar_t* productCode) {
        if (index == 0)
        {
            steps.push_back(std::wstring(L"related ") + upgradeCode);
        }
        const std::vector<std::wstring>& family = products[upgradeCode];
        if (index >= family.size())
        {
            return UINT{ERROR_NO_MORE_ITEMS};
        }
        std::wstring code = upgradeCode;
        code[1] = static_cast<wchar_t>(L'0' + index);
        packages_[code] = family[index];
        wcscpy(productCode, code.c_str());
        return UINT{ERROR_SUCCESS};
    }};
    SUBSTITUTE(MsiGetProductInfoW)
    information_{[this](const wchar_t* productCode, const wchar_t*, wchar_t* value, DWORD* length) {
        const std::wstring& package = packages_[productCode];
        if (package.empty() || package.size() >= *length)
        {
            return UINT{ERROR_UNKNOWN_PROPERTY};
        }
        wcscpy(value, package.c_str());
        *length = static_cast<DWORD>(package.size());
        return UINT{ERROR_SUCCESS};
    }};
    SUBSTITUTE(MsiInstallProductW)
    install_{[this](const wchar_t* package, const wchar_t* properties) {
        steps.push_back(std::wstring(L"install ") + package + L" | " + properties);
        const auto result = packageResults.find(package);
        return result != packageResults.end() ? result->second : UINT{ERROR_SUCCESS};
    }};
    SUBSTITUTE(CreateFileW)
    createFile_{[this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
                       DWORD flags, HANDLE model) {
        const HANDLE file = createFile_.Original()(path, access, share, security, creation, flags, model);
        if (file != INVALID_HANDLE_VALUE && std::wstring(path).ends_with(L"\\~.tmp"))
        {
            markerFiles_.push_back(file);
        }
        return file;
    }};
};
}  // namespace repair
