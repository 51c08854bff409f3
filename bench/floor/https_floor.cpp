// https_floor.cpp - the cost of a request with libcurl's multi handle alone: the lower limit of the daemon's network side.
//
// usage: https_floor COUNT IN_FLIGHT URL CA_FILE CERTIFICATE KEY [HEADER...]
//
// KEY is a file, or a PKCS#11 URI for libp11's engine. Keeps IN_FLIGHT requests under way until COUNT
// are answered with status 200. Prints JSON.
#include "fetch.h"

#include <algorithm>

namespace {

void fetchAll(CURLM* multi, const Target& target, int count, int inFlight)
{
    Samples samples;
    int started = 0;
    while (started < std::min(count, inFlight)) {
        start(multi, target);
        started++;
    }
    for (int finished = 0; finished < count;) {
        int running = 0;
        curl_multi_perform(multi, &running);
        int left = 0;
        while (const CURLMsg* const message = curl_multi_info_read(multi, &left)) {
            samples.add(finish(multi, *message)->began);
            finished++;
            if (started < count) {
                start(multi, target);
                started++;
            }
        }
        if (finished < count)
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    samples.print();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 7)
        failFetch("usage: https_floor COUNT IN_FLIGHT URL CA_FILE CERTIFICATE KEY [HEADER...]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* const multi = curl_multi_init();
    const Target target = targetOf(argv[3], argv + 4);
    fetchAll(multi, target, std::atoi(argv[1]), std::max(std::atoi(argv[2]), 1));
    curl_multi_cleanup(multi);
    curl_share_cleanup(target.share);
    curl_slist_free_all(target.headers);
    return 0;
}
