// The installer on its way from where it is found to where it is started.
#pragma once

#include <string>
#include <utility>

#include "base/files.h"
#include "base/handles.h"

namespace repair
{
// The path of an installer and what is held open so that it cannot be swapped. An empty path means no installer; a
// handle is none if it could not be opened.
struct HeldInstaller
{
    HeldInstaller() = default;
    // An installer that is already on disk, held from now on.
    explicit HeldInstaller(std::wstring installer) : path(std::move(installer)), file(HoldFile(path)) {}

    std::wstring path;
    HeldFolder folder = {};  // the download folder, in which the installer also unpacks
    FileHandle file = {};
};
}  // namespace repair
