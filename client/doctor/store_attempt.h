// store_attempt.h - one request to the store, and how far it came.
#pragma once

#include "device/certificate.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <string>
#include <vector>

namespace client {

/// The server that the settings name.
struct Server {
    std::string key;   ///< of [deployment]
    std::string host;  ///< with its port, where it has one
    std::string name;  ///< without
};

/// What its TLS context tells.
struct Handshake {
    std::string name;  ///< that the server must have
    bool began = false;
    bool askedForCertificate = false;  ///< the server was proven before it asked
    int verdict = X509_V_OK;
    Certificate refused;  ///< what the verdict is on
    Certificate server;
    std::vector<curl_socket_t> sockets;  ///< that were made; libcurl closes them
    std::string address;                 ///< of the server, once connected
};

/// How far a request came.
struct Attempt {
    std::string body;  ///< its beginning
    std::string date;  ///< the store's clock, as HTTP has it
    CURLcode code = CURLE_FAILED_INIT;
    std::string error;
    bool resolved = false;
    bool secured = false;
    Handshake handshake;
    long status = 0;
};

/// Asks the store without the device's certificate and headers. @param bundle path of the CA bundle
/// @param timeout seconds
Attempt attempt(const Server& server, const char* bundle, double timeout);

}  // namespace client
