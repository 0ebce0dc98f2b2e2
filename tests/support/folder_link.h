// A link to a folder, made by Windows or, under Wine, by the host.
#pragma once

#include <windows.h>

#include <string>
#include <utility>

namespace repair
{
class FolderLink
{
public:
    // Under Wine, first moves away a folder at this path, even one that is open.
    FolderLink(std::wstring link, const std::wstring& target) : path_(std::move(link))
    {
        if (IsThere() && UnixName(target) != nullptr)
        {
            RunUnix("mv " + OwnUnixName() + " " + OwnUnixName() + ".away", false);
        }
        CreateSymbolicLinkW(path_.c_str(), target.c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY);
        // Wine reports success without creating a link. A symbolic link made on the host appears as a link to a folder.
        if (!IsThere() && UnixName(target) != nullptr)
        {
            RunUnix("ln -s " + std::string(UnixName(target)) + " " + OwnUnixName(), true);
        }
    }
    // Wine's RemoveDirectoryW would remove the target.
    ~FolderLink()
    {
        if (UnixName(path_) == nullptr)
        {
            RemoveDirectoryW(path_.c_str());
        }
        else
        {
            RunUnix("rm " + OwnUnixName(), false);
        }
    }
    FolderLink(const FolderLink&) = delete;
    FolderLink& operator=(const FolderLink&) = delete;

    // False when no link could be made.
    bool IsThere() const { return GetFileAttributesW(path_.c_str()) != INVALID_FILE_ATTRIBUTES; }

private:
    static const char* UnixName(const std::wstring& path)
    {
        using Function = char*(const wchar_t*);
        auto* const unixName = reinterpret_cast<Function*>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
        return unixName == nullptr ? nullptr : unixName(path.c_str());  // never freed: a test's life is short
    }

    // The name of the link itself, not of what it leads to.
    std::string OwnUnixName() const
    {
        const size_t last = path_.rfind(L'\\');
        std::string name = UnixName(path_.substr(0, last));
        name += '/';
        for (const wchar_t c : path_.substr(last + 1))
        {
            name += static_cast<char>(c);
        }
        return name;
    }

    // Runs a program of the host and waits until the link is there, or gone: there is no handle to wait for.
    void RunUnix(std::string command, bool untilThere) const
    {
        STARTUPINFOA startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process = {};
        const std::string program = "\\\\?\\unix\\bin\\" + command.substr(0, 2);
        if (CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                           &process) == 0)
        {
            return;
        }
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        for (int waited = 0; waited < 2000 && IsThere() != untilThere; waited += 5)
        {
            Sleep(5);
        }
    }

    std::wstring path_;
};
}  // namespace repair
