// https_floor.cpp - what a request costs with libcurl's multi handle alone: the floor under the
// daemon's network side.
//
// usage: https_floor URL CA_FILE CERTIFICATE_AND_KEY COUNT IN_FLIGHT [HEADER...]
//
// Keeps IN_FLIGHT requests under way until COUNT are answered with status 200, on connections that
// are kept, with a session cache, an easy handle for each request. Prints JSON.
#include "../samples.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

[[noreturn]] void fail(const char* why)
{
    std::fprintf(stderr, "https_floor: %s\n", why);
    std::exit(1);
}

struct Target {
    const char* url;
    const char* caFile;
    const char* certificate;
    curl_slist* headers;
    CURLSH* share;
};

struct Fetch {
    Samples::Clock::time_point began = Samples::Clock::now();
    std::string body;
};

std::size_t keepBody(const char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

void start(CURLM* multi, const Target& target)
{
    auto* const fetch = new Fetch;
    CURL* const easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_PRIVATE, fetch);
    curl_easy_setopt(easy, CURLOPT_URL, target.url);
    curl_easy_setopt(easy, CURLOPT_CAINFO, target.caFile);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSLCERT, target.certificate);
    curl_easy_setopt(easy, CURLOPT_SSLKEY, target.certificate);
    // As the daemon, whose key store has no other signatures.
    curl_easy_setopt(easy, CURLOPT_SSLVERSION,
                     static_cast<long>(CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2));
    curl_easy_setopt(easy, CURLOPT_SHARE, target.share);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, target.headers);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keepBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &fetch->body);
    curl_multi_add_handle(multi, easy);
}

void finish(CURLM* multi, const CURLMsg& message, Samples& samples)
{
    CURL* const easy = message.easy_handle;
    Fetch* pointer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &pointer);
    const std::unique_ptr<Fetch> fetch(pointer);
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (message.data.result != CURLE_OK)
        fail(curl_easy_strerror(message.data.result));
    if (status != 200 || fetch->body.empty())
        fail("the answer is not the server's");
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
    samples.add(fetch->began);
}

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
            finish(multi, *message, samples);
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
    if (argc < 6)
        fail("usage: https_floor URL CA_FILE CERTIFICATE_AND_KEY COUNT IN_FLIGHT [HEADER...]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* const multi = curl_multi_init();
    CURLSH* const share = curl_share_init();
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_slist* headers = nullptr;
    for (char** header = argv + 6; *header != nullptr; header++)
        headers = curl_slist_append(headers, *header);
    fetchAll(multi, {argv[1], argv[2], argv[3], headers, share}, std::atoi(argv[4]),
             std::max(std::atoi(argv[5]), 1));
    curl_multi_cleanup(multi);
    curl_share_cleanup(share);
    curl_slist_free_all(headers);
    return 0;
}
