// connector_stress.cpp - the connector and the curl wrapper under load: every accepted request has to be
// answered exactly once, for any timing of the two threads.
//
//   connector_stress [requests [seed]]
//
// The main thread submits requests of many senders to many paths, over http and https, with one to a thousand
// in flight and sometimes more than there are slots. Some have URLs that fail at once, some go to paths where
// the server hangs up. Then one sender submits until it is refused, while another one is still accepted. At
// the end the connector is stopped several times at random moments, with transfers that never end. Exit
// status 0: no request was lost, answered twice, answered after the stop or answered wrongly, and nothing
// hung.
#include "BillingHttpConnector.h"
#include "test_server.h"

#include <platform/MZCurl.h>
#include <platform/log.h>

#include <dlfcn.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds STALLED{60};

/// More than the number of slots, and fewer than the wrapper accepts.
constexpr unsigned MOST_AT_ONCE = 4 * BILLING_TRANSFERS;

/// More than the wrapper accepts of one sender.
constexpr unsigned MOST_ACCEPTED = 20000;

std::atomic<unsigned> g_uOfferedEarly{0};
std::string g_strCaFile;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

extern "C" {

/// Replaces the platform's function: formats nothing, and counts completions that came before their request
/// was on the list. The stress exists because of those.
int __dlog_print(log_priority, const char*, const char* format, ...)
{
    if (std::strstr(format, "This handle has been processed before") != nullptr) {
        ++g_uOfferedEarly;
    }
    return 0;
}

/// Replaces OpenSSL's function: the connector names the device's CA file, which a test cannot write.
int X509_STORE_load_file(X509_STORE* store, const char*)
{
    using Function = int (*)(X509_STORE*, const char*);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "X509_STORE_load_file"));
    return real(store, g_strCaFile.c_str());
}

}  // extern "C"

struct ConnectorProbe {
    static bool idle(CHttpConnector& oConnector)
    {
        CBillingAutoLock oLock(&CHttpConnector::m_ReqInfoLock);
        return oConnector.m_bIdle && CHttpConnector::m_ReqInfoList.empty() &&
               CHttpConnector::m_ReqInfoListBak.empty();
    }
};

namespace {

/// One request and its answers.
struct Ticket {
    std::string strExpected;  ///< the expected body; empty: a failure
    unsigned uCalls = 0;
    bool bRight = false;
};

/// All requests of the run. Threads: callbacks come on the worker, submissions on the main thread.
class Ledger {
public:
    explicit Ledger(std::size_t count) : m_tickets(count) {}

    Ticket& ticket(std::size_t index) { return m_tickets[index]; }

    void waitForRoom(unsigned limit)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return m_inFlight < limit; });
        ++m_inFlight;
    }

    void answered(Ticket& ticket, bool success, const std::string& body)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        ++ticket.uCalls;
        ticket.bRight =
            success == !ticket.strExpected.empty() && (!success || body == ticket.strExpected);
        --m_inFlight;
        ++m_answers;
        m_changed.notify_one();
    }

    void refused()
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        --m_inFlight;
        ++m_refused;
    }

    unsigned long answers()
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_answers;
    }

    /// @return whether every request got exactly one right answer
    bool report(double seconds)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        unsigned lost = 0;
        unsigned doubles = 0;
        unsigned wrong = 0;
        unsigned failures = 0;
        for (const Ticket& ticket : m_tickets) {
            lost += ticket.uCalls == 0 ? 1U : 0U;
            doubles += ticket.uCalls > 1 ? 1U : 0U;
            wrong += ticket.uCalls > 0 && !ticket.bRight ? 1U : 0U;
            failures += ticket.strExpected.empty() ? 1U : 0U;
        }
        std::printf(
            "requests %zu (%u meant to fail), answers %lu, refused %u, lost %u, "
            "answered twice %u, wrong %u, offered before they were listed %u, "
            "%.1f s, %.0f a second\n",
            m_tickets.size(), failures, m_answers, m_refused, lost, doubles, wrong,
            g_uOfferedEarly.load(), seconds, static_cast<double>(m_tickets.size()) / seconds);
        return lost == 0 && doubles == 0 && wrong == 0 && m_refused == 0;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Ticket> m_tickets;
    unsigned m_inFlight = 0;
    unsigned long m_answers = 0;
    unsigned m_refused = 0;
};

Ledger* g_pLedger = nullptr;
std::atomic<unsigned> g_uAnsweredAfterStop{0};

void OnResponse(bool bSuccess, std::string& strResponse, void* pUserData)
{
    g_pLedger->answered(*static_cast<Ticket*>(pUserData), bSuccess, strResponse);
}

void OnResponseAfterStop(bool, std::string&, void*)
{
    ++g_uAnsweredAfterStop;
}

