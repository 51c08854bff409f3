// store_attempt.h - one request to the store, with the stages that it reached.
#pragma once

#include "device/certificate.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <string>
#include <vector>

namespace client {

/// The store's server in the settings.
struct Server {
    std::string key;   ///< its key in [deployment]
    std::string host;  ///< with the port, if there is one
    std::string name;  ///< without the port
};

/// The course of the TLS handshake.
struct Handshake {
    std::string name;  ///< expected name of the server
    bool began = false;
    bool askedForCertificate = false;  ///< after the server's certificate was verified
    int verdict = X509_V_OK;
    Certificate refused;  ///< certificate that the verdict is about
    Certificate server;
    std::vector<curl_socket_t> sockets;  ///< opened ones; libcurl closes them
    std::string address;                 ///< of the server, set when connected
};

/// The stages that a request reached.
struct Attempt {
    std::string body;  ///< its first bytes
    std::string date;  ///< the store's time, in HTTP's format
    CURLcode code = CURLE_FAILED_INIT;
    std::string error;
    bool resolved = false;
    bool secured = false;
    Handshake handshake;
    long status = 0;
};

/// Makes a request to the store without the device's certificate and headers.
/// @param bundle path of the CA bundle
/// @param timeout seconds
Attempt attempt(const Server& server, const char* bundle, double timeout);

}  // namespace client
