// platform/common/secret_bytes.h - bytes that are overwritten before their memory is freed.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <new>
#include <vector>

namespace secret {

template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>&)
    {
    }

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count)
    {
        OPENSSL_cleanse(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    bool operator==(const WipingAllocator&) const { return true; }
    bool operator!=(const WipingAllocator&) const { return false; }
};

/// Growing overwrites the old memory, too.
using Bytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

}  // namespace secret
