// tls.h - the TLS context of a new connection: who prepares it, and what it must be like with a
// client certificate and without one.
#pragma once

#include <curl/curl.h>

#include <string>

namespace MZCurl {

/// Hands a new TLS context to the transfer's own callback, where it has one, and completes it. @param context SSL_CTX
/// @param transfer the Transfer @return CURLE_OK: what is missing shows in the handshake
CURLcode onSslContext(CURL* curl, void* context, void* transfer);

/// @return OpenSSL's SSL of the connection that the transfer is on, owned by libcurl; null without TLS
void* tlsOf(CURL* curl);

/// @return whether a connection speaks HTTP/2. @param ssl its SSL; may be null
bool speaksHttp2(const void* ssl);

/// Makes a connection one that both sides have ended, without a byte sent: its session can be taken up again then, which
/// OpenSSL refuses after an end without good-bye. @param ssl its SSL; may be null
void endInOrder(void* ssl);

/// What libcurl's text for the end of a transfer leaves out: that a clock may be wrong, or whose
/// certificate was refused. @return empty when there is nothing to add
std::string tlsCause(CURL* curl, CURLcode code, const std::string& text);

/// What goes wrong in its scope leaves nothing on the thread's error queue of the TLS library.
class TlsErrorScope {
public:
    TlsErrorScope();
    ~TlsErrorScope();
    TlsErrorScope(const TlsErrorScope&) = delete;
    TlsErrorScope& operator=(const TlsErrorScope&) = delete;
};

}  // namespace MZCurl