/// Ends the process with an error when no answer comes for a minute, so that a hang is reported as a failure.
class Watchdog {
public:
    explicit Watchdog(Ledger& ledger) : m_thread([this, &ledger] { watch(ledger); }) {}
    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> guard(m_lock);
            m_done = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch(Ledger& ledger)
    {
        unsigned long before = ledger.answers();
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_changed.wait_for(lock, STALLED, [this] { return m_done; })) {
            const unsigned long now = ledger.answers();
            if (now == before) {
                std::printf("HANG: %lu answers, and none more for %lld s\n", now,
                            static_cast<long long>(STALLED.count()));
                std::fflush(stdout);
                _exit(2);
            }
            before = now;
        }
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_done = false;
    std::thread m_thread;  // last member: the thread uses the others
};

/// Answers a GET with its path and any other method with its body. Special paths make it close, send half an
/// answer, or never answer.
void Serve(test::Connection& connection)
{
    test::Request request;
    while (connection.read(request)) {
        if (request.has(" /hangup")) {
            return;
        }
        if (request.has(" /short")) {
            connection.write("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc");
            return;
        }
        if (request.has("/never ")) {
            continue;
        }
        const std::size_t path = request.head.find('/');
        const std::string name = request.head.substr(path, request.head.find(' ', path) - path);
        connection.answer(request.head.rfind("GET", 0) == 0 ? name : request.body);
    }
}

/// Makes requests of all kinds.
class Mix {
public:
    Mix(const std::string& plain, const std::string& tls, unsigned seed)
        : m_plain(plain), m_tls(tls), m_random(seed)
    {
    }

    unsigned upTo(unsigned most)
    {
        return std::uniform_int_distribution<unsigned>(1, most)(m_random);
    }

    void fill(_BILLING_HTTP_REQ_INFO_T& tRequest, Ticket& tTicket, std::size_t index)
    {
        tRequest.bSSL = upTo(8) == 1;
        const std::string& strServer = tRequest.bSSL ? m_tls : m_plain;
        // Many lanes with different load: smaller numbers are drawn more often.
        const std::string strSender = ":1." + std::to_string(upTo(upTo(30)));
        MZCurl::MZCurlMulti::SetSender(strSender.c_str());
        const std::string strName =
            "/" + std::to_string(upTo(upTo(6))) + "?" + std::to_string(index);
        tRequest.strHeader = "Request: " + std::to_string(index) + "\n";
        tRequest.eMethod = HTTP_METHOD_GET;
        tRequest.strUrl = strServer + strName;
        tTicket.strExpected = strName;
        if (upTo(5) == 1) {
            tRequest.strUrl = badUrl(strServer);
            tTicket.strExpected.clear();
        } else if (upTo(2) == 1) {
            tRequest.eMethod = upTo(2) == 1 ? HTTP_METHOD_POST : HTTP_METHOD_DELETE;
            tRequest.strBody = "body of " + strName;
            tTicket.strExpected = tRequest.strBody;
        }
    }

private:
    std::string badUrl(const std::string& strServer)
    {
        // Most bad URLs fail at once, so that the completion races with the submission.
        switch (upTo(12)) {
            case 1:
                return "ftp://127.0.0.1/";
            case 2:
                // Rarely a port that refuses: the wrapper repeats such a connection for 3.75 s.
                return upTo(20) == 1 ? "http://127.0.0.1:1/" : "http://127.0.0.1:99999/";
            case 3:
                return strServer + "/hangup";
            case 4:
                return strServer + "/short";
            case 5:
                return "";
            default:
                return "http://bad host/";
        }
    }

    std::string m_plain;
    std::string m_tls;
    std::mt19937 m_random;
};

void Submit(CHttpConnector& oConnector, Ledger& ledger, Mix& mix, std::size_t count)
{
    unsigned limit = 1;
    for (std::size_t i = 0; i < count; ++i) {
        if (i % 500 == 0) {
            limit = std::min(1U << (mix.upTo(11) - 1), MOST_AT_ONCE);
        }
        ledger.waitForRoom(limit);
        _BILLING_HTTP_REQ_INFO_T tRequest;
        Ticket& ticket = ledger.ticket(i);
        mix.fill(tRequest, ticket, i);
        tRequest.pfnCallback = OnResponse;
        tRequest.pUserData = &ticket;
        if (!oConnector.Get(&tRequest, false)) {
            ledger.refused();
        }
    }
    // Returns when no request is in flight.
    ledger.waitForRoom(1);
}

