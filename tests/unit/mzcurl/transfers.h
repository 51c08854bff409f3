// transfers.h - the tests' way to run transfers: a handle with its body, and the loop that a worker
// runs.
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

/// One handle with what it receives. Made ready for a GET; every other option is the test's.
struct Transfer {
    explicit Transfer(const std::string& url, const std::string& caFile = {});

    /// Sends a body, with POST or with another method.
    Transfer& sending(const std::string& text, const std::string& method = {});

    MZCurl::MZCurlEasy easy;
    std::string outgoing;
    std::string body;
};

/// How a transfer ended.
struct Outcome {
    bool success = false;
    int code = -1;
    std::string error;
    int times = 0;  ///< how often it was handed out
};

/// A multi handle, started on the thread of the test.
class Worker {
public:
    Worker();

    /// Adds the transfers and runs the loop until each one was handed out and taken out.
    void run(const std::vector<Transfer*>& transfers);
    Outcome run(Transfer& transfer);

    const Outcome& outcome(const Transfer& transfer) { return m_outcomes[&transfer.easy]; }

    MZCurl::MZCurlMulti multi;

private:
    std::map<const MZCurl::MZCurlEasy*, Outcome> m_outcomes;
};

/// So many of them to one address.
std::vector<std::unique_ptr<Transfer>> several(int count, const std::string& url,
                                               const std::string& caFile = {});

/// The first message of this round; without a handle when there is none.
MZCurl::MZCurlMulti::MultiMsg readOne(MZCurl::MZCurlMulti& multi);

using Clock = std::chrono::steady_clock;

/// Seconds since a moment.
inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace test
