// test_server.cpp - sockets, TLS and the part of HTTP/1.1 that the tests need.
#include "test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::size_t contentLength(const std::string& head)
{
    constexpr std::string_view name = "Content-Length: ";
    const std::size_t at = head.find(name);
    return at == std::string::npos ? 0 : std::stoul(head.substr(at + name.size()));
}

/// @param address  with family and host; its port is set to the one that the kernel has chosen
template <class Address>
int listenOn(Address& address)
{
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, generic, length) != 0 || listen(listener, 1024) != 0 ||
        getsockname(listener, generic, &length) != 0) {
        throw std::runtime_error("cannot listen");
    }
    return listener;
}

int listenOnAnyPort(const ServerOptions& options, int& port)
{
    if (options.overIpv6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        const int listener = listenOn(address);
        port = ntohs(address.sin6_port);
        return listener;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(options.everywhere ? INADDR_ANY : INADDR_LOOPBACK);
    const int listener = listenOn(address);
    port = ntohs(address.sin_port);
    return listener;
}

}  // namespace

Connection::Connection(int socket, SSL_CTX* context, Observer observer)
    : m_socket(socket), m_observer(std::move(observer))
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (context != nullptr) {
        m_ssl.reset(SSL_new(context));
        SSL_set_fd(m_ssl.get(), socket);
    }
}

Connection::~Connection()
{
    m_ssl.reset();
    close(m_socket);
}

bool Connection::handshake()
{
    return m_ssl == nullptr || SSL_accept(m_ssl.get()) == 1;
}

bool Connection::resumed() const
{
    return m_ssl != nullptr && SSL_session_reused(m_ssl.get()) == 1;
}

void Connection::end()
{
    if (m_ssl != nullptr) {
        SSL_shutdown(m_ssl.get());
    }
    shutDown();
}

void Connection::shutDown()
{
    shutdown(m_socket, SHUT_RDWR);
}

bool Connection::fill()
{
    std::array<char, 16384> chunk;
    const long got = m_ssl != nullptr
                         ? SSL_read(m_ssl.get(), chunk.data(), static_cast<int>(chunk.size()))
                         : recv(m_socket, chunk.data(), chunk.size(), 0);
    if (got <= 0) {
        return false;
    }
    m_buffer.append(chunk.data(), static_cast<std::size_t>(got));
    return true;
}

bool Connection::read(Request& request)
{
    std::size_t end = 0;
    while ((end = m_buffer.find(kHeadEnd)) == std::string::npos) {
        if (!fill()) {
            return false;
        }
    }
    end += kHeadEnd.size();
    request.head = m_buffer.substr(0, end);
    const std::size_t length = contentLength(request.head);
    while (m_buffer.size() < end + length) {
        if (!fill()) {
            return false;
        }
    }
    request.body = m_buffer.substr(end, length);
    m_buffer.erase(0, end + length);
    m_observer(request);
    return true;
}

bool Connection::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const long put = m_ssl != nullptr
                             ? SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size()))
                             : send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (put <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
}

bool Connection::answer(std::string_view body)
{
    std::string text =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    text.append(body);
    return write(text);
}

TestServer::TestServer(Handler handler, const ServerOptions& options)
    : m_handler(std::move(handler)),
      m_keepsRequests(options.keepsRequests),
      m_overIpv6(options.overIpv6)
{
    std::signal(SIGPIPE, SIG_IGN);
    m_listener = listenOnAnyPort(options, m_port);
    if (options.identity != nullptr) {
        setUpTls(options);
    }
    m_acceptor = std::thread([this] { accept(); });
}

void TestServer::setUpTls(const ServerOptions& options)
{
    m_context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* const context = m_context.get();
    if (SSL_CTX_use_certificate(context, options.identity->certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, options.identity->key.get()) != 1) {
        throw std::runtime_error("cannot use the certificate");
    }
    SSL_CTX_set_max_proto_version(context, options.tlsVersion);
    if (options.adjust) {
        options.adjust(context);
    }
    if (!options.tickets) {
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
    }
}

TestServer::~TestServer()
{
    m_stopping = true;
    shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    close(m_listener);
    for (Client& client : m_clients) {
        client.connection.shutDown();
    }
    for (Client& client : m_clients) {
        client.thread.join();
    }
}

std::string TestServer::url() const
{
    const std::string scheme = m_context != nullptr ? "https://" : "http://";
    return scheme + (m_overIpv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(m_port);
}

void TestServer::accept()
{
    while (!m_stopping) {
        const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) {
            continue;
        }
        ++m_connections;
        const std::lock_guard<std::mutex> guard(m_lock);
        for (auto it = m_clients.begin(); it != m_clients.end();) {
            if (it->done) {
                it->thread.join();
                it = m_clients.erase(it);
            } else {
                ++it;
            }
        }
        Client& client = m_clients.emplace_back(socket, m_context.get(),
                                                [this](const Request& request) { note(request); });
        client.thread = std::thread([this, &client] { serve(client); });
    }
}

void TestServer::serve(Client& client)
{
    if (client.connection.handshake()) {
        if (m_context != nullptr) {
            ++(client.connection.resumed() ? m_resumedHandshakes : m_fullHandshakes);
        }
        m_handler(client.connection);
    }
    client.connection.end();
    client.done = true;
}

std::vector<Request> TestServer::requests() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_requests;
}

void TestServer::note(const Request& request)
{
    if (m_keepsRequests) {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_requests.push_back(request);
    }
}

TestServer::Handler always(std::string body)
{
    return [body = std::move(body)](Connection& connection) {
        Request request;
        while (connection.read(request) && connection.answer(body)) {
        }
    };
}

}  // namespace test
