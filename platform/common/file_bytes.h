// file_bytes.h - whole files through a descriptor; a signal in between is no fault.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

/// Reads up to the end of the file.
/// @param[out] bytes a string or vector of bytes; one byte more than the limit means: too long
/// @return 0, or a positive errno value
template <typename Bytes>
int readUpTo(int fd, std::size_t limit, Bytes& bytes)
{
    bytes.resize(limit + 1);
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t count = read(fd, &bytes[got], bytes.size() - got);
        if (count == 0)
            break;
        if (count > 0)
            got += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return errno;
    }
    bytes.resize(got);
    return 0;
}

/// @return 0, or a positive errno value
inline int writeWhole(int fd, const void* bytes, std::size_t size)
{
    const char* at = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t count = write(fd, at, size);
        if (count > 0) {
            at += count;
            size -= static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}
