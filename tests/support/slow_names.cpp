// slow_names.cpp - a preloaded library that delays each look-up of a name by a minute: a device whose name
// servers do not answer.
#include <netdb.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char*, const char*,
                                                                  const addrinfo*, addrinfo**)
{
    constexpr unsigned kMinute = 60;
    sleep(kMinute);
    return EAI_AGAIN;
}
