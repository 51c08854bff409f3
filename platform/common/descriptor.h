// descriptor.h - owner of a file descriptor; the destructor closes it.
#pragma once

#include <unistd.h>

#include <utility>

struct Descriptor {
    int fd;
    explicit Descriptor(int opened) : fd(opened) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
};
