// transfer.cpp - creates, resets and keeps libcurl's handle of a transfer.
#include "transfer.h"

#include <utility>

namespace MZCurl {

Transfer::~Transfer()
{
    if (curl != nullptr && pristine && !lonely) {
        keepHandle(std::move(curl));
    }
}

bool Transfer::initialize()
{
    curl = takeHandle();
    if (curl == nullptr) {
        curl.reset(curl_easy_init());
        if (curl != nullptr && !applyRules()) {
            curl.reset();
        }
    }
    if (curl != nullptr && !applyOwnRules()) {
        curl.reset();
    }
    return curl != nullptr;
}

void Transfer::reset()
{
    curl_easy_reset(curl.get());
    headers = {};
    url.clear();
    caFile.clear();
    lastError.clear();
    write = nullptr;
    writeData = nullptr;
    sslContext = nullptr;
    sslContextData = nullptr;
    userPointer = nullptr;
    timeout = {};
    sendsBody = false;
    namesMethod = false;
    start();
    if (!applyRules() || !applyOwnRules()) {
        curl.reset();
    }
    pristine = true;
}

void Transfer::start()
{
    started = std::chrono::steady_clock::now();
    repeats = {};
    number = 0;
    bodyBytes = 0;
    headerBytes = 0;
    refusal = nullptr;
    startFailure = nullptr;
    result = CURLE_OK;
}

bool Transfer::fail(const char* reason)
{
    lastError = reason;
    return false;
}

void moveTo(Transfer& transfer, TransferList& list)
{
    list.splice(list.end(), *transfer.home, transfer.node);
    transfer.home = &list;
}

}  // namespace MZCurl
