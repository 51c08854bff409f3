// trust_test.cpp - the authorities that a transfer trusts, and settings that must not change them.
#include "test_certificates.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

// Folders that libcurl asked OpenSSL to trust.
std::vector<std::string> g_folders;
std::vector<std::string> g_files;

}  // namespace

/// These two functions replace OpenSSL's and record their arguments.
extern "C" int X509_STORE_load_path(X509_STORE* store, const char* path)
{
    g_folders.emplace_back(path);
    using Function = int (*)(X509_STORE*, const char*);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "X509_STORE_load_path"));
    return real(store, path);
}

extern "C" int X509_STORE_load_file(X509_STORE* store, const char* path)
{
    g_files.emplace_back(path);
    using Function = int (*)(X509_STORE*, const char*);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "X509_STORE_load_file"));
    return real(store, path);
}

namespace {

using namespace MZCurl;
using test::CertificateAuthority;
using test::Connection;
using test::Identity;
using test::Outcome;
using test::Request;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int kUnsupportedProtocol = 1;
constexpr int kPeerFailedVerification = 60;
constexpr int kBadCaFile = 77;

/// Sets an environment variable for the life of the object.
class Environment {
public:
    Environment(const char* name, const std::string& value) : m_name(name)
    {
        setenv(name, value.c_str(), 1);
    }
    ~Environment() { unsetenv(m_name); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    const char* m_name;
};

class ATrustingTransfer : public testing::Test {
protected:
    ATrustingTransfer() { authority.writeTo(caFile); }

    test::TemporaryFolder folder;
    const std::string caFile = folder.path("ca.pem");
    const CertificateAuthority authority;
    const Identity identity = authority.issue();
    Worker worker;
};

TEST_F(ATrustingTransfer, ReachesAServerThatTheNamedFileVouchesFor)
{
    TestServer server(test::always("ok"), {&identity});
    Transfer transfer(server.url(), caFile);
    const Outcome outcome = worker.run(transfer);
    EXPECT_TRUE(outcome.success) << outcome.error;
    EXPECT_EQ(transfer.body, "ok");
}

/// The second transfer reuses libcurl's handle of the first.
TEST_F(ATrustingTransfer, LeavesNothingOfItselfToTheNext)
{
    TestServer server(test::always("ok"), {&identity});
    {
        Transfer first(server.url() + "/secret", caFile);
        ASSERT_TRUE(
            first.sending("body", "PUT")
                .easy.setOption(MZCURL_OPT_HTTPHEADER, std::list<std::string>{"Token: secret"}));
        ASSERT_TRUE(worker.run(first).success);
        first.easy.reset();
    }
    {
        Transfer untrusting(server.url());
        ASSERT_TRUE(untrusting.easy.setOption(MZCURL_OPT_SSL_VERIFYPEER, 1));
        EXPECT_EQ(worker.run(untrusting).code, kPeerFailedVerification);
        untrusting.easy.reset();
    }
    Transfer second(server.url() + "/other", caFile);
    ASSERT_TRUE(worker.run(second).success);
    EXPECT_EQ(second.body, "ok");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_TRUE(requests[0].has("PUT /secret"));
    EXPECT_TRUE(requests[0].has("Token: secret"));
    EXPECT_TRUE(requests[1].has("GET /other"));
    EXPECT_FALSE(requests[1].has("secret"));
}

TEST_F(ATrustingTransfer, SendsNothingToAServerThatItDoesNot)
{
    const CertificateAuthority stranger;
    const Identity foreign = stranger.issue();
    TestServer server(test::always("ok"), {&foreign});
    Transfer transfer(server.url(), caFile);
    EXPECT_EQ(worker.run(transfer).code, kPeerFailedVerification);
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ATrustingTransfer, ChecksTheNameOfTheServer)
{
    const Identity other = authority.issue("DNS:other.test");
    TestServer server(test::always("ok"), {&other});
    Transfer transfer(server.url(), caFile);
    EXPECT_EQ(worker.run(transfer).code, kPeerFailedVerification);
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ATrustingTransfer, TrustsNobodyWhenNoFileIsNamed)
{
    TestServer server(test::always("ok"), {&identity});
    const Environment bundle("SSL_CERT_FILE", caFile);
    Transfer transfer(server.url(), caFile);
    transfer.easy.reset();
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_URL, server.url()));
    g_files.clear();
    EXPECT_EQ(worker.run(transfer).code, kPeerFailedVerification);
    EXPECT_THAT(server.requests(), IsEmpty());
    EXPECT_THAT(g_files, IsEmpty()) << "libcurl was built with a bundle that it trusts";
}

