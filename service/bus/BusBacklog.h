// BusBacklog.h - how many calls of each caller wait for the main loop.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

/// Bounds the queued calls that expect no reply; the bus bounds the others. Thread: any.
class CBusBacklog : public std::enable_shared_from_this<CBusBacklog> {
public:
    static std::shared_ptr<CBusBacklog> Make();

    /// Counts a call that is about to be queued for the default main context, until its turn comes.
    /// @return false when too many calls of this sender are queued; the call is not counted then
    bool Enter(const std::string& strSender);

private:
    struct Place;

    CBusBacklog() = default;
    void Leave(const std::string& strSender);

    std::mutex m_oLock;
    std::map<std::string, std::size_t> m_waiting;
};
