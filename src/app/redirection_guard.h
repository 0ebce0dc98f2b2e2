// Protection against links that other users plant.
#pragma once

namespace repair
{
// From now on the process does not follow junctions made by users without administrator rights. Only for the system
// account, whose temporary folder every user may write to. Does nothing if Windows lacks this function, or if the path
// of the log or of the temporary folder contains a link. Never throws, logs nothing.
void GuardAgainstRedirection() noexcept;
}  // namespace repair
