// The one owner of Windows handles.
#pragma once

namespace repair
{
// Owns one handle of a kind and closes it on destruction. The kind defines what "none" is and how to close the handle:
//     struct FileKind { using Handle = HANDLE; static Handle None() noexcept; static void Close(Handle) noexcept; };
// Two handles in one object are closed in the reverse order of their declaration.
template <typename Kind>
class Owned
{
public:
    using Handle = typename Kind::Handle;

    Owned() noexcept = default;
    explicit Owned(Handle handle) noexcept : handle_(handle) {}
    Owned(Owned&& other) noexcept : handle_(other.Release()) {}
    Owned& operator=(Owned&& other) noexcept
    {
        if (this != &other)
        {
            Close();
            handle_ = other.Release();
        }
        return *this;
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { Close(); }

    [[nodiscard]] Handle Get() const noexcept { return handle_; }
    explicit operator bool() const noexcept { return handle_ != Kind::None(); }

    // Passes the handle to the caller, who closes it.
    [[nodiscard]] Handle Release() noexcept
    {
        const Handle handle = handle_;
        handle_ = Kind::None();
        return handle;
    }

    // Closes now; does nothing without a handle.
    void Close() noexcept
    {
        if (*this)
        {
            Kind::Close(Release());
        }
    }

private:
    Handle handle_ = Kind::None();
};
}  // namespace repair
