// A fixture whose tests run once for each parameter.
#pragma once

#include <gtest/gtest.h>

namespace repair
{
template <typename Fixture, typename Parameter>
class WithParam : public Fixture, public testing::WithParamInterface<Parameter>
{
};
}  // namespace repair
