// Message boxes that nobody has to close.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/substitute.h"

IMPORTED(MessageBoxW)

namespace repair
{
class BoxRecorder
{
public:
    struct Box
    {
        std::wstring text;
        UINT flags = 0;

        bool operator==(const Box&) const = default;
        friend void PrintTo(const Box& box, std::ostream* stream)
        {
            *stream << testing::PrintToString(box.text) << " 0x" << std::hex << box.flags << std::dec;
        }
    };

    std::vector<Box> boxes;
    std::function<void()> onBox = [] {};

private:
    SUBSTITUTE(MessageBoxW)
    show_{[this](HWND owner, const wchar_t* text, const wchar_t* caption, UINT flags) {
        EXPECT_EQ(owner, nullptr);
        EXPECT_STREQ(caption, L"Tavik Software Compatibility Tool");
        boxes.push_back({text, flags});
        onBox();
        return IDOK;
    }};
};
}  // namespace repair
