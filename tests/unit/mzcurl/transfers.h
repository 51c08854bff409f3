// transfers.h - helpers of the wrapper's tests: a handle with its body, and the loop of a worker.
#pragma once

#include <platform/MZCurl.h>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace test {

/// Appends to the std::string in userdata.
unsigned int appendBody(char* data, unsigned int size, unsigned int count, void* userdata);

/// One handle with its received body. Prepared for a GET; the test sets every other option.
struct Transfer {
    explicit Transfer(const std::string& url, const std::string& caFile = {});

    /// Sends a body, with POST or with another method.
    Transfer& sending(const std::string& text, const std::string& method = {});

    MZCurl::MZCurlEasy easy;
    std::string outgoing;
    std::string body;
};

/// End of a transfer.
struct Outcome {
    bool success = false;
    int code = -1;
    std::string error;
    int times = 0;  ///< number of times that it was handed out
};

/// A multi handle, initialised on the test's thread.
class Worker {
public:
    Worker();

    /// Adds the transfers and runs the loop until each one was handed out and removed.
    void run(const std::vector<Transfer*>& transfers);
    Outcome run(Transfer& transfer);

    const Outcome& outcome(const Transfer& transfer) { return m_outcomes[&transfer.easy]; }

    MZCurl::MZCurlMulti multi;

private:
    std::map<const MZCurl::MZCurlEasy*, Outcome> m_outcomes;
};

/// That many transfers to one address.
std::vector<std::unique_ptr<Transfer>> several(int count, const std::string& url,
                                               const std::string& caFile = {});

/// Reads the first message of this round.
/// @return a message without a handle when there is none
MZCurl::MZCurlMulti::MultiMsg readOne(MZCurl::MZCurlMulti& multi);

using Clock = std::chrono::steady_clock;

/// Seconds since that moment.
inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace test
