// fake_state.h - the state that the setters write and the platform functions read.
#pragma once

#include "fake_platform.h"
#include "fake_secure.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace fake {

/// Answers of the platform.
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

/// State of the platform. The lock guards all of it.
struct State {
    std::mutex lock;
    Answers answers;
    std::vector<Event> timeline;
    bool showsPrivate = true;
    std::function<void(const LogRecord&)> observer;
    Secure secure;

    /// Adds a call or a note to the timeline.
    void happened(Event::Kind kind, std::string what)
    {
        timeline.push_back({kind, {}, std::move(what)});
    }
};

/// Made at the first use and never destroyed: another thread may log while the process ends.
State& state();

template <typename Change>
void change(Change what)
{
    State& s = state();
    const std::lock_guard<std::mutex> hold(s.lock);
    what(s);
}

/// Parses a formatted message.
LogRecord parseRecord(log_priority priority, const char* tag, std::string message);

}  // namespace fake
