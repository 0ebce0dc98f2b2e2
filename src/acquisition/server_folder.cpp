#include "acquisition/server_folder.h"

#include "acquisition/constants.h"
#include "base/log.h"
#include "base/registry.h"

namespace repair
{
std::wstring GetServerFolder() noexcept
{
    try
    {
        const std::wstring folder = ReadRegistryString(OpenMachineKey(kServerKey), L"", kServerFolderValue);
        LogLine(L"Change server to %s.", folder.c_str());
        return folder;
    }
    catch (...)  // the usual machine: nobody has set another server
    {
        return kDefaultServerFolder;
    }
}
}  // namespace repair
