// The kinds of handle that more than one folder owns.
#pragma once

#include <windows.h>

#include "base/owned.h"

namespace repair
{
struct FileKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }  // CreateFileW's own mark, not null
    static void Close(Handle file) noexcept { CloseHandle(file); }
};
using FileHandle = Owned<FileKind>;

struct EventKind
{
    using Handle = HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle event) noexcept { CloseHandle(event); }
};
using EventHandle = Owned<EventKind>;

// Memory that the system allocated and LocalFree releases (message texts, access lists, security descriptors).
struct LocalMemoryKind
{
    using Handle = void*;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle memory) noexcept { LocalFree(memory); }
};
using LocalMemory = Owned<LocalMemoryKind>;
}  // namespace repair
