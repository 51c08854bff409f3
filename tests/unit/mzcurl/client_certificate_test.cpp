// client_certificate_test.cpp - TLS client authentication: the abilities of a context with a client
// certificate. A transfer without a certificate leaves no state to a later one.
#include "device_certificate.h"
#include "test_server.h"
#include "transfers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace MZCurl;
using test::Connection;
using test::Outcome;
using test::Request;
using test::ServerOptions;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::ElementsAre;
using testing::IsEmpty;

struct RsaFree {
    void operator()(RSA* rsa) const { RSA_free(rsa); }
};
using RsaPtr = std::unique_ptr<RSA, RsaFree>;

/// A device whose key signs like a key store's: an RSA method that adds the padding itself.
class Device {
public:
    Device()
    {
        const EVP_PKEY* const key = identity().key.get();
        s_private.reset(EVP_PKEY_get1_RSA(const_cast<EVP_PKEY*>(key)));
        m_public.reset(RSAPublicKey_dup(s_private.get()));
        static RSA_METHOD* const method = RSA_meth_dup(RSA_get_default_method());
        RSA_meth_set_priv_enc(method, sign);
        RSA_set_method(m_public.get(), method);
        s_signatures = 0;
        s_tokenIsThere = true;
    }

    static const test::Identity& identity()
    {
        static const test::Identity made = test::selfSigned(test::newRsaKeyPem(), "Device");
        return made;
    }

    /// The callback that the wrapper calls: installs the device's certificate and key.
    static void install(void* context, void* aux)
    {
        auto& device = *static_cast<Device*>(aux);
        ++device.contexts;
        auto* const sslContext = static_cast<SSL_CTX*>(context);
        if (device.hasCertificate) {
            EXPECT_EQ(SSL_CTX_use_certificate(sslContext, identity().certificate.get()), 1);
        }
        if (device.throws) {
            throw std::runtime_error("no memory");
        }
        if (device.hasKey) {
            EXPECT_EQ(SSL_CTX_use_RSAPrivateKey(sslContext, device.m_public.get()), 1);
        }
        ERR_raise(ERR_LIB_USER, 1);  // a callback may leave an error in the queue
    }

    static int signatures() { return s_signatures; }
    static void token(bool isThere) { s_tokenIsThere = isThere; }

    bool hasCertificate = true;
    bool hasKey = true;
    bool throws = false;
    int contexts = 0;

private:
    static int sign(int length, const unsigned char* from, unsigned char* to, RSA* /*rsa*/,
                    int /*padding*/)
    {
        ++s_signatures;
        unsigned char block[256];
        if (!s_tokenIsThere ||
            RSA_padding_add_PKCS1_type_1(block, sizeof block, from, length) != 1) {
            return -1;
        }
        return RSA_private_encrypt(sizeof block, block, to, s_private.get(), RSA_NO_PADDING);
    }

    inline static RsaPtr s_private;
    inline static std::atomic<int> s_signatures{0};
    inline static std::atomic<bool> s_tokenIsThere{true};
    RsaPtr m_public;
};

enum class Asks { No, Optionally, Always };

/// Requirements of a server.
struct Wish {
    const char* name;
    int lowest = TLS1_2_VERSION;
    int highest = TLS1_2_VERSION;
    const char* algorithms = nullptr;  ///< signature algorithms that it accepts from a client
    bool keepsSessions = true;  ///< false: sessions exist only in the tickets that clients hold
};

constexpr Wish kTls12{"Tls12"};
constexpr Wish kBoth{"Tls12And13", TLS1_2_VERSION, TLS1_3_VERSION};
constexpr Wish kTls13{"Tls13Only", TLS1_3_VERSION, TLS1_3_VERSION};
constexpr Wish kPss{"PssOnly", TLS1_2_VERSION, TLS1_2_VERSION,
                    "rsa_pss_rsae_sha256:rsa_pss_rsae_sha384"};

/// The common name of the client's certificate; "nobody" without one.
std::string clientOf(const Connection& connection)
{
    const std::unique_ptr<X509, test::OpenSslFree> shown(
        SSL_get1_peer_certificate(connection.ssl()));
    if (shown == nullptr) {
        return "nobody";
    }
    char name[64] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(shown.get()), NID_commonName, name,
                              sizeof name);
    return name;
}

void answerWithTheClient(Connection& connection)
{
    Request request;
    while (connection.read(request) && connection.answer(clientOf(connection))) {
    }
}

