// slow_names.cpp - preloaded, it keeps whoever looks up a name waiting for a minute: as a device does
// whose name servers do not answer.
#include <netdb.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char*, const char*,
                                                                  const addrinfo*, addrinfo**)
{
    constexpr unsigned kMinute = 60;
    sleep(kMinute);
    return EAI_AGAIN;
}
