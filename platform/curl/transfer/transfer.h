// transfer.h - the data behind one easy handle, divided by who writes it.
#pragma once

#include "attempt.h"
#include "options.h"
#include "place.h"

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>

namespace MZCurl {

/// How often a transfer was begun again, by reason (repeat.h).
struct Repeats {
    unsigned int lost = 0;
    unsigned int session = 0;
    unsigned int refused = 0;
    unsigned int postponed = 0;
};

/// All attempts of a transfer together. Writer: the performer; `repeats`: repeat.cpp.
struct Progress {
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    Repeats repeats;
    unsigned int number = 0;  // among those that the multi handle has begun; 0 before
    CURLcode result = CURLE_OK;
    const char* failure = nullptr;  // why it ended without libcurl; a literal
};

/// Thread: one at a time, as for MZCurlEasy.
struct Transfer {
    Options options;
    Progress progress;
    Place place;
    std::unique_ptr<Attempt> attempt;  // from its slot to its end: what waits for a slot has none

    bool mayBeSentAgain() const { return options.mayBeSentAgain(); }

    /// @return text for its result; empty for success
    std::string resultText() const;
};

/// Moves a transfer to the end of another list.
void moveTo(Transfer& transfer, TransferList& list);

}  // namespace MZCurl
