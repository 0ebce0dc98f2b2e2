// Ends the application's running programs before its files are replaced.
#pragma once

namespace repair
{
// Asks the application to exit, then kills its programs by name. Ignores failures; each of the six starts writes its
// own log line and takes up to 30 seconds.
void StopRunningComponents();
}  // namespace repair
