// key_store_fixture.h - the key store on a software token, with a PKCS#11 module of the tests in front of it.
#pragma once

#include "keystore/pkcs11.h"
#include "pkcs11_proxy.h"
#include "rsa_key.h"
#include "soft_token.h"

#include <platform/secure_storage.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace keys {

/// The token of the process, with one key.
struct Token {
    device::SoftToken soft;
    test::RsaKey key = test::RsaKey::make();
    proxy::Control* control = nullptr;

    Token()
    {
        setenv(proxy::kRealVariable, device::softTokenModule().c_str(), 1);
        void* const library = dlopen(PROXY_MODULE, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr)
            throw std::runtime_error(dlerror());
        control = reinterpret_cast<proxy::Control* (*)()>(dlsym(library, proxy::kControlSymbol))();
    }
};

inline Token& token()
{
    static auto* const instance = new Token;
    return *instance;
}

inline pkcs11::Session sessionOfToken(bool writes)
{
    const pkcs11::Module& module = pkcs11::Module::at(PROXY_MODULE);
    return pkcs11::Session(module, module.slotOf(token().soft.label()).value(), writes);
}

class AKeyStore : public testing::Test {
protected:
    void SetUp() override
    {
        if (device::softTokenModule().empty())
            GTEST_SKIP() << "softhsm2 is not installed (apt install softhsm2)";
        control().fault = proxy::Fault::None;
        control().delayMs = 0;
        token().soft.writePin(token().soft.pin() + "\n");
        token().soft.use(conf, PROXY_MODULE);
        start();
        ASSERT_EQ(store(token().key), 0);
        ASSERT_EQ(sign(), 0);
        log.clear();
        control().logins = 0;
        control().sessions = 0;
        control().signatures = 0;
        control().mostInside = 0;
    }
    void TearDown() override
    {
        EXPECT_THAT(log.text(), testing::Not(testing::HasSubstr(token().soft.pin())));
    }

    static proxy::Control& control() { return *token().control; }

    /// Puts changed settings of the key store into effect.
    void start() { ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0); }

    /// Ends the session, so that the next call has to open one and log in.
    void endSession()
    {
        conf.set("keystore", "token", "nothing");
        start();
        EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
        conf.set("keystore", "token", token().soft.label());
        start();
    }

    int store(const test::RsaKey& key) const
    {
        const test::Bytes n = key.modulus();
        const test::Bytes d = key.privateExponent();
        std::int32_t id = 7;
        return ss_store_rsa_key(&client, SS_KEY_RSA, SS_KEY_SIGN, n.data(), n.size(), d.data(),
                                d.size(), 0, 0, &id, 0, 0);
    }

    /// Signs a padded block and checks a returned result. After a failure nothing is returned.
    /// @return the error
    int sign(test::Bytes block = test::paddedBlock(), std::int32_t id = 7) const
    {
        unsigned char* at = block.data();
        std::size_t size = block.size();
        const int error = ss_encrypt_by_key(&client, id, &at, &size, 0, 0);
        if (error != 0) {
            EXPECT_EQ(at, block.data());
            return error;
        }
        const test::Bytes result(at, at + size);
        ss_free_buffer(at);
        EXPECT_EQ(token().key.publicOperation(result), block);
        return 0;
    }

    std::vector<std::string> errors() const { return log.linesWith("E/BILLING_PLATFORM: "); }

    device::Conf conf;
    device::CapturedLog log;
    ss_credential_s client{};
};

}  // namespace keys
