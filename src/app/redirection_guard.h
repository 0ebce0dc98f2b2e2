// Protection against links that other users plant.
#pragma once

namespace repair
{
// As the system account only, whose temporary folder every user may write to: from now on the process does not follow
// junctions made by users without administrator rights. Does nothing on a Windows without this, and if the path of the
// log or of the temporary folder contains a link. Never throws, logs nothing.
void GuardAgainstRedirection() noexcept;
}  // namespace repair
