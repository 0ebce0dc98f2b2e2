// A list of texts that can be handed to the Windows Runtime.
#pragma once

#include <string>
#include <vector>

#include "store/winrt_abi.h"
#include "store/winrt_runtime.h"

namespace repair
{
// A read-only list; the object is also a vector view, and any thread may use it for as long as it holds a reference.
// Throws WinrtError when a text cannot be made.
Reference<abi::IStringIterable> MakeStringList(const std::vector<std::wstring>& texts);
}  // namespace repair
