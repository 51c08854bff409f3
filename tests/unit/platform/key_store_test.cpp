// key_store_test.cpp - the key store with a faulty token: a PKCS#11 module of the tests is put in front of
// the software token.
#include "key_store_fixture.h"
#include "keystore/token_keys.h"

#include <openssl/err.h>

#include <atomic>
#include <memory>
#include <thread>

using keys::AKeyStore;
using keys::sessionOfToken;
using keys::token;
using proxy::Fault;
using test::Bytes;
using test::paddedBlock;
using test::RsaKey;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

TEST_F(AKeyStore, KeepsOneSessionAndOneLoginForManySignatures)
{
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().signatures, 20);
    EXPECT_EQ(control().logins, 0);
    EXPECT_EQ(control().sessions, 0);
}

TEST_F(AKeyStore, HandsOutNoShortBlock)
{
    control().fault = Fault::ShortBlock;
    EXPECT_EQ(sign(), SS_ERROR_BROKEN);
    EXPECT_THAT(errors(), Contains(HasSubstr("short")));
}

TEST_F(AKeyStore, HandsOutNoWrongBlock)
{
    control().fault = Fault::WrongBlock;
    EXPECT_EQ(sign(), SS_ERROR_BROKEN);
    EXPECT_EQ(errors().size(), 1U);
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, StripsThePaddingForATokenWithoutRawRsa)
{
    for (const Fault fault : {Fault::NoRawRsa, Fault::RawRsaListed, Fault::RawRsaDecrypts}) {
        control().fault = fault;
        for (const std::size_t content : {std::size_t{0}, std::size_t{51}, std::size_t{245}})
            EXPECT_EQ(sign(paddedBlock(content)), 0) << content;
    }
}

TEST_F(AKeyStore, RefusesABlockWithoutPaddingForATokenWithoutRawRsa)
{
    control().fault = Fault::NoRawRsa;
    Bytes type2 = paddedBlock();
    type2[1] = 2;
    Bytes unfilled(256, 0xff);
    unfilled[0] = 0;
    unfilled[1] = 1;
    Bytes unended = paddedBlock(51);
    unended[256 - 51 - 1] = 5;
    for (const Bytes& block : {type2, unfilled, unended, paddedBlock(246)})
        EXPECT_EQ(sign(block), SS_ERROR_REFUSED);
    EXPECT_THAT(errors(), Each(HasSubstr("CKM_RSA_X_509")));
}

TEST_F(AKeyStore, OpensALostSessionOnceMore)
{
    control().fault = Fault::RemovedOnce;
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().logins, 1);
    EXPECT_EQ(control().sessions, 1);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AKeyStore, GivesUpAfterTheSecondLossAndTriesAgainAtTheNextCall)
{
    control().fault = Fault::Removed;
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_EQ(control().signatures, 2);
    EXPECT_THAT(errors(), testing::ElementsAre(HasSubstr("CKR_DEVICE_REMOVED")));
    EXPECT_THAT(errors(), Each(HasSubstr("billing-test")));
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, WorksAgainAtTheNextCallWhenATokenWasPulledAndPutBack)
{
    token().soft.pull();
    // The error is not "no such key": callers would store or remove a key because of that one.
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_EQ(store(token().key), SS_ERROR_UNAVAILABLE);
    EXPECT_EQ(ss_remove_key(&client, 7), SS_ERROR_UNAVAILABLE);
    token().soft.putBack();
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, TriesAWrongPinOnceAndNeverAgain)
{
    token().soft.writePin("wrong-pin-1\n");
    control().fault = Fault::RemovedOnce;
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_EQ(ss_remove_key(&client, 7), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 1);
    EXPECT_THAT(errors(), Contains(HasSubstr("CKR_PIN_INCORRECT")));
    EXPECT_THAT(log.text(), Not(HasSubstr("wrong-pin")));

    token().soft.writePin("wrong-pin-2\n");
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 2);
    token().soft.writePin("wrong-pin-1\n");
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 2);

    token().soft.writePin(token().soft.pin());
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().logins, 3);
}

