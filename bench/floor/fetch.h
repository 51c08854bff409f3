// fetch.h - requests with libcurl's multi handle alone, as the daemon sends them: an easy handle for each, kept
// connections, a session cache.
#pragma once

#include "../samples.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

[[noreturn]] inline void failFetch(const char* why)
{
    std::fprintf(stderr, "fetch: %s\n", why);
    std::exit(1);
}

struct Target {
    const char* url;
    const char* caFile;
    const char* certificate;
    const char* key;  ///< path of a file, or URI of a key in a token
    curl_slist* headers;
    CURLSH* share;
};

struct Fetch {
    Samples::Clock::time_point began = Samples::Clock::now();
    void* call = nullptr;  ///< of the one who started it
    std::string body;
};

inline std::size_t keepBody(const char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

inline void start(CURLM* multi, const Target& target, void* call = nullptr)
{
    auto* const fetch = new Fetch;
    fetch->call = call;
    CURL* const easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_PRIVATE, fetch);
    curl_easy_setopt(easy, CURLOPT_URL, target.url);
    curl_easy_setopt(easy, CURLOPT_CAINFO, target.caFile);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSLCERT, target.certificate);
    if (std::string_view(target.key).substr(0, 7) == "pkcs11:") {
        if (curl_easy_setopt(easy, CURLOPT_SSLENGINE, "pkcs11") != CURLE_OK)
            failFetch("no engine for PKCS#11");
        curl_easy_setopt(easy, CURLOPT_SSLKEYTYPE, "ENG");
    }
    curl_easy_setopt(easy, CURLOPT_SSLKEY, target.key);
    // As the daemon, whose key store has no signatures for TLS 1.3.
    curl_easy_setopt(easy, CURLOPT_SSLVERSION,
                     static_cast<long>(CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2));
    curl_easy_setopt(easy, CURLOPT_SHARE, target.share);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, target.headers);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keepBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &fetch->body);
    curl_multi_add_handle(multi, easy);
}

/// @return the fetch that has ended
inline std::unique_ptr<Fetch> finish(CURLM* multi, const CURLMsg& message)
{
    CURL* const easy = message.easy_handle;
    Fetch* pointer = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &pointer);
    std::unique_ptr<Fetch> fetch(pointer);
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (message.data.result != CURLE_OK)
        failFetch(curl_easy_strerror(message.data.result));
    if (status != 200 || fetch->body.empty())
        failFetch("the answer is not the server's");
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
    return fetch;
}

/// @param arguments  CA_FILE CERTIFICATE KEY [HEADER...], with a null behind the last
inline Target targetOf(const char* url, char** arguments)
{
    CURLSH* const share = curl_share_init();
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_slist* headers = nullptr;
    for (char** header = arguments + 3; *header != nullptr; header++)
        headers = curl_slist_append(headers, *header);
    return {url, arguments[0], arguments[1], arguments[2], headers, share};
}
