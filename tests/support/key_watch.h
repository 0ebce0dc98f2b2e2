// Watches one key of HKEY_LOCAL_MACHINE. It must be opened for reading only, in the process's own view of the registry.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "support/substitute.h"

IMPORTED(RegCloseKey, RegOpenKeyExW)

namespace repair
{
class KeyWatch
{
public:
    explicit KeyWatch(std::wstring path) : path_(std::move(path)) {}

    int opened = 0;
    int closed = 0;
    std::function<void()> onClose = [] {};

private:
    std::wstring path_;
    HKEY key_ = nullptr;

    SUBSTITUTE(RegOpenKeyExW)
    open_{[this](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_EQ(path, path_);
        EXPECT_EQ(options, 0u);
        EXPECT_EQ(access, 0x20019u);
        const LSTATUS status = open_.Original()(root, path, options, access, key);
        ++opened;
        key_ = *key;
        return status;
    }};
    SUBSTITUTE(RegCloseKey)
    close_{[this](HKEY key) {
        if (key_ != nullptr && key == key_)
        {
            key_ = nullptr;  // another key may get the same value
            ++closed;
            onClose();
        }
        return close_.Original()(key);
    }};
};
}  // namespace repair