/// Answers one request like answerWithTheClient() and ends the connection.
void answerOnce(Connection& connection)
{
    Request request;
    if (connection.read(request)) {
        const std::string client = clientOf(connection);
        connection.write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                         std::to_string(client.size()) + "\r\n\r\n" + client);
        SSL_shutdown(connection.ssl());  // without a close alert the session is not resumed
    }
}

class AClient : public testing::Test {
protected:
    AClient() { authority.writeTo(folder.path("ca.pem")); }

    void TearDown() override
    {
        EXPECT_EQ(ERR_peek_error(), 0u) << "nothing is left on the error queue";
    }

    /// A server whose answer is the name in the client's certificate.
    std::unique_ptr<TestServer> server(const Wish& wish, Asks asks,
                                       TestServer::Handler handler = answerWithTheClient)
    {
        ServerOptions options;
        options.identity = &serverIdentity;
        options.adjust = [this, &wish, asks](SSL_CTX* context) {
            SSL_CTX_set_min_proto_version(context, wish.lowest);
            SSL_CTX_set_max_proto_version(context, wish.highest);
            SSL_CTX_set_session_id_context(context, reinterpret_cast<const unsigned char*>("t"), 1);
            SSL_CTX_set_alpn_select_cb(context, chooseProtocol, this);
            if (asks != Asks::No) {
                X509_STORE_add_cert(SSL_CTX_get_cert_store(context),
                                    Device::identity().certificate.get());
                SSL_CTX_set_verify(
                    context,
                    SSL_VERIFY_PEER | (asks == Asks::Always ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                    nullptr);
            }
            if (!wish.keepsSessions) {
                SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
            }
            if (wish.algorithms != nullptr) {
                SSL_CTX_set1_client_sigalgs_list(context, wish.algorithms);
            }
        };
        return std::make_unique<TestServer>(std::move(handler), options);
    }

    std::unique_ptr<Transfer> transfer(const TestServer& server)
    {
        auto made = std::make_unique<Transfer>(server.url(), folder.path("ca.pem"));
        EXPECT_TRUE(made->easy.setOption(MZCURL_OPT_SSL_CTX_FUNCTION, &Device::install));
        EXPECT_TRUE(made->easy.setOption(MZCURL_OPT_SSL_CTX_DATA, static_cast<void*>(&device)));
        return made;
    }

    /// Makes one call.
    /// @return the name that the server saw, "failed" when there was no answer
    std::string call(Worker& worker, const TestServer& server)
    {
        const auto made = transfer(server);
        return worker.run(*made).success ? made->body : "failed";
    }

    std::vector<std::string> offers() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_offers;
    }

    test::TemporaryFolder folder;
    test::CertificateAuthority authority;
    test::Identity serverIdentity = authority.issue();
    Device device;

private:
    /// Records the protocols that the client offers and selects HTTP/1.1.
    static int chooseProtocol(SSL* /*ssl*/, const unsigned char** chosen, unsigned char* length,
                              const unsigned char* offered, unsigned int size, void* self)
    {
        auto& test = *static_cast<AClient*>(self);
        const std::lock_guard<std::mutex> guard(test.m_lock);
        std::string names;
        for (unsigned int at = 0; at < size; at += offered[at] + 1U) {
            names.append(reinterpret_cast<const char*>(&offered[at + 1]), offered[at]).append(" ");
        }
        test.m_offers.push_back(names);
        static const unsigned char http11[] = "http/1.1";
        *chosen = http11;
        *length = sizeof http11 - 1;
        return SSL_TLSEXT_ERR_OK;
    }

    mutable std::mutex m_lock;
    std::vector<std::string> m_offers;
};

// --- which server accepts which client ---

struct Case {
    const Wish& wish;
    Asks asks;
    bool hasCredentials;
    const char* outcome;  ///< name that the server saw, "failed" when there was no answer
};

constexpr Case kCases[] = {
    {kTls12, Asks::No, true, "nobody"},         {kTls12, Asks::Optionally, true, "Device"},
    {kTls12, Asks::Always, true, "Device"},     {kBoth, Asks::No, true, "nobody"},
    {kBoth, Asks::Optionally, true, "Device"},  {kBoth, Asks::Always, true, "Device"},
    {kTls13, Asks::No, true, "failed"},         {kTls13, Asks::Optionally, true, "failed"},
    {kTls13, Asks::Always, true, "failed"},     {kPss, Asks::No, true, "nobody"},
    {kPss, Asks::Optionally, true, "nobody"},   {kPss, Asks::Always, true, "failed"},
    {kTls12, Asks::No, false, "nobody"},        {kTls12, Asks::Optionally, false, "nobody"},
    {kTls12, Asks::Always, false, "failed"},    {kBoth, Asks::No, false, "nobody"},
    {kBoth, Asks::Optionally, false, "nobody"}, {kBoth, Asks::Always, false, "failed"},
    {kTls13, Asks::No, false, "nobody"},        {kTls13, Asks::Optionally, false, "nobody"},
    {kTls13, Asks::Always, false, "failed"},    {kPss, Asks::Always, false, "failed"},
};

