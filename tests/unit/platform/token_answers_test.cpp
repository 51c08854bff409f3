// token_answers_test.cpp - what the key store makes of the answers of a PKCS#11 module, and what it asks for.
#include "key_store_fixture.h"
#include "keystore/token_keys.h"

using keys::AKeyStore;
using keys::sessionOfToken;
using keys::token;
using proxy::Fault;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr std::int32_t kOther = 5;

class ATokensAnswers : public AKeyStore {
protected:
    static const pkcs11::Module& module() { return pkcs11::Module::at(PROXY_MODULE); }
    /// Ends all sessions; the next call starts the module again with these answers.
    void startAgainWith(Fault fault)
    {
        endSession();
        control().fault = fault;
        module().restart();
    }
};

TEST_F(ATokensAnswers, AreReadInASessionThatCannotWrite)
{
    endSession();
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().sessionFlags, CKF_SERIAL_SESSION);
    EXPECT_EQ(store(token().key), 0);
    EXPECT_EQ(control().sessionFlags, CKF_SERIAL_SESSION | CKF_RW_SESSION);
}

TEST_F(ATokensAnswers, ComeFromAModuleThatMayLock)
{
    startAgainWith(Fault::None);
    EXPECT_EQ(control().startFlags, CKF_OS_LOCKING_OK);
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, ComeFromAModuleThatCannotLock)
{
    startAgainWith(Fault::CannotLock);
    EXPECT_EQ(control().startFlags, 0U);
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, AreMissingWhileTheModuleDoesNotStart)
{
    endSession();
    log.clear();
    control().fault = Fault::NoStart;
    EXPECT_THROW(module().restart(), pkcs11::Failure);
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(),
                ElementsAre(HasSubstr("the start of the module failed with CKR_GENERAL_ERROR")));
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, LeaveOneSessionOpen)
{
    const int before = control().openSessions;
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(store(token().key), 0);
    EXPECT_EQ(ss_remove_key(&client, kOther), SS_ERROR_NOT_FOUND);
    EXPECT_EQ(control().openSessions, before);
}

TEST_F(ATokensAnswers, MayAllowOneSessionAtATime)
{
    control().mostSessions = 0;
    control().fault = Fault::FunctionFailed;
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().sessions, 2);
    EXPECT_EQ(control().mostSessions, 1) << "a session is closed before the next one is opened";
}

TEST_F(ATokensAnswers, ComeFromAnAbsolutePathOnly)
{
    for (const std::string path : {"", "module.so"}) {
        try {
            pkcs11::Module::at(path.c_str());
            FAIL();
        } catch (const secure::Error& error) {
            EXPECT_EQ(error.code(), SS_ERROR_UNAVAILABLE);
            EXPECT_THAT(error.what(), HasSubstr(path + " is not an absolute path; [keystore]"));
        }
    }
}

TEST_F(ATokensAnswers, ComeFromNoneOfTwoTokensWithOneLabel)
{
    conf.set("keystore", "token", "twin");
    start();
    control().fault = Fault::Twins;
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("two tokens have this label")));
}

TEST_F(ATokensAnswers, ComeFromNoneOfTwoKeysWithOneNumber)
{
    const pkcs11::Session session = sessionOfToken(true);
    pkcs11::Attributes publicKey;
    publicKey.number(CKA_MODULUS_BITS, 2048);
    pkcs11::Attributes privateKey;
    privateKey.text(CKA_ID, std::string("\0\0\0\7", 4)).flag(CKA_TOKEN, true).flag(CKA_SIGN, true);
    const auto made = session.generate(publicKey, privateKey);
    EXPECT_EQ(sign(), SS_ERROR_BROKEN);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("more than one private key with CKA_ID 00000007")));
    session.destroy(made[1]);
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, AboutWhatIsNotThereAreFailures)
{
    const pkcs11::Session session = sessionOfToken(true);
    EXPECT_THROW(module().tokenIn(12345), pkcs11::Failure);
    EXPECT_THROW(session.value(12345, CKA_MODULUS), pkcs11::Failure);
    EXPECT_THROW(session.destroy(12345), pkcs11::Failure);
    pkcs11::Attributes none;
    EXPECT_THROW(session.create(none), pkcs11::Failure);
    EXPECT_THROW(tokenkeys::publicKey(session, kOther), secure::Error);
}

TEST_F(ATokensAnswers, MayHaveOneSlot)
{
    control().fault = Fault::OneSlot;
    EXPECT_EQ(module().slots().size(), 1U);
    EXPECT_NE(module().slotOf(token().soft.label()), std::nullopt);
}