TEST_F(AKeyStore, TriesAPinOfARefusedLengthOnce)
{
    endSession();
    token().soft.writePin("1\n");
    control().fault = Fault::PinLength;
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 1);
    EXPECT_THAT(errors(), Contains(HasSubstr("CKR_PIN_LEN_RANGE")));

    control().fault = Fault::None;
    token().soft.writePin(token().soft.pin());
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().logins, 2);
}

TEST_F(AKeyStore, TriesNoPinThatCouldLockTheToken)
{
    endSession();
    control().fault = Fault::PinFinalTry;
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 0);
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, UsesNoPinFileThatOthersCanReadOrThatIsMissing)
{
    const std::string other = token().soft.folder() + "/no-such-pin";
    conf.set("keystore", "pin_file", other);
    start();
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_THAT(errors(), Contains(HasSubstr(other + " does not exist")));
    for (const unsigned mode : {0640U, 0604U, 0620U}) {
        token().soft.writePin(token().soft.pin(), mode);
        conf.set("keystore", "pin_file", token().soft.pinFile());
        start();
        EXPECT_EQ(sign(), SS_ERROR_ACCESS) << mode;
        EXPECT_THAT(errors(), Contains(HasSubstr("chmod 600")));
    }
    EXPECT_EQ(control().logins, 0);
}

TEST_F(AKeyStore, UsesNoPinFileThatIsEmptyOrLargerThanAnyPin)
{
    endSession();
    for (const std::string pin : {"", "\n", "\r\n"}) {
        log.clear();
        token().soft.writePin(pin);
        EXPECT_EQ(sign(), SS_ERROR_ACCESS);
        EXPECT_THAT(errors(), testing::ElementsAre(HasSubstr("is empty; put the PIN there")));
    }
    log.clear();
    token().soft.writePin(std::string(257, '1'));
    EXPECT_EQ(sign(), SS_ERROR_BROKEN);
    EXPECT_THAT(errors(), testing::ElementsAre(HasSubstr("is larger than 256 bytes")));
    EXPECT_EQ(control().logins, 0);
    token().soft.writePin(token().soft.pin() + "\r\n");
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, SaysWhatIsWrongWithItsSettings)
{
    conf.set("keystore", "token", "another");
    start();
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), Contains(HasSubstr("token \"another\"")));
    conf.set("keystore", "module", "/no/such/module.so");
    start();
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), Contains(HasSubstr("/no/such/module.so")));
    conf.set("keystore", "module", NO_MODULE);
    start();
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), Contains(HasSubstr("is no PKCS#11 module")));
    conf.set("keystore", "module", std::nullopt);
    start();
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), Contains(HasSubstr("[keystore] module is not set")));
    conf.set("keystore", "store", std::nullopt);
    EXPECT_EQ(ss_delete(0, "name", &client, 33), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), Contains(HasSubstr("[keystore] store is not set")));
}

TEST_F(AKeyStore, LetsOneCallerInAtATime)
{
    control().delayMs = 30;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] { done += sign() == 0 ? 1 : 0; });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(done, 4);
    EXPECT_EQ(control().mostInside, 1);
}

TEST_F(AKeyStore, ReadsItsSettingsAnewWhileOthersSign)
{
    std::atomic<int> signing{2};
    std::atomic<int> failed{0};
    const auto signs = [&] {
        for (int i = 0; i < 20; i++)
            failed += sign() == 0 ? 0 : 1;
        signing--;
    };
    std::thread one(signs);
    std::thread two(signs);
    ss_credential_s other{};
    while (signing > 0)
        ss_init_credential(&other, 1, 2, 3, 4, 6, 1, 0);
    one.join();
    two.join();
    EXPECT_EQ(failed, 0);
}

