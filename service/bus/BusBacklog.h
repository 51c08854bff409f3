// BusBacklog.h - how many calls of each caller wait for the main loop.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

/// For calls that want no answer: the bus bounds the others. Thread: any.
class CBusBacklog : public std::enable_shared_from_this<CBusBacklog> {
public:
    static std::shared_ptr<CBusBacklog> Make();

    /// A call is about to be queued for the default main context, which lets it out of the count.
    /// @return false when its caller has too many there already
    bool Enter(const std::string& strSender);

private:
    struct Place;

    CBusBacklog() = default;
    void Leave(const std::string& strSender);

    std::mutex m_oLock;
    std::map<std::string, std::size_t> m_waiting;
};
