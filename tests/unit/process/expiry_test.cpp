// expiry_test.cpp - the warning before the device's certificate ends.
#include "process/expiry.h"

#include "child.h"
#include "device_certificate.h"
#include "doubles.h"

#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

using testing::ElementsAre;

/// Bytes of a certificate's file that are read.
constexpr std::size_t kLimit = 65536;

constexpr long kHour = 3600;
constexpr long kDay = 24 * kHour;

class ACertificate : public testing::Test {
protected:
    void SetUp() override { test::events().clear(); }

    /// @return the certificate's text
    static std::string valid(long fromSeconds, long toSeconds)
    {
        const test::Identity device = test::selfSigned(test::newEcKeyPem(), "device");
        X509_gmtime_adj(X509_getm_notBefore(device.certificate.get()), fromSeconds);
        X509_gmtime_adj(X509_getm_notAfter(device.certificate.get()), toSeconds);
        return test::pemOf(*device.certificate);
    }

    /// @return the warnings at the start with this text in the file
    test::Events warningsOf(const std::string& text) const
    {
        test::writeText(path, text);
        return warnings();
    }

    test::Events warnings() const
    {
        process::warnOfExpiry(path.c_str());
        EXPECT_EQ(ERR_peek_error(), 0U);
        test::Events events = test::events();
        test::events().clear();
        // The exit handler of OpenSSL must be left out before anything else of it is used.
        EXPECT_EQ(events.empty() ? "" : events.front(), "OpenSSL without an exit handler");
        if (!events.empty())
            events.erase(events.begin());
        return events;
    }

    const test::TemporaryFolder folder;
    const std::string path = folder.path("bgclient.crt");
};

TEST_F(ACertificate, ThatIsValidForLongIsNoWarning)
{
    EXPECT_THAT(warningsOf(valid(-kHour, 30 * kDay + kHour)), ElementsAre());
    EXPECT_THAT(warningsOf(valid(-kHour, 3650 * kDay)), ElementsAre());
}

TEST_F(ACertificate, ThatEndsSoonIsOne)
{
    EXPECT_THAT(
        warningsOf(valid(-kHour, 30 * kDay - kHour)),
        ElementsAre("W/BILLING_PLATFORM: the device's certificate ends in 29 days; put a new one "
                    "there with billing-provision"));
    EXPECT_THAT(
        warningsOf(valid(-kHour, kHour)),
        ElementsAre("W/BILLING_PLATFORM: the device's certificate ends in 0 days; put a new one "
                    "there with billing-provision"));
}

TEST_F(ACertificate, ThatHasEndedIsOne)
{
    EXPECT_THAT(
        warningsOf(valid(-2 * kHour, -kHour)),
        ElementsAre("W/BILLING_PLATFORM: the device's certificate has ended 0 days ago; put a new "
                    "one there with billing-provision"));
    EXPECT_THAT(
        warningsOf(valid(-9 * kDay, -5 * kDay - kHour)),
        ElementsAre("W/BILLING_PLATFORM: the device's certificate has ended 5 days ago; put a new "
                    "one there with billing-provision"));
}

TEST_F(ACertificate, ThatBeginsLaterAsksForTheClock)
{
    for (const long end : {60 * kDay, 2 * kHour, -kHour}) {
        EXPECT_THAT(
            warningsOf(valid(kHour, end)),
            ElementsAre("W/BILLING_PLATFORM: the device's certificate is not valid yet by this "
                        "clock; set the clock"));
    }
}

TEST_F(ACertificate, WithoutAReadableTimeIsNoWarning)
{
    const std::string key = test::newEcKeyPem();
    const test::Identity endless = test::selfSigned(key, "device");
    ASN1_STRING_set(X509_getm_notAfter(endless.certificate.get()), "someday", -1);
    EXPECT_THAT(warningsOf(test::pemOf(*endless.certificate)), ElementsAre());

    const test::Identity timeless = test::selfSigned(key, "device");
    ASN1_STRING_set(X509_getm_notBefore(timeless.certificate.get()), "once", -1);
    X509_gmtime_adj(X509_getm_notAfter(timeless.certificate.get()), 60 * kDay);
    EXPECT_THAT(warningsOf(test::pemOf(*timeless.certificate)), ElementsAre());
}

TEST_F(ACertificate, MayBeTheFirstOpenFile)
{
    test::writeText(path, valid(-2 * kHour, -kHour));
    EXPECT_EQ(test::inChild([this] {
                  close(0);
                  return std::to_string(warnings().size());
              }),
              "1");
}

TEST_F(ACertificate, IsReadAfterATextButNotForEver)
{
    const std::string ended = valid(-2 * kHour, -kHour);
    EXPECT_EQ(warningsOf(std::string(kLimit - ended.size() - 1, 'x') + "\n" + ended).size(), 1U);
    EXPECT_EQ(warningsOf(std::string(kLimit - ended.size() + 1, 'x') + "\n" + ended).size(), 0U);
}

TEST_F(ACertificate, ThatIsNoneIsLeftToTheService)
{
    EXPECT_THAT(warnings(), ElementsAre()) << "no file";
    EXPECT_THAT(warningsOf(""), ElementsAre());
    EXPECT_THAT(warningsOf("no certificate"), ElementsAre());
    remove(path.c_str());
    mkdir(path.c_str(), 0700);
    EXPECT_THAT(warnings(), ElementsAre()) << "a folder";
    remove(path.c_str());
    mkfifo(path.c_str(), 0600);
    EXPECT_THAT(warnings(), ElementsAre()) << "a pipe that nobody writes to";
}

}  // namespace
