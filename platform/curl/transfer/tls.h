// tls.h - prepares the TLS context of a new connection, with a client certificate or without one.
#pragma once

#include <curl/curl.h>

#include <string>

namespace MZCurl {

/// Hands a new TLS context to the transfer's own callback, if there is one, and completes it.
/// @param context the SSL_CTX
/// @param attempt the Attempt
/// @return CURLE_OK always: a missing certificate or key makes the handshake fail
CURLcode onSslContext(CURL* curl, void* context, void* attempt);

/// @return OpenSSL's SSL of the transfer's connection, owned by libcurl; null without TLS
void* tlsOf(CURL* curl);

/// @param ssl a connection's SSL; may be null
/// @return whether the connection speaks HTTP/2
bool speaksHttp2(const void* ssl);

/// Marks a connection as closed by both sides, without sending a byte: OpenSSL resumes a session only after an orderly end.
/// @param ssl the connection's SSL; may be null
void endInOrder(void* ssl);

/// @return what libcurl's text for the end of a transfer leaves out, such as a wrong clock or whose certificate was refused;
///   empty when there is nothing to add
std::string tlsCause(CURL* curl, CURLcode code, const std::string& text);

/// Removes the errors of its scope from the thread's error queue of OpenSSL.
class TlsErrorScope {
public:
    TlsErrorScope();
    ~TlsErrorScope();
    TlsErrorScope(const TlsErrorScope&) = delete;
    TlsErrorScope& operator=(const TlsErrorScope&) = delete;
};

}  // namespace MZCurl
