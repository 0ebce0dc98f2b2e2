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
        const std::wstring folder = ReadMachineString(kServerKey, kServerFolderValue);
        LogLine(L"Change server to %s.", folder.c_str());
        return folder;
    }
    catch (...)  // usual: no other server is set
    {
        return kDefaultServerFolder;
    }
}
}  // namespace repair
