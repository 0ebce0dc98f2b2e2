#include "acquisition/local_installer.h"

#include "acquisition/constants.h"
#include "base/files.h"

namespace repair
{
namespace
{
bool BeginsWithB(const std::wstring& name)
{
    return !name.empty() && (name.front() == L'B' || name.front() == L'b');
}
}  // namespace

std::filesystem::path FindInstallerInFolder(const std::wstring& folder)
{
    if (folder.empty())  // no package contains the active release
    {
        return {};
    }
    const std::filesystem::path subfolder = FindSubfolder(folder, BeginsWithB);
    return subfolder.empty() ? std::filesystem::path() : subfolder / kLocalInstallerFile;
}

std::wstring FindLocalInstaller(std::wstring folder)
{
    const std::filesystem::path candidate = FindInstallerInFolder(folder);
    return !candidate.empty() && Exists(candidate.wstring()) ? candidate.wstring() : std::wstring();
}
}  // namespace repair
