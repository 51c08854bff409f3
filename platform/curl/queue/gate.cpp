// gate.cpp - lets the first transfer to a host go ahead of the others.
#include "gate.h"

#include "curl/transfer/url.h"
#include "quotas.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace MZCurl {
namespace {

constexpr std::chrono::milliseconds kLongestWait{1000};

struct UrlCleanup {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};

std::string keyOf(const std::string& url)
{
    const std::unique_ptr<CURLU, UrlCleanup> parsed(curl_url());
    if (parsed == nullptr ||
        curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_GUESS_SCHEME) != CURLUE_OK) {
        return {};
    }
    std::string key;
    for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
        char* text = nullptr;
        if (curl_url_get(parsed.get(), part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) {
            return {};
        }
        const std::unique_ptr<char, CurlFree> holder(text);
        key.append(text).append(1, ' ');
    }
    return key;
}

/// @return whether the URL has no blanks and no control characters: with one it is not valid
bool isPlain(const std::string& url)
{
    return std::all_of(url.begin(), url.end(),
                       [](unsigned char c) { return c > ' ' && c != 0x7f; });
}

bool mayGo(const Host& host, Gate::Clock::time_point now)
{
    return host.open || now >= host.deadline;
}

}  // namespace

std::shared_ptr<const std::string> HostKey::of(const std::string& url)
{
    const std::string_view start = startOf(url);
    if (m_key == nullptr || m_key->empty() || start != m_start || !isPlain(url)) {
        auto key = std::make_shared<const std::string>(keyOf(url));
        m_start = start;
        m_key = std::move(key);
    }
    return m_key;
}

bool Gate::enter(Transfer& transfer, Clock::time_point now)
{
    if (transfer.place.hostKey->empty()) {
        return true;
    }
    try {
        Host& host = m_hosts[*transfer.place.hostKey];
        transfer.place.host = &host;
        if (++host.members == 1) {
            host.open = false;
            host.deadline = now + kLongestWait;
        } else if (!mayGo(host, now)) {
            moveTo(transfer, host.waiting);
            return false;
        }
    } catch (const std::bad_alloc&) {
        // Without memory for the host its transfers do not wait.
    }
    return true;
}

void Gate::open(const Transfer& transfer)
{
    if (transfer.place.host != nullptr) {
        transfer.place.host->open = true;
    }
}

void Gate::leave(Transfer& transfer)
{
    Host* const host = transfer.place.host;
    if (host == nullptr) {
        return;
    }
    transfer.place.host = nullptr;
    if (transfer.place.home != &host->waiting) {
        host->open = true;
    }
    if (--host->members == 0 && m_hosts.size() > kRemembered) {
        m_hosts.erase(*transfer.place.hostKey);
    }
}

void Gate::release(TransferList& to, Clock::time_point now)
{
    for (auto& [key, host] : m_hosts) {
        while (mayGo(host, now) && !host.waiting.empty()) {
            moveTo(*host.waiting.front(), to);
        }
    }
}

int Gate::waitBound(Clock::time_point now, int most) const
{
    int bound = most;
    for (const auto& [key, host] : m_hosts) {
        if (host.waiting.empty()) {
            continue;
        }
        bound = mayGo(host, now) ? 0 : std::min(bound, millisecondsUntil(host.deadline, now));
    }
    return bound;
}

int millisecondsUntil(Gate::Clock::time_point then, Gate::Clock::time_point now)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(then - now).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace MZCurl
