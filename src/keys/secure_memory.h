// Containers for secrets: their storage is overwritten before it is released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <openssl/crypto.h>

inline void wipe_memory(void *data, size_t size)
{
    if (data && size)
        OPENSSL_cleanse(data, size);
}

template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() noexcept = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U> &) noexcept {}
    T *allocate(size_t n)
    {
        void *p = std::malloc(n * sizeof(T));
        if (!p)
            throw std::bad_alloc();
        return static_cast<T *>(p);
    }
    void deallocate(T *p, size_t n) noexcept
    {
        wipe_memory(p, n * sizeof(T));
        std::free(p);
    }
    template <class U>
    bool operator==(const WipingAllocator<U> &) const noexcept { return true; }
};

using SecureBytes = std::vector<uint8_t, WipingAllocator<uint8_t>>;

// A string for passphrases: heap storage is wiped by the allocator, and the
// short-string storage inside the object is wiped by the destructor.
class SecretString : public std::basic_string<char, std::char_traits<char>, WipingAllocator<char>> {
public:
    using Base = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;
    using Base::Base;
    SecretString(const SecretString &) = default;
    SecretString(SecretString &&other) noexcept : Base(std::move(other)) { other.wipe(); }
    SecretString &operator=(const SecretString &) = default;
    SecretString &operator=(SecretString &&other) noexcept
    {
        wipe();
        Base::operator=(std::move(other));
        other.wipe();
        return *this;
    }
    ~SecretString() { wipe(); }
    void wipe() noexcept
    {
        wipe_memory(data(), capacity());
        Base::clear();
    }
};
