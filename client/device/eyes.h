// eyes.h - the root helper: a process that stays root when the doctor takes the service's identity.
#pragma once

#include "facts.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace client {

/// Answers questions about the system. As root it uses a helper process, which the constructor forks: this process must
/// have only one thread then. Thread: one.
class Eyes {
public:
    explicit Eyes(bool ownProcess);
    ~Eyes();
    Eyes(const Eyes&) = delete;
    Eyes& operator=(const Eyes&) = delete;

    Facts facts(const std::string& bus, double timeout) const;
    std::vector<std::string> journalTail(int lines) const;
    Record record(unsigned pid) const;
    bool isStopped(unsigned pid) const;

private:
    Json::Value ask(const Json::Value& question) const;

    pid_t m_child = 0;
    int m_channel = -1;
};

}  // namespace client
