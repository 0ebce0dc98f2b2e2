// Ends the application's running programs before its files are replaced.
#pragma once

namespace repair
{
// Asks the application to exit, then kills its programs by name. Every step is tried whatever the one before did; each
// start writes its own log line. Takes up to 30 seconds for each of the six starts. Nothing is reported.
void StopRunningComponents();
}  // namespace repair
