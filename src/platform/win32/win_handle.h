// Owner of a Win32 kernel handle.
#pragma once

#include <windows.h>

// Closes a kernel handle when it goes out of scope.
class WinHandle {
public:
    WinHandle() = default;
    explicit WinHandle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    ~WinHandle()
    {
        if (handle_)
            CloseHandle(handle_);
    }
    WinHandle(const WinHandle &) = delete;
    WinHandle &operator=(const WinHandle &) = delete;
    WinHandle(WinHandle &&other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }
    WinHandle &operator=(WinHandle &&other) noexcept
    {
        if (this != &other) {
            if (handle_)
                CloseHandle(handle_);
            handle_ = other.handle_;
            other.handle_ = nullptr;
        }
        return *this;
    }

    HANDLE get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

private:
    HANDLE handle_ = nullptr;
};
