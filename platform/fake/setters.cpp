// setters.cpp - the setters and the records of the scriptable backend.
#include "common/value_rules.h"
#include "fake_platform.h"
#include "fake_state.h"

#include <algorithm>

namespace fake {

namespace {

/// A working device; fake_platform.h documents the values.
Answers workingDevice()
{
    Answers answers;
    answers.config = {{"db/comss/atoken", "atoken-1"},
                      {"db/comss/hwduid", "duid-1"},
                      {"db/comss/countrycode", "US"},
                      {"db/comss/modelid", "model-1"},
                      {"memory/menu/network/set_time", "1"}};
    answers.language = "en_US.utf8";
    answers.serverType = 1;
    answers.guid = "guid-1";
    answers.authToken = "auth-token-1";
    answers.loginId = "uid-1";
    answers.timeZone = {3600, 0};
    answers.gatewayExists = true;
    answers.hosts[DEPLOYMENT_HOST_PRODUCTION] = "production.example";
    answers.hosts[DEPLOYMENT_HOST_SANDBOX] = "sandbox.example";
    return answers;
}

void forget(std::vector<Event>& timeline, Event::Kind kind)
{
    timeline.erase(std::remove_if(timeline.begin(), timeline.end(),
                                  [kind](const Event& event) { return event.kind == kind; }),
                   timeline.end());
}

}  // namespace

State& state()
{
    static State* const pState = [] {
        auto* const p = new State;
        p->answers = workingDevice();
        return p;
    }();
    return *pState;
}

Platform& platform()
{
    static Platform instance;
    return instance;
}

void Platform::reset()
{
    change([](State& s) {
        s.answers = workingDevice();
        s.timeline.clear();
        s.showsPrivate = true;
        s.observer = nullptr;
        s.secure.reset();
    });
}

void Platform::config(const std::string& key, std::optional<std::string> value)
{
    change([&](State& s) {
        if (value)
            s.answers.config[key] = *value;
        else
            s.answers.config.erase(key);
    });
}

void Platform::language(std::optional<std::string> value)
{
    change([&](State& s) { s.answers.language = std::move(value); });
}

void Platform::serverType(std::optional<int> value)
{
    change([&](State& s) { s.answers.serverType = value; });
}

void Platform::guid(std::optional<std::string> value)
{
    change([&](State& s) { s.answers.guid = std::move(value); });
}

void Platform::authToken(std::optional<std::string> value)
{
    change([&](State& s) { s.answers.authToken = std::move(value); });
}

void Platform::loginId(std::optional<std::string> value)
{
    change([&](State& s) { s.answers.loginId = std::move(value); });
}

void Platform::timeZone(std::optional<std::pair<int, int>> utcoffAndDstoff)
{
    change([&](State& s) { s.answers.timeZone = utcoffAndDstoff; });
}

void Platform::gateway(bool exists)
{
    change([&](State& s) {
        s.answers.gatewayError = 0;
        s.answers.gatewayExists = exists;
    });
}

void Platform::logShowsPrivate(bool on)
{
    change([&](State& s) { s.showsPrivate = on; });
}

void Platform::gatewayFails(int code)
{
    change([&](State& s) { s.answers.gatewayError = code; });
}

void Platform::networkChanges()
{
    change([](State& s) { s.answers.networkHasChanged = true; });
}

void Platform::host(deployment_host_e which, std::optional<std::string> value)
{
    change([&](State& s) { s.answers.hosts[which] = std::move(value); });
}

void Platform::onLog(std::function<void(const LogRecord&)> observer)
{
    change([&](State& s) { s.observer = std::move(observer); });
}

std::vector<Event> Platform::timeline() const
{
    const std::lock_guard<std::mutex> hold(state().lock);
    return state().timeline;
}

void Platform::clearTimeline()
{
    change([](State& s) {
        s.timeline.clear();
        s.secure.calls.clear();
    });
}

void Platform::note(std::string what)
{
    change([&](State& s) { s.happened(Event::NOTE, std::move(what)); });
}

std::vector<LogRecord> Platform::log() const
{
    std::vector<LogRecord> records;
    for (Event& event : timeline())
        if (event.kind == Event::LOG)
            records.push_back(std::move(event.record));
    return records;
}

void Platform::clearLog()
{
    change([](State& s) { forget(s.timeline, Event::LOG); });
}

std::vector<std::string> Platform::calls() const
{
    std::vector<std::string> names;
    for (Event& event : timeline())
        if (event.kind == Event::CALL)
            names.push_back(std::move(event.text));
    return names;
}

void Platform::clearCalls()
{
    change([](State& s) {
        forget(s.timeline, Event::CALL);
        s.secure.calls.clear();
    });
}

LogRecord parseRecord(log_priority priority, const char* tag, std::string message)
{
    LogRecord record;
    record.ePriority = priority;
    record.strTag = tag;
    const std::size_t file = message.find(": ");
    const std::size_t end = message.find(") > ");
    const std::size_t open = end == std::string::npos ? end : message.rfind('(', end);
    if (file == std::string::npos || open == std::string::npos || open < file + 2) {
        record.strText = std::move(message);
        return record;
    }
    const auto line =
        valuerules::wholeNumber(std::string_view(message).substr(open + 1, end - open - 1));
    if (!line) {
        record.strText = std::move(message);
        return record;
    }
    record.strFile = message.substr(0, file);
    record.strFunction = message.substr(file + 2, open - file - 2);
    record.iLine = *line;
    record.strText = message.substr(end + 4);
    return record;
}

std::ostream& operator<<(std::ostream& out, const LogRecord& record)
{
    static const char letters[] = "???DIWE";
    const int priority = record.ePriority;
    out << (priority >= 0 && priority <= DLOG_ERROR ? letters[priority] : '?') << '/'
        << record.strTag << ' ' << record.strFile << ' ' << record.strFunction << " \"";
    for (const char c : record.strText) {
        if (c == '\033')
            out << "\\e";
        else if (c == '\n')
            out << "\\n";
        else
            out << c;
    }
    return out << '"';
}

}  // namespace fake
