// rules.h - prepares libcurl's handle: the rules that no option can change, the options, and the conditions of each attempt.
#pragma once

#include "attempt.h"

#include <chrono>
#include <memory>

namespace MZCurl {

/// The conditions of one attempt.
struct Conditions {
    bool freshConnection = false;  // uses a new connection even if one is kept
    bool onlyHttp11 = false;       // over a connection of its own
    bool offersSession = true;
    std::chrono::milliseconds timeLeft{0};  // 0: no limit
};

/// Makes an attempt with a handle from the pool or a new one. The options must not change while it exists.
/// @return null without memory
std::unique_ptr<Attempt> prepare(const Options& options, Transfer& transfer, Performer& performer);

/// Begins the attempt, or begins it once more: forgets what was noted before.
void begin(Attempt& attempt, const Conditions& conditions);

}  // namespace MZCurl
