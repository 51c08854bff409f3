// both_floor.cpp - the smallest service with the daemon's task: takes a call, fetches the answer, and only then takes the
// next call. One thread; no log, no settings, no key store.
//
// This is the lower limit of the daemon's time. The sum of the other two floors is less: each of them runs alone in a loop,
// with all its data in the processor's caches.
//
// usage: both_floor NAME URL CA_FILE CERTIFICATE KEY [HEADER...]
#include "fetch.h"
#include "serve.h"

namespace {

struct Fetcher {
    CURLM* multi;
    Target target;
};

std::unique_ptr<Fetch> fetchOne(const Fetcher& fetcher)
{
    start(fetcher.multi, fetcher.target);
    for (;;) {
        int running = 0;
        curl_multi_perform(fetcher.multi, &running);
        int left = 0;
        if (const CURLMsg* const message = curl_multi_info_read(fetcher.multi, &left))
            return finish(fetcher.multi, *message);
        curl_multi_poll(fetcher.multi, nullptr, 0, 1000, nullptr);
    }
}

void answer(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
            GDBusMethodInvocation* invocation, void* fetcher)
{
    const std::unique_ptr<Fetch> fetch = fetchOne(*static_cast<Fetcher*>(fetcher));
    g_dbus_method_invocation_return_value(invocation,
                                          g_variant_new("(is)", 0, fetch->body.c_str()));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 6)
        fail("usage", "both_floor NAME URL CA_FILE CERTIFICATE KEY [HEADER...]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Fetcher fetcher{curl_multi_init(), targetOf(argv[2], argv + 3)};
    serve(argv[1], answer, &fetcher);
    return 0;
}