/// @return whether the connector becomes idle
bool ComesToRest(CHttpConnector& oConnector)
{
    const auto start = Clock::now();
    while (!ConnectorProbe::idle(oConnector)) {
        if (SecondsSince(start) > 30) {
            std::printf("the connector does not come to rest\n");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Submits a request of this sender that the server never answers.
/// @return whether it was accepted
bool AskInVain(CHttpConnector& oConnector, const std::string& strUrl, const char* szSender)
{
    static int iUser = 0;
    MZCurl::MZCurlMulti::SetSender(szSender);
    _BILLING_HTTP_REQ_INFO_T tRequest;
    tRequest.eMethod = HTTP_METHOD_GET;
    tRequest.strUrl = strUrl + "/never";
    tRequest.pfnCallback = OnResponseAfterStop;
    tRequest.pUserData = &iUser;
    return oConnector.Get(&tRequest, false);
}

/// @return whether the connector stops in time while requests are unanswered
bool StopsInTime(CHttpConnector& oConnector, unsigned hung)
{
    const unsigned answered = g_uAnsweredAfterStop;
    const auto start = Clock::now();
    oConnector.Destroy();
    BillingDeleteInstance<CHttpConnector>();
    const double seconds = SecondsSince(start);
    std::printf("stopped with %u hung requests in %.1f ms, answered after that: %u\n", hung,
                1000 * seconds, g_uAnsweredAfterStop - answered);
    return seconds < 2 && g_uAnsweredAfterStop == answered;
}

/// @return whether one sender is refused at its share while another sender is still accepted
bool RefusesOneSender(CHttpConnector& oConnector, const std::string& strUrl, unsigned& accepted)
{
    const auto start = Clock::now();
    while (AskInVain(oConnector, strUrl, ":1.1")) {
        // Ends the loop when no bound exists: this is more than any bound of this build.
        if (++accepted > MOST_ACCEPTED) {
            std::printf("one sender had %u requests accepted\n", accepted);
            return false;
        }
    }
    // The wrapper gives one sender two thirds of 64 requests a slot.
    const double share = 64.0 * BILLING_TRANSFERS * 2 / 3;
    const bool bFair = accepted > share - 3 && accepted < share + 3;
    const bool bOther = AskInVain(oConnector, strUrl + "/other", ":1.2");
    std::printf("one sender was refused after %u requests of %.0f in %.1f s, another one was %s\n",
                accepted, share, SecondsSince(start), bOther ? "not" : "too");
    return bOther && bFair;
}

/// @return whether the connector can be stopped again and again, in any state
bool StopsAtAnyMoment(const std::string& strUrl, Mix& mix)
{
    for (int iRound = 0; iRound < 10; ++iRound) {
        auto& oConnector = *BillingInstance<CHttpConnector>();
        if (!oConnector.Create()) {
            return false;
        }
        const unsigned hung = std::min(1U << mix.upTo(10), MOST_AT_ONCE);
        for (unsigned i = 0; i < hung; ++i) {
            const std::string strSender = ":1." + std::to_string(mix.upTo(5));
            if (!AskInVain(oConnector, strUrl + "/" + std::to_string(mix.upTo(3)),
                           strSender.c_str())) {
                return false;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(mix.upTo(100) - 1));
        if (!StopsInTime(oConnector, hung)) {
            return false;
        }
    }
    return true;
}

bool Run(std::size_t count, unsigned seed)
{
    const test::CertificateAuthority authority;
    const test::TemporaryFolder folder;
    g_strCaFile = folder.path("ca.pem");
    authority.writeTo(g_strCaFile);
    const test::Identity identity = authority.issue();
    test::ServerOptions options;
    options.keepsRequests = false;
    test::TestServer plain(Serve, options);
    options.identity = &identity;
    test::TestServer tls(Serve, options);

    // The instance of the process: the TLS context of each new connection asks it for the credentials.
    auto& oConnector = *BillingInstance<CHttpConnector>();
    if (!oConnector.Create()) {
        return false;
    }
    Ledger ledger(count);
    g_pLedger = &ledger;
    Mix mix(plain.url(), tls.url(), seed);
    double seconds = 0;
    {
        const Watchdog watchdog(ledger);
        const auto start = Clock::now();
        Submit(oConnector, ledger, mix, count);
        seconds = SecondsSince(start);
    }
    bool ok = ComesToRest(oConnector);
    ok = ledger.report(seconds) && ok;
    std::printf("connections: %d plain, %d TLS (%d full handshakes)\n", plain.connections(),
                tls.connections(), tls.fullHandshakes());
    unsigned hung = 0;
    ok = RefusesOneSender(oConnector, plain.url(), hung) && ok;
    ok = StopsInTime(oConnector, hung) && ok;
    return StopsAtAnyMoment(plain.url(), mix) && ok;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 60000;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10))
                                   : std::random_device{}();
    std::printf("seed %u\n", seed);
    return Run(count, seed) ? EXIT_SUCCESS : EXIT_FAILURE;
}