TEST_F(ATrustingTransfer, FailsWithTheNameOfACaFileThatIsMissing)
{
    TestServer server(test::always("ok"), {&identity});
    Transfer transfer(server.url(), folder.path("missing.pem"));
    const Outcome outcome = worker.run(transfer);
    EXPECT_EQ(outcome.code, kBadCaFile);
    EXPECT_THAT(outcome.error, HasSubstr(folder.path("missing.pem")));
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_THAT(transfer.easy.getLastError(), HasSubstr(folder.path("missing.pem")));
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ATrustingTransfer, FailsWithTheNameOfACaFileThatIsEmptyOrNoCertificate)
{
    TestServer server(test::always("ok"), {&identity});
    for (const char* const content : {"", "no certificate\n"}) {
        std::ofstream(folder.path("bad.pem")) << content;
        Transfer transfer(server.url(), folder.path("bad.pem"));
        const Outcome outcome = worker.run(transfer);
        EXPECT_EQ(outcome.code, kBadCaFile);
        EXPECT_THAT(outcome.error, HasSubstr(folder.path("bad.pem")));
    }
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ATrustingTransfer, UsesAReplacedCaFileForItsNextConnection)
{
    // TLS 1.2: the session of the first transfer is ready before the second begins. Resuming it would avoid
    // the check against the new file.
    TestServer server(
        [](Connection& connection) {
            Request request;
            connection.read(request);
            connection.write("HTTP/1.1 204 Nothing\r\nConnection: close\r\n\r\n");
        },
        {&identity, TLS1_2_VERSION});
    Transfer first(server.url(), caFile);
    EXPECT_TRUE(worker.run(first).success);
    Transfer second(server.url(), caFile);
    EXPECT_TRUE(worker.run(second).success);
    EXPECT_EQ(server.resumedHandshakes(), 1) << "the session is shared while the file stays";

    CertificateAuthority().writeTo(folder.path("new.pem"));
    std::filesystem::rename(folder.path("new.pem"), caFile);
    Transfer third(server.url(), caFile);
    EXPECT_EQ(worker.run(third).code, kPeerFailedVerification);

    authority.writeTo(caFile);
    Transfer fourth(server.url(), caFile);
    EXPECT_TRUE(worker.run(fourth).success);
}

TEST_F(ATrustingTransfer, ReadsTheCaFileOnceForManyConnections)
{
    TestServer server(
        [](Connection& connection) {
            Request request;
            connection.read(request);
            connection.write("HTTP/1.1 204 Nothing\r\nConnection: close\r\n\r\n");
        },
        {&identity});
    g_files.clear();
    for (int i = 0; i < 5; ++i) {
        Transfer transfer(server.url(), caFile);
        EXPECT_TRUE(worker.run(transfer).success);
    }
    EXPECT_EQ(server.connections(), 5);
    EXPECT_THAT(g_files, ElementsAre(caFile));
}

TEST_F(ATrustingTransfer, KeepsNoConnectionOverAChangeOfTheCaFile)
{
    // The wrapper gives the file another path alias after each change, for an absolute and for a relative
    // path.
    const auto back = std::filesystem::current_path();
    std::filesystem::current_path(folder.path(""));
    TestServer server(test::always("ok"), {&identity});
    for (const std::string& name : {caFile, std::string("ca.pem")}) {
        for (int change = 0; change < 9; ++change) {
            authority.writeTo(caFile);
            for (int i = 0; i < 2; ++i) {
                Transfer trusting(server.url(), name);
                EXPECT_TRUE(worker.run(trusting).success) << name << " " << change;
            }
            CertificateAuthority().writeTo(caFile);
            Transfer doubting(server.url(), name);
            EXPECT_EQ(worker.run(doubting).code, kPeerFailedVerification) << name << " " << change;
        }
    }
    EXPECT_EQ(server.connections(), 2 * 9 * 2) << "one of two transfers, and one in vain";
    std::filesystem::current_path(back);
}

