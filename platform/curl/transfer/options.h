// options.h - what the owner of an easy handle has set. It is kept here until libcurl performs the transfer.
#pragma once

#include "headers.h"

#include <platform/MZCurl.h>

#include <curl/curl.h>

#include <list>
#include <string>

namespace MZCurl {

/// Writer: the functions below. Everybody else reads.
struct Options {
    std::string url;
    std::string caFile;
    std::string method;  // empty: GET or POST
    std::string certificate;
    std::string certificateType;
    std::string key;
    std::string keyType;
    Headers headers;
    const char* body = nullptr;  // not copied
    curl_off_t bodySize = -1;    // bytes; -1: up to the body's NUL
    long timeout = 0;            // seconds for all attempts together; 0: none
    long connectTimeout = 0;     // seconds; 0: libcurl's default
    long verifyHost = 2;
    long verifyPeer = 1;
    bool sendsBody = false;
    WriteCallback write = nullptr;
    void* writeData = nullptr;
    SslContextCallback sslContext = nullptr;
    void* sslContextData = nullptr;
    void* userPointer = nullptr;

    /// @return whether the request may be sent again: a GET, which changes nothing on the server
    bool mayBeSentAgain() const { return !sendsBody && method.empty(); }
};

/// Each sets one option.
/// @return null; or the reason, a literal, when the option takes another type of value or the value is refused
/// @throw std::bad_alloc
const char* setNumber(Options& options, MZCURL_OPTION_TYPE id, long long value);
const char* setText(Options& options, MZCURL_OPTION_TYPE id, const std::string& value);
const char* setList(Options& options, MZCURL_OPTION_TYPE id, const std::list<std::string>& value);
const char* setWriter(Options& options, MZCURL_OPTION_TYPE id, WriteCallback value);
const char* setSslContext(Options& options, MZCURL_OPTION_TYPE id, SslContextCallback value);
const char* setPointer(Options& options, MZCURL_OPTION_TYPE id, void* value);

}  // namespace MZCurl
