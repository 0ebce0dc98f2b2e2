#include "companion/recovery.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include <windows.h>
#include <msi.h>

#include "acquisition/local_installer.h"
#include "base/files.h"
#include "companion/failure.h"
#include "companion/log_files.h"
#include "companion/tool_log.h"
#include "companion/unicode.h"
#include "install/constants.h"
#include "install/msi_products.h"

namespace repair
{
namespace
{
constexpr wchar_t kInstaller[] = L"\\dwx2_install.exe";
constexpr wchar_t kDownload[] = L"\\Tavik_VLTInstallerDownload\\dwx2_install.exe";

struct OptionalProduct
{
    std::uint32_t product;
    const char* name;
    const wchar_t* package;
};
constexpr OptionalProduct kOptional[] = {{kDvrProduct, "DVR", kDvrPackage}, {kPxlProduct, "PXL", kPxlPackage}};

bool IsIn(const std::wstring& path, const std::wstring& folder)
{
    return path.starts_with(folder + L"\\");
}

// Returns the installer that was started; empty if none was, or the log cannot be read.
std::wstring InstallerInLog(const std::optional<std::wstring>& log)
{
    constexpr std::string_view kStarted = "Process ";
    const std::string parameters = " " + ToUtf8(kExtractionParameters);
    std::wstring installer;
    const auto read = [&](const Line& line) {
        const size_t end = line.text.find(parameters);
        if (line.begins && line.text.starts_with(kStarted) && end != std::string_view::npos)
        {
            installer = ToWide(line.text.substr(kStarted.size(), end - kStarted.size()));
        }
    };
    try
    {
        if (log)
        {
            ReadLines(*log, read);
        }
    }
    catch (const UnreadableFile&)  // the part that was read counts
    {
    }
    return installer;
}

void RemoveUnpacked(const SafePlace& place)
{
    try
    {
        RemoveAll(JoinPath(place.Kept(), kExtractionFolder));
    }
    catch (const std::filesystem::filesystem_error&)  // costs disk space, no more
    {
    }
}
}  // namespace

std::wstring FindInstaller(const SafePlace& place, const std::optional<std::wstring>& log,
                           const std::wstring& driverFolder)
{
    // Kept ones: the interruption may have come after they were moved and before that was remembered.
    for (const std::wstring& path : {InstallerInLog(log), place.Temporary() + kDownload, place.Temporary() + kInstaller,
                                     place.Kept() + kDownload, place.Kept() + kInstaller})
    {
        if (!path.empty() && FileExists(path))
        {
            return path;
        }
    }
    try
    {
        return FindLocalInstaller(driverFolder);
    }
    catch (const std::filesystem::filesystem_error&)
    {
        return {};
    }
}

void KeepInstaller(const SafePlace& place, std::wstring installer, LastRun& run)
{
    bool mayReplace = true;
    if (IsIn(installer, place.Kept()))  // what else is kept is removed
    {
        CreateDirectoryW(place.Temporary().c_str(), nullptr);
        const std::wstring aside = place.Temporary() + kInstaller;
        mayReplace = MoveFileW(installer.c_str(), aside.c_str()) != 0;
        installer = mayReplace ? aside : installer;
    }
    const bool isMoved = mayReplace && place.KeepTemporary();
    CreateDirectoryW(place.Kept().c_str(), nullptr);  // for a copy
    if ((run.lost & kMainProduct) != 0)               // its installer unpacks again
    {
        RemoveUnpacked(place);
    }
    const std::wstring copy = place.Kept() + kInstaller;
    if (isMoved && IsIn(installer, place.Temporary()))
    {
        installer.replace(0, place.Temporary().size(), place.Kept());
    }
    else if (installer != copy && !installer.empty())
    {
        if (CopyFileW(installer.c_str(), copy.c_str(), FALSE) != 0)
        {
            installer = copy;
        }
        else
        {
            DeleteFileW(copy.c_str());  // a part of it would take the space that the next run needs
        }
    }
    run.keptInstaller = FileExists(installer) ? installer : std::wstring();
}

bool HasKeptPackages(const SafePlace& place, std::uint32_t products)
{
    return std::ranges::all_of(kOptional, [&](const OptionalProduct& one) {
        return (products & one.product) == 0 || FileExists(JoinPath(place.Kept(), kExtractionFolder) + one.package);
    });
}

PackagesResult InstallKeptPackages(const SafePlace& place, std::uint32_t products)
{
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    TakeToolLog();  // drops earlier lines
    PackagesResult result;
    for (const auto& [product, name, package] : kOptional)
    {
        if ((products & product) != 0)
        {
            const std::wstring path = JoinPath(place.Kept(), kExtractionFolder) + package;
            const std::int32_t code = InstallMsiPackage(path, GetCustomInstallDir());
            result.isBusy = result.isBusy || code == ERROR_INSTALL_ALREADY_RUNNING;
            result.codes += (result.codes.empty() ? "" : ", ") + std::string(name) + " " + std::to_string(code);
        }
    }
    result.needsRestart = std::ranges::any_of(
        TakeToolLog(), [](const std::string& line) { return line.starts_with("System reboot may be required"); });
    return result;
}
}  // namespace repair