TEST_F(AKeyStore, KeepsTheOldKeyWhenTheNewOneDoesNotProveItself)
{
    control().fault = Fault::WrongBlock;
    EXPECT_EQ(store(RsaKey::make()), SS_ERROR_BROKEN);
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, ImportsKeysThatTheTokenDoesNotGiveAway)
{
    const pkcs11::Session session = sessionOfToken(false);
    pkcs11::Attributes wanted;
    wanted.number(CKA_CLASS, CKO_PRIVATE_KEY).text(CKA_ID, std::string("\0\0\0\7", 4));
    const auto keys = session.find(wanted);
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_EQ(session.value(keys[0], CKA_PRIVATE_EXPONENT), std::nullopt);
    EXPECT_EQ(session.value(keys[0], CKA_SENSITIVE), secret::Bytes{CK_TRUE});
    EXPECT_EQ(session.value(keys[0], CKA_EXTRACTABLE), secret::Bytes{CK_FALSE});
    EXPECT_EQ(session.value(keys[0], CKA_PRIVATE), secret::Bytes{CK_TRUE}) << "not without login";
    EXPECT_EQ(session.value(keys[0], CKA_DECRYPT), secret::Bytes{CK_FALSE});
    EXPECT_EQ(session.value(keys[0], CKA_UNWRAP), secret::Bytes{CK_FALSE});
}

TEST_F(AKeyStore, RemovesThePublicObjectToo)
{
    EXPECT_EQ(ss_remove_key(&client, 7), 0);
    const pkcs11::Session session = sessionOfToken(false);
    pkcs11::Attributes any;
    any.text(CKA_ID, std::string("\0\0\0\7", 4));
    EXPECT_THAT(session.find(any), IsEmpty());
    EXPECT_EQ(sign(), SS_ERROR_NOT_FOUND);
    EXPECT_EQ(control().logins, 0);
}

TEST_F(AKeyStore, IsNotMisledByAPublicObjectLeftOfAnotherKey)
{
    const pkcs11::Session session = sessionOfToken(true);
    pkcs11::Attributes any;
    any.number(CKA_CLASS, CKO_PUBLIC_KEY).text(CKA_ID, std::string("\0\0\0\7", 4));
    const auto own = session.find(any);
    ASSERT_EQ(own.size(), 1U);
    session.destroy(own[0]);
    const Bytes other = RsaKey::make().modulus();
    pkcs11::Attributes left;
    left.number(CKA_CLASS, CKO_PUBLIC_KEY)
        .number(CKA_KEY_TYPE, CKK_RSA)
        .text(CKA_ID, std::string("\0\0\0\7", 4))
        .flag(CKA_TOKEN, true)
        .bytes(CKA_MODULUS, secret::Bytes(other.begin(), other.end()))
        .bytes(CKA_PUBLIC_EXPONENT, secret::Bytes{1, 0, 1});
    session.create(left);
    EXPECT_EQ(sign(), 0) << "the private object shows its own numbers";

    ASSERT_EQ(store(token().key), 0);
    const auto now = session.find(any);
    ASSERT_EQ(now.size(), 1U) << "the one that was left is gone";
    const Bytes modulus = token().key.modulus();
    EXPECT_EQ(session.value(now[0], CKA_MODULUS), secret::Bytes(modulus.begin(), modulus.end()));
}

TEST_F(AKeyStore, SeesEveryObjectOfATokenThatNamesThemOneByOne)
{
    const pkcs11::Session session = sessionOfToken(false);
    pkcs11::Attributes any;
    any.text(CKA_ID, std::string("\0\0\0\7", 4));
    control().fault = Fault::OneAtATime;
    EXPECT_EQ(session.find(any).size(), 2U) << "the private object and the public one";
}

TEST_F(AKeyStore, BelievesNoNumberThatCannotBe)
{
    for (const Fault fault : {Fault::MoreThanRoom, Fault::WithoutEnd, Fault::ManySlots}) {
        endSession();
        log.clear();
        control().fault = fault;
        EXPECT_EQ(sign(), SS_ERROR_BROKEN) << static_cast<int>(fault);
        EXPECT_THAT(errors(), Contains(HasSubstr("the module tells more than there can be")));
        control().fault = Fault::None;
        EXPECT_EQ(sign(), 0);
    }
}

TEST_F(AKeyStore, LeavesNothingOfAKeyThatWasMadeAndDoesNotWork)
{
    const pkcs11::Session session = sessionOfToken(true);
    control().fault = Fault::WrongBlock;
    EXPECT_THROW(tokenkeys::generate(session, 8), secure::Error);
    pkcs11::Attributes any;
    any.text(CKA_ID, std::string("\0\0\0\10", 4));
    EXPECT_THAT(session.find(any), IsEmpty());
}

