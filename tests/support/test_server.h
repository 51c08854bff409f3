// test_server.h - an HTTP/1.1 server on 127.0.0.1 or ::1 whose bytes a test decides: plain or TLS, one thread
// for each connection, on a port that the kernel chooses.
#pragma once

#include "test_certificates.h"

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test {

/// One request, unchanged.
struct Request {
    std::string head;  ///< request line and header lines, up to the empty line
    std::string body;

    bool has(std::string_view text) const { return head.find(text) != std::string::npos; }
};

/// The server's end of one connection. Thread: the connection's own.
class Connection {
public:
    using Observer = std::function<void(const Request&)>;

    Connection(int socket, SSL_CTX* context, Observer observer);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// @return false when the TLS handshake has failed; true without TLS
    bool handshake();
    /// True for a resumed TLS session.
    bool resumed() const;

    /// The TLS connection; null without TLS.
    SSL* ssl() const { return m_ssl.get(); }

    /// @return false at the end of the connection
    bool read(Request& request);
    /// @return false when the client has closed the connection
    bool write(std::string_view bytes);
    /// Answers with status 200 and a body.
    bool answer(std::string_view body);

    /// Sends the close alert of TLS, as a server does that ends a connection in order.
    void end();
    /// Ends reads and writes, from any thread.
    void shutDown();

private:
    bool fill();

    struct Free {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };
    int m_socket;
    Observer m_observer;
    std::unique_ptr<SSL, Free> m_ssl;
    std::string m_buffer;
};

struct ServerOptions {
    const Identity* identity = nullptr;         ///< null: plain http
    int tlsVersion = 0;                         ///< TLS1_2_VERSION or the like; 0: negotiated
    bool keepsRequests = true;                  ///< false for tests with very many requests
    std::function<void(SSL_CTX*)> adjust = {};  ///< changes the TLS context further
    bool tickets = true;                        ///< false: no session can be resumed
    bool overIpv6 = false;                      ///< listens on ::1
    bool everywhere = false;                    ///< listens on 127.0.0.1, 127.0.0.2 and all others
};

class TestServer {
public:
    /// Runs on the connection's thread; the connection is closed when it returns.
    using Handler = std::function<void(Connection&)>;

    explicit TestServer(Handler handler, const ServerOptions& options = {});
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    /// "http://127.0.0.1:<port>", or the same with https or [::1].
    std::string url() const;
    int port() const { return m_port; }

    int connections() const { return m_connections; }
    int fullHandshakes() const { return m_fullHandshakes; }
    int resumedHandshakes() const { return m_resumedHandshakes; }

    /// All requests in the order of arrival.
    std::vector<Request> requests() const;

private:
    struct Client {
        Client(int socket, SSL_CTX* context, Connection::Observer observer)
            : connection(socket, context, std::move(observer))
        {
        }
        Connection connection;
        std::thread thread;
        std::atomic<bool> done{false};
    };
    struct ContextFree {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };

    void setUpTls(const ServerOptions& options);
    void accept();
    void serve(Client& client);
    void note(const Request& request);

    Handler m_handler;
    bool m_keepsRequests;
    bool m_overIpv6;
    std::unique_ptr<SSL_CTX, ContextFree> m_context;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_connections{0};
    std::atomic<int> m_fullHandshakes{0};
    std::atomic<int> m_resumedHandshakes{0};
    mutable std::mutex m_lock;  // guards the following two
    std::vector<Request> m_requests;
    std::list<Client> m_clients;
    std::thread m_acceptor;
};

/// Makes a handler that answers all requests of a connection with the same body.
TestServer::Handler always(std::string body);

}  // namespace test