TEST_F(ATrustingTransfer, UsesTlsOnlyUnlessVerificationIsSwitchedOff)
{
    TestServer server(test::always("ok"));
    std::ofstream(folder.path("secret")) << "secret";
    for (const std::string& url : {server.url(), "file://" + folder.path("secret"),
                                   "ftp://127.0.0.1:" + std::to_string(server.port())}) {
        Transfer transfer(url, caFile);
        EXPECT_EQ(worker.run(transfer).code, kUnsupportedProtocol) << url;
        EXPECT_EQ(transfer.body, "");
    }
    Transfer plain(server.url());
    EXPECT_TRUE(worker.run(plain).success);
    Transfer file("file://" + folder.path("secret"));
    EXPECT_EQ(worker.run(file).code, kUnsupportedProtocol);
    EXPECT_EQ(file.body, "");

    ASSERT_TRUE(plain.easy.setOption(MZCURL_OPT_SSL_VERIFYPEER, 1));
    EXPECT_EQ(worker.run(plain).code, kUnsupportedProtocol);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(ATrustingTransfer, LeavesTheErrorsOfItsThreadInOpenSslAsTheyWere)
{
    const CertificateAuthority stranger;
    const Identity foreign = stranger.issue();
    TestServer distrusted(test::always("ok"), {&foreign});
    ERR_clear_error();
    Transfer failing(distrusted.url(), caFile);
    EXPECT_FALSE(worker.run(failing).success);
    EXPECT_EQ(ERR_peek_error(), 0U);

    TestServer plain(test::always("ok"));
    ERR_raise(ERR_LIB_USER, 7);
    Transfer transfer(plain.url());
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 7);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(ATrustingTransfer, FollowsNoRedirect)
{
    TestServer elsewhere(test::always("elsewhere"));
    TestServer server([&](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write("HTTP/1.1 302 Found\r\nLocation: " + elsewhere.url() +
                         "\r\nContent-Length: 4\r\n\r\nhere");
    });
    Transfer transfer(server.url());
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_EQ(transfer.body, "here");
    EXPECT_EQ(elsewhere.connections(), 0);
}

TEST_F(ATrustingTransfer, AsksNoProxyOfTheEnvironment)
{
    TestServer proxy(test::always("proxy"));
    TestServer plain(test::always("plain"));
    TestServer server(test::always("server"), {&identity});
    const Environment http("http_proxy", proxy.url());
    const Environment https("https_proxy", proxy.url());
    const Environment all("ALL_PROXY", proxy.url());
    const Environment none("no_proxy", "");
    Transfer first(plain.url());
    Transfer second(server.url(), caFile);
    worker.run({&first, &second});
    EXPECT_EQ(first.body, "plain");
    EXPECT_EQ(second.body, "server");
    EXPECT_EQ(proxy.connections(), 0);
}

TEST_F(ATrustingTransfer, ReadsNoPasswordFile)
{
    std::ofstream(folder.path(".netrc")) << "machine 127.0.0.1 login user password secret\n";
    const Environment home("HOME", folder.path(""));
    const Environment netrc("NETRC", folder.path(".netrc"));
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    EXPECT_TRUE(worker.run(transfer).success);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_FALSE(server.requests()[0].has("Authorization"));
}

TEST_F(ATrustingTransfer, LooksUpNoFolderOfCertificates)
{
    TestServer server(test::always("ok"), {&identity});
    Transfer transfer(server.url(), caFile);
    g_folders.clear();
    g_files.clear();
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_THAT(g_files, ElementsAre(caFile));
    EXPECT_THAT(g_folders, IsEmpty()) << "libcurl was built with a folder that it trusts";
}

}  // namespace