TEST_F(ATokensAnswers, MayHaveASlotMoreOrLessFromOneCallToTheNext)
{
    const auto slots = module().slots();
    control().fault = Fault::SlotAdded;
    EXPECT_EQ(module().slots(), slots);
    control().fault = Fault::SlotGone;
    EXPECT_EQ(module().slots(), slots);
    control().fault = Fault::SlotsGrow;
    EXPECT_THROW(module().slots(), pkcs11::Failure) << "in the end";
}

TEST_F(ATokensAnswers, AreNotBelievedWhenTheListIsLongerThanItsRoom)
{
    endSession();
    log.clear();
    control().fault = Fault::SlotsBeyond;
    EXPECT_EQ(sign(), SS_ERROR_BROKEN);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("the module tells more than there can be")));
}

TEST_F(ATokensAnswers, MayPadALabelWithNul)
{
    const auto slot = module().slotOf(token().soft.label());
    control().fault = Fault::NulPadded;
    EXPECT_EQ(module().slotOf(token().soft.label()), slot);
}

TEST_F(ATokensAnswers, MakeAMissingKeyAMissingTokenWhenTheTokenIsAnother)
{
    EXPECT_EQ(sign(test::paddedBlock(), kOther), SS_ERROR_NOT_FOUND);
    control().fault = Fault::OtherToken;
    EXPECT_EQ(sign(test::paddedBlock(), kOther), SS_ERROR_UNAVAILABLE);
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, MayTellMoreRoomThanAnAttributeNeeds)
{
    control().fault = Fault::RoundedLengths;
    EXPECT_EQ(sign(), 0);
}

TEST_F(ATokensAnswers, LeaveTheSessionUsableAfterASearchThatFails)
{
    control().fault = Fault::SearchFails;
    EXPECT_EQ(sign(), SS_ERROR_NO_MEMORY);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("CKR_DEVICE_MEMORY; remove keys")));
    control().fault = Fault::None;
    EXPECT_EQ(sign(), 0);
    EXPECT_EQ(control().sessions, 0);
    EXPECT_EQ(control().logins, 0);
}

TEST_F(ATokensAnswers, AreNamedByTheirNumberWhenTheyHaveNoName)
{
    control().fault = Fault::UnnamedAnswer;
    EXPECT_EQ(sign(), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(errors(),
                ElementsAre(HasSubstr("a signature failed with PKCS#11 answer 0x8000002a; see")));
}

TEST_F(ATokensAnswers, GiveTheLowestFreeNumber)
{
    const pkcs11::Session session = sessionOfToken(false);
    EXPECT_EQ(tokenkeys::freeId(session), 1);
    EXPECT_FALSE(tokenkeys::exists(session, 1));
    EXPECT_TRUE(tokenkeys::exists(session, 7));
}

TEST_F(ATokensAnswers, ProveAKey)
{
    const pkcs11::Session session = sessionOfToken(false);
    EXPECT_NO_THROW(tokenkeys::prove(session, 7));
    control().fault = Fault::WrongBlock;
    EXPECT_THROW(tokenkeys::prove(session, 7), secure::Error);
}

TEST_F(ATokensAnswers, TellWhatAKeyMayDo)
{
    const pkcs11::Session session = sessionOfToken(true);
    EXPECT_EQ(tokenkeys::faultIn(session, 7), "");
    tokenkeys::remove(session, kOther);
    tokenkeys::generate(session, kOther, false);
    EXPECT_EQ(tokenkeys::faultIn(session, kOther),
              "may decrypt as well (CKA_DECRYPT), may unwrap other keys as well (CKA_UNWRAP)");
    EXPECT_TRUE(tokenkeys::remove(session, kOther));
    EXPECT_FALSE(tokenkeys::remove(session, kOther));
}

TEST_F(ATokensAnswers, ArePublicAndPrivateObjectOfAKeyThatWasMade)
{
    const pkcs11::Session session = sessionOfToken(true);
    pkcs11::Attributes publicKey;
    publicKey.number(CKA_MODULUS_BITS, 2048);
    pkcs11::Attributes privateKey;
    privateKey.flag(CKA_SIGN, true);
    const auto made = session.generate(publicKey, privateKey);
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(session.value(made[0], CKA_SIGN), std::nullopt);
    EXPECT_EQ(session.value(made[1], CKA_SIGN), secret::Bytes{CK_TRUE});
}

}  // namespace
