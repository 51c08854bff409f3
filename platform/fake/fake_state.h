// fake_state.h - what the setters write and the platform functions read.
#pragma once

#include "fake_platform.h"
#include "fake_secure.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace fake {

/// What the platform answers.
struct Answers {
    std::map<std::string, std::string> config;
    std::optional<std::string> language;
    std::optional<int> serverType;
    std::optional<std::string> guid;
    std::optional<std::string> authToken;
    std::optional<std::string> loginId;
    std::optional<std::pair<int, int>> timeZone;
    int gatewayError = 0;
    bool gatewayExists = false;
    bool networkHasChanged = false;
    std::optional<std::string> hosts[2];
};

/// The state of the one platform: take the lock for everything in it.
struct State {
    std::mutex lock;
    Answers answers;
    std::vector<Event> timeline;
    bool showsPrivate = true;
    std::function<void(const LogRecord&)> observer;
    Secure secure;

    /// Puts a call or a note into the timeline.
    void happened(Event::Kind kind, std::string what)
    {
        timeline.push_back({kind, {}, std::move(what)});
    }
};

/// Made at the first use and never destroyed: threads may still log while the process ends.
State& state();

template <typename Change>
void change(Change what)
{
    State& s = state();
    const std::lock_guard<std::mutex> hold(s.lock);
    what(s);
}

/// Takes a formatted message apart.
LogRecord parseRecord(log_priority priority, const char* tag, std::string message);

}  // namespace fake
