// The kinds of handle that more than one folder owns.
#pragma once

#include <windows.h>

#include "base/owned.h"

namespace repair
{
struct FileKind
{
    using Handle = HANDLE;
    static Handle None() noexcept
    {
        return INVALID_HANDLE_VALUE;
    }  // not null: this is what CreateFileW returns on failure
    static void Close(Handle file) noexcept { CloseHandle(file); }
};
using FileHandle = Owned<FileKind>;

// A kernel object whose functions return null on failure.
struct ObjectKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle object) noexcept { CloseHandle(object); }
};
using EventHandle = Owned<ObjectKind>;
using ProcessHandle = Owned<ObjectKind>;

// Memory released with LocalFree: message texts, access lists, security descriptors.
struct LocalMemoryKind
{
    using Handle = void*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle memory) noexcept { LocalFree(memory); }
};
using LocalMemory = Owned<LocalMemoryKind>;
}  // namespace repair
