// What a case can have done to the program while it runs, and when: the tables are in lab/README.md.
#pragma once
#include <string>

#include "watcher.h"

namespace watcher
{
// Both end the watcher with a message if the trigger or the action is unknown.
bool Fires(const Watch& watch, const std::wstring& trigger);
bool Perform(Watch& watch, const std::wstring& action);  // returns whether it worked
}  // namespace watcher