class AServer : public AClient, public testing::WithParamInterface<Case> {};

std::string caseName(const testing::TestParamInfo<Case>& tried)
{
    const char* const names[] = {"NotAsking", "Asking", "Demanding"};
    return std::string(tried.param.wish.name) + names[static_cast<int>(tried.param.asks)] +
           (tried.param.hasCredentials ? "WithCertificate" : "Without");
}
INSTANTIATE_TEST_SUITE_P(OfEveryKind, AServer, testing::ValuesIn(kCases), caseName);

TEST_P(AServer, SeesTheClientThatItCanSee)
{
    const auto running = server(GetParam().wish, GetParam().asks);
    device.hasCertificate = device.hasKey = GetParam().hasCredentials;
    Worker worker;

    EXPECT_EQ(call(worker, *running), GetParam().outcome);

    EXPECT_EQ(device.contexts, 1);
    const std::string outcome = GetParam().outcome;
    EXPECT_EQ(Device::signatures(), outcome == "Device" ? 1 : 0);
    EXPECT_EQ(running->requests().empty(), outcome == "failed") << "no request without a handshake";
}

TEST_P(AServer, SeesTheSameClientOnTheCallingThread)
{
    const auto running = server(GetParam().wish, GetParam().asks);
    device.hasCertificate = device.hasKey = GetParam().hasCredentials;
    const auto made = transfer(*running);

    const std::string seen = made->easy.send() ? made->body : "failed";

    EXPECT_EQ(seen, GetParam().outcome);
}

TEST_F(AClient, FailsCleanlyWithAServerOfTls13Only)
{
    const auto running = server(kTls13, Asks::Always);
    Worker worker;
    const auto made = transfer(*running);

    EXPECT_EQ(worker.run(*made).code, 35);
}

// --- signatures ---

TEST_F(AClient, SignsOnceForAHundredColdCallsAndNotAtAllForTenWarmOnes)
{
    // The first transfer of a burst starts a second ahead. A busy machine may spoil one attempt; a fault
    // fails all three.
    int signatures = 0;
    for (int attempt = 0; attempt < 3 && signatures != 1; ++attempt) {
        const auto running = server(kBoth, Asks::Always);
        Worker worker;
        std::vector<std::unique_ptr<Transfer>> made;
        std::vector<Transfer*> all;
        for (int i = 0; i < 100; ++i) {
            made.push_back(transfer(*running));
            all.push_back(made.back().get());
        }
        const int before = Device::signatures();

        worker.run(all);

        for (const Transfer* one : all) {
            ASSERT_EQ(one->body, "Device");
        }
        signatures = Device::signatures() - before;
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(call(worker, *running), "Device");
        }
        EXPECT_EQ(Device::signatures() - before, signatures) << "a warm call signed";
    }
    EXPECT_EQ(signatures, 1);
}

TEST_F(AClient, TakesASessionUpAgainThatTheServerDoesNotKeep)
{
    Wish wish = kTls12;
    wish.keepsSessions = false;
    const auto running = server(wish, Asks::Always, answerOnce);
    Worker worker;

    EXPECT_EQ(call(worker, *running), "Device");
    EXPECT_EQ(call(worker, *running), "Device");

    EXPECT_EQ(running->resumedHandshakes(), 1);
    EXPECT_EQ(Device::signatures(), 1);
}

TEST_F(AClient, SendsNothingWhenTheTokenIsGoneAndWorksWhenItIsBack)
{
    const auto running = server(kTls12, Asks::Always);
    Worker worker;
    Device::token(false);

    EXPECT_EQ(call(worker, *running), "failed");
    EXPECT_THAT(running->requests(), IsEmpty());

    Device::token(true);
    EXPECT_EQ(call(worker, *running), "Device");
}

// --- without a certificate ---

class AnAnonymousCall : public AClient, public testing::WithParamInterface<Wish> {
protected:
    void without() { device.hasCertificate = device.hasKey = false; }
    void with() { device.hasCertificate = device.hasKey = true; }
};

