// nginx_test.cpp - the wrapper against a widely used server: nginx with HTTP/2 and HTTP/1.1.
#include "curl/queue/quotas.h"
#include "test_certificates.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace MZCurl;
using test::Outcome;
using test::Transfer;
using test::Worker;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::Gt;
using testing::HasSubstr;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr int kSkipped = 77;  // Meson's exit status for a skipped test
constexpr int kWriteError = 23;
constexpr std::size_t kBodyLimit = 33554375;

std::string g_nginx;

// True when a piece of a body has come since the last poll. The counters tell how the next polls were called.
bool g_pieceMoved = false;
int g_looksAfterAPiece = 0;
int g_running = 0;  ///< transfers that have not ended
int g_waitsAfterAPiece = 0;

unsigned int readAndNote(char* data, unsigned int size, unsigned int count, void* userdata)
{
    g_pieceMoved = true;
    return test::appendBody(data, size, count, userdata);
}

}  // namespace

/// Replaces libcurl's function: records whether the wrapper polls with or without a wait.
extern "C" CURLMcode curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned int count,
                                     int timeout, int* ready)
{
    // Without running transfers no piece is expected.
    if (g_pieceMoved && g_running > 0) {
        ++(timeout == 0 ? g_looksAfterAPiece : g_waitsAfterAPiece);
        g_pieceMoved = false;
    }
    using Function = CURLMcode (*)(CURLM*, curl_waitfd*, unsigned int, int, int*);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "curl_multi_poll"));
    return real(multi, extra, count, timeout, ready);
}

/// Replaces libcurl's function: counts a call that no poll came before.
extern "C" CURLMcode curl_multi_perform(CURLM* multi, int* running)
{
    if (g_pieceMoved) {
        ++g_looksAfterAPiece;
        g_pieceMoved = false;
    }
    using Function = CURLMcode (*)(CURLM*, int*);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "curl_multi_perform"));
    const CURLMcode code = real(multi, running);
    g_running = *running;
    return code;
}

namespace {

/// Listens on a port that the kernel chooses.
int listenAnywhere(int& port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (listener < 0 || bind(listener, generic, length) != 0 || listen(listener, 1024) != 0 ||
        getsockname(listener, generic, &length) != 0) {
        throw std::runtime_error("cannot listen");
    }
    port = ntohs(address.sin_port);
    return listener;
}

/// nginx in a folder of its own. It inherits a listening socket, as after a binary upgrade: so it chooses no
/// port itself and accepts connections from the start.
class Nginx {
public:
    /// @param upstream where requests for /upstream are passed on to
    /// @param options for the files that it serves
    Nginx(const test::CertificateAuthority& authority, const std::string& listenOptions,
          const std::string& upstream = "http://127.0.0.1:1", const std::string& options = {})
    {
        test::writeIdentity(authority.issue(), m_folder.path("server.pem"),
                            m_folder.path("server.key"));
        const int listener = listenAnywhere(m_port);
        writeConfiguration(listenOptions, upstream, options);
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            setenv("NGINX", (std::to_string(listener) + ";").c_str(), 1);
            execl(g_nginx.c_str(), "nginx", "-p", m_folder.path("").c_str(), "-c",
                  m_folder.path("nginx.conf").c_str(), "-e", m_folder.path("error.log").c_str(),
                  nullptr);
            _exit(127);
        }
        close(listener);
    }

    ~Nginx() { stop(); }
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    std::string url() const { return "https://127.0.0.1:" + std::to_string(m_port); }

    /// Writes a file that nginx serves.
    void put(const std::string& name, const std::string& content)
    {
        std::ofstream(m_folder.path(name)) << content;
    }

    /// Stops nginx.
    /// @return its access log
    std::vector<std::string> stop()
    {
        if (m_process > 0) {
            kill(m_process, SIGTERM);
            waitpid(m_process, nullptr, 0);
            m_process = -1;
        }
        return log();
    }

