// Records message boxes instead of showing them.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/substitute.h"

IMPORTED(MessageBoxW)

namespace repair
{
class BoxRecorder
{
public:
    using Box = std::pair<std::wstring, UINT>;  // text and flags

    std::vector<Box> boxes;
    std::function<void()> onBox = [] {};

private:
    SUBSTITUTE(MessageBoxW)
    show_{[this](HWND owner, const wchar_t* text, const wchar_t* caption, UINT flags) {
        EXPECT_EQ(owner, nullptr);
        EXPECT_STREQ(caption, L"Tavik Software Compatibility Tool");
        boxes.emplace_back(text, flags);
        onBox();
        return IDOK;
    }};
};
}  // namespace repair
