// The error object that travels beside a failure code.
#pragma once
#include "script.h"

namespace lab
{
// Puts an object with the outcome's texts on this thread, where the caller finds it with GetErrorInfo.
void PutErrorObject(const Outcome& outcome);
}  // namespace lab
