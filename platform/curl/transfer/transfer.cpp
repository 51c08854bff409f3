// transfer.cpp - the text of a transfer's result, and its way from list to list.
#include "transfer.h"

#include "tls.h"

namespace MZCurl {

std::string Transfer::resultText() const
{
    if (progress.result == CURLE_OK) {
        return {};
    }
    if (progress.failure != nullptr) {
        return progress.failure;
    }
    if (attempt == nullptr) {
        return curl_easy_strerror(progress.result);
    }
    if (attempt->refusal != nullptr) {
        return attempt->refusal;
    }
    const std::string text = attempt->errorBuffer[0] != '\0' ? attempt->errorBuffer.data()
                                                             : curl_easy_strerror(progress.result);
    return text + tlsCause(attempt->curl.get(), progress.result, text);
}

void moveTo(Transfer& transfer, TransferList& list)
{
    list.splice(list.end(), *transfer.place.home, transfer.place.node);
    transfer.place.home = &list;
}

}  // namespace MZCurl
