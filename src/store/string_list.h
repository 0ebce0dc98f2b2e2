// Lists of texts for the Windows Runtime.
#pragma once

#include <string>
#include <vector>

#include "store/winrt_abi.h"
#include "store/winrt_runtime.h"

namespace repair
{
// Makes a read-only list, which is also a vector view; any thread with a reference may use it. Throws WinrtError if a
// text cannot be made.
Reference<abi::IStringIterable> MakeStringList(const std::vector<std::wstring>& texts);
}  // namespace repair
