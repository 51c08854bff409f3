// url_test.cpp - the parts of a URL.
#include "curl/transfer/url.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace MZCurl;

TEST(AUrl, StartsWithSchemeAndHost)
{
    for (const char* const rest : {"", "/a", "/a?b=http://c/d", "?a=/b", "#a", "\\a"}) {
        EXPECT_EQ(startOf(std::string("https://host:8443") + rest), "https://host:8443") << rest;
    }
    EXPECT_EQ(startOf("host/a?b"), "host");
    for (const char* const rest : {"/a?b=http://c/d", "?b=http://c", "#http://c"}) {
        EXPECT_EQ(startOf(std::string("host:8443") + rest), "host:8443") << rest;
    }
    EXPECT_EQ(startOf("/"), "");
    EXPECT_EQ(startOf(""), "");
}

TEST(AUrl, HasAPathUpToQueryAndFragment)
{
    EXPECT_EQ(pathOf("https://host/a/b"), "https://host/a/b");
    EXPECT_EQ(pathOf("https://host/a?b"), "https://host/a");
    EXPECT_EQ(pathOf("https://host/a#b?c"), "https://host/a");
    EXPECT_EQ(pathOf("?a"), "");
}

TEST(AUrl, HasATargetThatLibcurlDoesNotChange)
{
    EXPECT_EQ(targetOf("http://host/"), "/");
    EXPECT_EQ(targetOf("https://host/a?b=%20/../c"), "/a?b=%20/../c");
}

TEST(AUrl, HasNoTargetWhereLibcurlDecides)
{
    for (const char* const url :
         {"host/a", "ftp://host/a", "https://host", "https://host?a", "https://host/a?",
          "https://host/a/../b", "https://host/.a", "https://host/%41", "https://host/a#b",
          "https://host/a b", "https://host/a?b c", "https://host/\x7f", "https://host/\xc3\xa4"}) {
        EXPECT_EQ(targetOf(url), "") << url;
    }
}

}  // namespace
