// Fixtures of the tests of the Store edition: a Windows Runtime and what is logged.
#pragma once

#include <gtest/gtest.h>

#include "support/fake_runtime.h"
#include "support/log_capture.h"

namespace repair
{
class StoreTest : public testing::Test
{
protected:
    FakeRuntime runtime_;
    LogCapture log_;
};

template <typename Parameter>
class StoreTestOf : public StoreTest, public testing::WithParamInterface<Parameter>
{
};
}  // namespace repair
