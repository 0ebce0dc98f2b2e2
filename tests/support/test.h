// What nearly every test needs: GoogleTest with its matchers, Windows, and system functions that can be replaced.
#pragma once

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/substitute.h"

namespace repair
{
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::PrintToString;
using testing::SizeIs;
using testing::StartsWith;

// A fixture whose tests run once for each parameter.
template <typename Fixture, typename Parameter>
class WithParam : public Fixture, public testing::WithParamInterface<Parameter>
{
};
}  // namespace repair