TEST_F(AKeyStore, TriesThePinAgainOnceALockedTokenIsUnlocked)
{
    endSession();
    control().fault = Fault::PinLocked;
    EXPECT_EQ(sign(), SS_ERROR_ACCESS);
    EXPECT_THAT(errors(), Contains(HasSubstr("CKR_PIN_LOCKED; unlock it")));
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(AKeyStore, DoesNotTakeAFailureWithoutAReasonForAMissingToken)
{
    control().fault = Fault::FunctionFailed;
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), testing::ElementsAre(HasSubstr("CKR_FUNCTION_FAILED; ")));
    EXPECT_THAT(errors(), Each(Not(HasSubstr("put the token back"))));
}

TEST_F(AKeyStore, LeavesNoErrorOfItsModuleToAHandshakeOnTheThread)
{
    ERR_clear_error();
    control().fault = Fault::ErrorsLeft;
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(ERR_peek_error(), 0UL);

    ERR_raise(ERR_LIB_USER, ERR_R_DISABLED);
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), ERR_R_DISABLED);
    ERR_clear_error();
}

/// Fixture: a key that wants the PIN before each signature, beside the ordinary key.
class AKeyThatAsksEachTime : public AKeyStore {
protected:
    static constexpr std::int32_t kId = 9;

    void SetUp() override
    {
        AKeyStore::SetUp();
        if (IsSkipped())
            return;
        const Bytes n = token().key.modulus();
        const Bytes d = token().key.privateExponent();
        const auto key = rawrsa::recover(n.data(), n.size(), d.data(), d.size()).value();
        const pkcs11::Module& module = pkcs11::Module::at(PROXY_MODULE);
        m_session = std::make_unique<pkcs11::Session>(
            module, module.slotOf(token().soft.label()).value(), true);
        pkcs11::Attributes attributes;
        attributes.number(CKA_CLASS, CKO_PRIVATE_KEY)
            .number(CKA_KEY_TYPE, CKK_RSA)
            .text(CKA_ID, std::string("\0\0\0\11", 4))
            .flag(CKA_TOKEN, true)
            .flag(CKA_PRIVATE, true)
            .flag(CKA_SIGN, true)
            .flag(CKA_ALWAYS_AUTHENTICATE, true)
            .bytes(CKA_MODULUS, key.modulus)
            .bytes(CKA_PUBLIC_EXPONENT, key.publicExponent)
            .bytes(CKA_PRIVATE_EXPONENT, key.privateExponent)
            .bytes(CKA_PRIME_1, key.prime1)
            .bytes(CKA_PRIME_2, key.prime2)
            .bytes(CKA_EXPONENT_1, key.exponent1)
            .bytes(CKA_EXPONENT_2, key.exponent2)
            .bytes(CKA_COEFFICIENT, key.coefficient);
        m_object = m_session->create(attributes);
    }
    void TearDown() override
    {
        if (m_session != nullptr)
            m_session->destroy(m_object);
        AKeyStore::TearDown();
    }

    int signWithIt() const { return sign(paddedBlock(), kId); }

private:
    std::unique_ptr<pkcs11::Session> m_session;
    CK_OBJECT_HANDLE m_object = 0;
};

TEST_F(AKeyThatAsksEachTime, IsGivenThePinEachTime)
{
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(signWithIt(), 0);
        EXPECT_EQ(control().logins, i);
    }
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().logins, 3) << "the other key does not ask";
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(AKeyThatAsksEachTime, IsGivenAWrongPinOnce)
{
    token().soft.writePin("wrong-pin-3\n");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(signWithIt(), SS_ERROR_ACCESS);
    EXPECT_EQ(control().logins, 1);
    EXPECT_EQ(sign(), 0) << "the session is logged in";

    token().soft.writePin(token().soft.pin());
    EXPECT_EQ(signWithIt(), 0);
    EXPECT_EQ(control().logins, 2);
}

}  // namespace