    /// @return for each request that has ended the protocol, whether the TLS session was resumed ("r" or
    /// "."), the number of the connection, the request line
    std::vector<std::string> log() const
    {
        std::ifstream file(m_folder.path("access.log"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

private:
    void writeConfiguration(const std::string& listenOptions, const std::string& upstream,
                            const std::string& options)
    {
        std::ofstream(m_folder.path("nginx.conf"))
            << "daemon off;\nuser root;\nworker_processes 1;\n"
            << "pid " << m_folder.path("nginx.pid") << ";\nevents { worker_connections 1024; }\n"
            << "http {\nlog_format short '$server_protocol $ssl_session_reused $connection "
            << "$request';\naccess_log " << m_folder.path("access.log") << " short;\n"
            << "client_body_temp_path " << m_folder.path("body") << ";\n"
            << "proxy_temp_path " << m_folder.path("proxy") << ";\n"
            << "fastcgi_temp_path " << m_folder.path("fastcgi") << ";\n"
            << "uwsgi_temp_path " << m_folder.path("uwsgi") << ";\n"
            << "scgi_temp_path " << m_folder.path("scgi") << ";\n"
            << "server {\nlisten 127.0.0.1:" << m_port << " ssl " << listenOptions << ";\n"
            << "ssl_certificate " << m_folder.path("server.pem") << ";\nssl_certificate_key "
            << m_folder.path("server.key") << ";\nssl_protocols TLSv1.2;\n"
            << "location / { root " << m_folder.path("") << "; " << options << " }\n"
            << "ssl_session_cache shared:sessions:1m;\n"
            << "location /upstream { proxy_pass " << upstream << "; }\n"
            << "}\n}\n";
    }

    test::TemporaryFolder m_folder;
    int m_port = 0;
    pid_t m_process = -1;
};

class AnNginx : public testing::Test {
protected:
    AnNginx() { authority.writeTo(caFile); }

    /// Runs many transfers at once to a host without connections.
    /// @return number of successful ones
    int burst(const std::string& url, int count, WriteCallback reader = test::appendBody)
    {
        std::vector<std::unique_ptr<Transfer>> made;
        std::vector<Transfer*> all;
        for (int i = 0; i < count; ++i) {
            all.push_back(made.emplace_back(std::make_unique<Transfer>(url, caFile)).get());
            EXPECT_TRUE(all.back()->easy.setOption(MZCURL_OPT_WRITEFUNCTION, reader));
        }
        worker.run(all);
        int succeeded = 0;
        for (const Transfer* const transfer : all) {
            succeeded += worker.outcome(*transfer).success ? 1 : 0;
        }
        return succeeded;
    }

    test::TemporaryFolder folder;
    const std::string caFile = folder.path("ca.pem");
    const test::CertificateAuthority authority;
    Worker worker;
};

TEST_F(AnNginx, IsAskedInHttp2WhenItOffersThatAndToldInHttp11)
{
    test::TestServer upstream(test::always("upstream"));
    Nginx server(authority, "http2", upstream.url());
    server.put("page", "body");
    Transfer get(server.url() + "/page", caFile);
    const Outcome outcome = worker.run(get);
    EXPECT_TRUE(outcome.success) << outcome.error;
    EXPECT_EQ(get.body, "body");

    Transfer post(server.url() + "/upstream", caFile);
    post.sending(std::string(1000000, 'x'));
    ASSERT_TRUE(post.easy.setOption(MZCURL_OPT_HTTPHEADER,
                                    std::list<std::string>{"Some-Name: value", "Expect:"}));
    EXPECT_TRUE(worker.run(post).success);
    Transfer removal(server.url() + "/upstream", caFile);
    removal.sending("text", "DELETE");
    EXPECT_TRUE(worker.run(removal).success);
    EXPECT_EQ(removal.body, "upstream");

    const auto passedOn = upstream.requests();
    ASSERT_THAT(passedOn, SizeIs(2));
    EXPECT_TRUE(passedOn[0].has("POST /upstream "));
    EXPECT_TRUE(passedOn[0].has("Some-Name: value\r\n"));
    EXPECT_EQ(passedOn[0].body, post.outgoing);
    EXPECT_TRUE(passedOn[1].has("DELETE /upstream "));
    EXPECT_EQ(passedOn[1].body, "text");
    EXPECT_THAT(server.stop(), ElementsAre(HasSubstr("HTTP/2.0 . "), HasSubstr("HTTP/1.1 r "),
                                           HasSubstr("HTTP/1.1 r ")))
        << "a POST has a new connection, which takes the session up again";
}

TEST_F(AnNginx, GetsABurstInHttp2OverOneConnection)
{
    Nginx server(authority, "http2");
    server.put("page", "body");
    EXPECT_EQ(burst(server.url() + "/page", 100), 100);
    const auto log = server.stop();
    ASSERT_THAT(log, SizeIs(100));
    EXPECT_THAT(log, Each(HasSubstr(log[0].substr(0, log[0].find(" GET"))))) << "same connection";
}

TEST_F(AnNginx, LeavesNothingOfABurstInHttp2Unread)
{
    Nginx server(authority, "http2");
    server.put("page", "body");
    g_waitsAfterAPiece = 0;
    g_looksAfterAPiece = 0;
    g_pieceMoved = false;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(burst(server.url() + "/page", 100, readAndNote), 100);
    }
    EXPECT_GT(g_looksAfterAPiece, 0);
    EXPECT_EQ(g_waitsAfterAPiece, 0) << "what libcurl has read already ends no wait";
}

TEST_F(AnNginx, GetsABurstInHttp1WithOneFullHandshake)
{
    // The delay of the answers makes each transfer need a connection of its own.
    test::TestServer upstream([](test::Connection& connection) {
        test::Request request;
        connection.read(request);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        connection.answer("late");
    });
    Nginx server(authority, "", upstream.url());
    EXPECT_EQ(burst(server.url() + "/upstream", 100), 100);
    const auto log = server.stop();
    ASSERT_THAT(log, SizeIs(100));
    EXPECT_THAT(log, Each(HasSubstr("HTTP/1.1")));
    std::set<std::string> madeAnew;
    std::set<std::string> takenUp;
    for (const std::string& line : log) {
        std::istringstream fields(line);
        std::string protocol;
        std::string reused;
        std::string connection;
        fields >> protocol >> reused >> connection;
        (reused == "r" ? takenUp : madeAnew).insert(connection);
    }
    EXPECT_THAT(madeAnew, SizeIs(1));
    EXPECT_THAT(takenUp, SizeIs(Gt(10U)));
}

TEST_F(AnNginx, CannotSendMoreThanTheLimitInHttp2Either)
{
    Nginx server(authority, "http2");
    server.put("largest", std::string(kBodyLimit, 'x'));
    server.put("larger", std::string(kBodyLimit + 1, 'x'));
    Transfer largest(server.url() + "/largest", caFile);
    EXPECT_TRUE(worker.run(largest).success);
    EXPECT_EQ(largest.body.size(), kBodyLimit);
    Transfer larger(server.url() + "/larger", caFile);
    EXPECT_EQ(worker.run(larger).code, kWriteError);
}

/// Server-side includes, for which nginx sends no Content-Length.
constexpr const char* kLengthUnknown = "ssi on; ssi_types *;";

TEST_F(AnNginx, IsAskedAgainOverHttp11ForALargeAnswerThatHasToWait)
{
    const std::string large(kLargeAnswer + 1000000, 'x');
    for (const char* const options : {"", kLengthUnknown}) {
        Nginx server(authority, "http2", "http://127.0.0.1:1", options);
        server.put("large", large);
        server.put("small", "body");
        std::shared_ptr<void> inHand = CountBody(large.size());
        Transfer waiting(server.url() + "/large", caFile);
        Transfer small(server.url() + "/small", caFile);
        std::thread later([&inHand, &server] {
            // The answer is given up before there is room for it, also where that takes longer.
            int pauses = 0;
            do {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
            } while (++pauses < 40 && !testing::Value(server.log(), Contains(HasSubstr("/large"))));
            inHand.reset();
        });
        worker.run({&waiting, &small});
        later.join();
        EXPECT_TRUE(worker.outcome(waiting).success) << worker.outcome(waiting).error;
        EXPECT_TRUE(waiting.body == large);
        EXPECT_TRUE(worker.outcome(small).success) << worker.outcome(small).error;
        EXPECT_THAT(server.stop(),
                    UnorderedElementsAre(AllOf(HasSubstr("HTTP/2.0"), HasSubstr("/large")),
                                         AllOf(HasSubstr("HTTP/2.0"), HasSubstr("/small")),
                                         AllOf(HasSubstr("HTTP/1.1"), HasSubstr("/large"))));
    }
}

TEST_F(AnNginx, SendsAnswersOfUnknownLengthInHttp2)
{
    Nginx server(authority, "http2", "http://127.0.0.1:1", kLengthUnknown);
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{10}, kSmallAnswer, kSmallAnswer + 1, kLargeAnswer + 1}) {
        server.put("page", std::string(size, 'x'));
        Transfer get(server.url() + "/page", caFile);
        const Outcome outcome = worker.run(get);
        EXPECT_TRUE(outcome.success) << outcome.error;
        EXPECT_EQ(get.body.size(), size);
    }
    EXPECT_THAT(server.stop(), Each(HasSubstr("HTTP/2.0")));
}

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    if (argc < 2 || access(argv[1], X_OK) != 0) {
        std::printf("skipped: nginx is not installed, and HTTP/2 was not tried\n");
        return kSkipped;
    }
    g_nginx = argv[1];
    return RUN_ALL_TESTS();
}