std::string wishName(const testing::TestParamInfo<Wish>& tried)
{
    return tried.param.name;
}
INSTANTIATE_TEST_SUITE_P(OfEveryVersion, AnAnonymousCall, testing::Values(kTls12, kBoth), wishName);

TEST_P(AnAnonymousCall, LeavesNoConnectionToALaterOne)
{
    const auto running = server(GetParam(), Asks::Optionally);
    Worker worker;
    without();
    EXPECT_EQ(call(worker, *running), "nobody");
    with();

    EXPECT_EQ(call(worker, *running), "Device");
    EXPECT_EQ(running->connections(), 2);
    EXPECT_EQ(call(worker, *running), "Device");
    EXPECT_EQ(running->connections(), 2) << "the one with the certificate is kept";
}

TEST_P(AnAnonymousCall, LeavesNoSessionToALaterOne)
{
    const auto running = server(GetParam(), Asks::Optionally, answerOnce);
    Worker worker;
    without();
    EXPECT_EQ(call(worker, *running), "nobody");
    EXPECT_EQ(call(worker, *running), "nobody");
    EXPECT_EQ(running->resumedHandshakes(), 0);
    with();

    EXPECT_EQ(call(worker, *running), "Device");
    EXPECT_EQ(call(worker, *running), "Device");
    EXPECT_EQ(running->resumedHandshakes(), 1) << "the session with the certificate is kept";
    EXPECT_EQ(Device::signatures(), 1);
}

TEST_P(AnAnonymousCall, IsWhatACertificateWithoutItsKeyMakes)
{
    const auto running = server(GetParam(), Asks::Optionally);
    Worker worker;
    device.hasKey = false;
    EXPECT_EQ(call(worker, *running), "nobody");
    with();

    EXPECT_EQ(call(worker, *running), "Device");
}

TEST_P(AnAnonymousCall, IsWhatACallbackThatThrowsMakes)
{
    const auto running = server(GetParam(), Asks::Optionally);
    Worker worker;
    device.throws = true;
    EXPECT_EQ(call(worker, *running), "nobody");
    device.throws = false;

    EXPECT_EQ(call(worker, *running), "Device");
}

TEST_P(AnAnonymousCall, SharesItsConnectionWithNobodyWhileItLasts)
{
    const auto running = server(GetParam(), Asks::Optionally);
    Worker worker;
    without();
    call(worker, *running);
    with();
    call(worker, *running);

    EXPECT_THAT(offers(), ElementsAre("http/1.1 ", "h2 http/1.1 "));
}

TEST_P(AnAnonymousCall, IsForgottenByItsOwnHandle)
{
    const auto running = server(GetParam(), Asks::Optionally);
    Worker worker;
    const auto made = transfer(*running);
    without();
    ASSERT_TRUE(worker.run(*made).success);
    with();

    ASSERT_TRUE(worker.run(*made).success);
    ASSERT_TRUE(worker.run(*made).success);

    EXPECT_EQ(made->body, "nobodyDeviceDevice");
    EXPECT_EQ(running->connections(), 2);
}

TEST_P(AnAnonymousCall, IsMadeAgainWhenTheCertificateGoes)
{
    const auto running = server(GetParam(), Asks::Always);
    Worker worker;
    without();
    EXPECT_EQ(call(worker, *running), "failed");
    with();
    EXPECT_EQ(call(worker, *running), "Device");
}

// --- options ---

TEST_F(AClient, TakesTheCallbackBack)
{
    const auto running = server(kTls12, Asks::Optionally);
    Worker worker;
    const auto made = transfer(*running);
    EXPECT_TRUE(made->easy.setOption(MZCURL_OPT_SSL_CTX_FUNCTION,
                                     static_cast<SslContextCallback>(nullptr)));

    EXPECT_TRUE(worker.run(*made).success);

    EXPECT_EQ(made->body, "nobody");
    EXPECT_EQ(device.contexts, 0);
}

TEST_F(AClient, TakesTheCallbackAsSuchOnly)
{
    MZCurlEasy easy;
    ASSERT_TRUE(easy.Initialize());
    EXPECT_FALSE(easy.setOption(MZCURL_OPT_SSL_CTX_FUNCTION, 1));
    EXPECT_FALSE(easy.setOption(MZCURL_OPT_SSL_CTX_DATA, &Device::install));
    EXPECT_FALSE(easy.setOption(MZCURL_OPT_WRITEFUNCTION, &Device::install));
}

}  // namespace
