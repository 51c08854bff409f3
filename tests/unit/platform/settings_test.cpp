// settings_test.cpp - the settings file of the Linux backend: what is read, what is refused, the log lines
// about it and their number.
#include "linux/settings/settings.h"

#include "device_conf.h"
#include "linux/settings/settings_known.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/deployment.h>
#include <platform/log.h>
#include <platform/network.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

using settings::number;
using settings::text;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class SettingsFile : public testing::Test {
protected:
    static std::optional<std::string> token() { return text("config", "db/comss/atoken"); }
    static std::optional<std::string> guid() { return text("account", "guid"); }

    std::vector<std::string> errors() const
    {
        return m_log.linesWith("E/BILLING_PLATFORM: settings: ");
    }

    /// Reads a file with one setting.
    /// @return the logged errors
    std::vector<std::string> errorsOf(const std::string& group, const std::string& line)
    {
        m_log.clear();
        m_conf.write("[" + group + "]\n" + line + "\n");
        token();
        return errors();
    }

    device::CapturedLog m_log;
    device::Conf m_conf;
};

TEST_F(SettingsFile, HoldsValuesThatAreTakenAsTheyStand)
{
    m_conf.write(
        "# comment\n[config]\n\ndb/comss/atoken=a\\n\\\\b=c#d;e\"f'\n[account]\nguid = g h \t\n");
    EXPECT_EQ(token(), "a\\n\\\\b=c#d;e\"f'");
    EXPECT_EQ(guid(), "g h");
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, MayHaveTheLineEndsOfAnotherSystemAndNoneAtItsEnd)
{
    m_conf.write("[config]\r\ndb/comss/atoken=t\r\n[account]\r\nguid=g");
    EXPECT_EQ(token(), "t");
    EXPECT_EQ(guid(), "g");
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, TakesTheLastOfTwoEqualKeys)
{
    m_conf.write("[account]\nguid=1\nguid=2\n");
    EXPECT_EQ(guid(), "2");
}

TEST_F(SettingsFile, KnowsEverySettingThatIsDescribed)
{
    m_conf.write(
        "[config]\ndb/comss/atoken=a\ndb/comss/hwduid=b\ndb/comss/countrycode=c\n"
        "db/comss/modelid=d\nmemory/menu/network/set_time=1\n[runtime]\nlanguage=e\n"
        "[system]\nvantor_server_type=1\n[account]\nguid=f\nauth_token=g\nlogin_id=h\n"
        "[network]\ndefault_gateway=auto\n[deployment]\nproduction_host=i\nsandbox_host=j\n"
        "credential=1 2 3 4 5\nkey_id=1\nkey_material=/k\n"
        "[keystore]\nmodule=/l\ntoken=m\npin_file=/n\nstore=/o\n"
        "environment=SOFTHSM2_CONF=/p TPM2_PKCS11_STORE=/q\n");
    EXPECT_EQ(token(), "a");
    EXPECT_EQ(text("keystore", "store"), "/o");
    EXPECT_EQ(text("deployment", "key_material"), "/k");
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, OfTheSampleHoldsNothingThatIsReported)
{
    std::ifstream sample(SAMPLE_FILE);
    std::ostringstream bytes;
    bytes << sample.rdbuf();
    m_conf.write(bytes.str());
    EXPECT_EQ(token(), "the-device-token");
    EXPECT_EQ(text("deployment", "sandbox_host"), "sandbox.billing.example:8443");
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, ThatIsMissingIsReportedOnceWithItsCureAndSeenWhenItComes)
{
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(),
                ElementsAre(AllOf(StartsWith(m_conf.path() + ": cannot be read: No such file"),
                                  HasSubstr("PLEVO_DEVICE_CONF"))));
    m_conf.write("[config]\ndb/comss/atoken=t\n");
    EXPECT_EQ(token(), "t");
    m_conf.remove();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(), SizeIs(2));
}

TEST_F(SettingsFile, IsTheDevicesOwnWhenNoneIsNamed)
{
    EXPECT_EQ(settings::filePath(), m_conf.path());
    setenv("PLEVO_DEVICE_CONF", "", 1);
    EXPECT_EQ(settings::filePath(), "/etc/plevo/device.conf");
    unsetenv("PLEVO_DEVICE_CONF");
    EXPECT_EQ(settings::filePath(), "/etc/plevo/device.conf");
}

TEST_F(SettingsFile, ThatIsAFolderOrAFifoIsRefusedWithoutWaiting)
{
    std::filesystem::create_directory(m_conf.path());
    EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("is not a regular file")));
    std::filesystem::remove(m_conf.path());
    EXPECT_EQ(token(), std::nullopt);
    m_log.clear();
    ASSERT_EQ(mkfifo(m_conf.path().c_str(), 0600), 0);
    EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("is not a regular file")));
}

TEST_F(SettingsFile, ThatLinksToItselfIsRefused)
{
    std::filesystem::create_symlink(m_conf.path(), m_conf.path());
    EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("cannot be read")));
}

TEST_F(SettingsFile, ThatIsMalformedIsReportedByTheNumberOfTheLineOnly)
{
    const std::string good = "[config]\ndb/comss/atoken=t\n";
    for (const std::string bad : {"s3cr3t", "[s3cr3t", "=s3cr3t", "; s3cr3t", "[]"}) {
        m_log.clear();
        m_conf.write(good + "# three\n" + bad + "\n[account]\nguid=g\n");
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(token(), std::nullopt) << bad;
        EXPECT_EQ(guid(), std::nullopt) << bad;
        EXPECT_THAT(errors(), ElementsAre(HasSubstr(": line 4 is not a [group]"))) << bad;
        EXPECT_THAT(m_log.text(), Not(HasSubstr("s3cr3t"))) << bad;
        m_conf.write(good);
        EXPECT_EQ(token(), "t");
    }
}

TEST_F(SettingsFile, MustBeginWithAGroup)
{
    m_conf.write("# one\nguid=s3cr3t\n[account]\nguid=g\n");
    EXPECT_EQ(guid(), std::nullopt);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr(": line 2 is not a [group]")));
}

TEST_F(SettingsFile, MayBeEmptyOrOfGroupsOnly)
{
    for (const char* const bytes : {"", "\n\n", "[config]\n", "# nothing"}) {
        m_conf.write(bytes);
        EXPECT_EQ(token(), std::nullopt);
    }
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, HasUnknownKeysAndGroupsReportedOncePerVersion)
{
    const std::string bytes =
        "[account]\nguid=g\nguit=s3cr3t\nguid[de]=s3cr3t\n[acount]\na=1\nb=2\n";
    const std::string file = m_conf.path();
    m_conf.write(bytes);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(guid(), "g");
    EXPECT_THAT(errors(), ElementsAre(file + ": line 3 is not a known setting and is ignored",
                                      file + ": line 4 is not a known setting and is ignored",
                                      file + ": line 5 is not a known group and is ignored"));
    m_conf.write(bytes + "\n");
    EXPECT_EQ(guid(), "g");
    EXPECT_THAT(errors(), SizeIs(6));
}

TEST_F(SettingsFile, FullOfNonsenseDoesNotFillTheLog)
{
    std::string bytes = "[account]\n";
    for (int i = 0; i < 1000; i++)
        bytes += "x" + std::to_string(i) + "=1\n";
    m_conf.write(bytes);
    EXPECT_EQ(guid(), std::nullopt);
    EXPECT_THAT(errors(), SizeIs(21));
    EXPECT_THAT(errors(), Contains(HasSubstr(": 980 more such lines")));
}

TEST_F(SettingsFile, HasHostileKeysReportedOnOneLineEach)
{
    m_conf.write("[account]\na\x1b[31m\x01\xff=1\n");
    EXPECT_EQ(guid(), std::nullopt);
    EXPECT_THAT(m_log.lines(), SizeIs(1));
    EXPECT_THAT(m_log.text(), Not(HasSubstr("\x1b")));
}

TEST_F(SettingsFile, RefusesControlBytesInEveryTextByNameAndNotByValue)
{
    const std::pair<std::string, std::string> names[] = {{"config", "db/comss/atoken"},
                                                         {"config", "db/comss/hwduid"},
                                                         {"config", "db/comss/countrycode"},
                                                         {"config", "db/comss/modelid"},
                                                         {"runtime", "language"},
                                                         {"account", "guid"},
                                                         {"account", "auth_token"},
                                                         {"account", "login_id"},
                                                         {"deployment", "production_host"},
                                                         {"deployment", "sandbox_host"},
                                                         {"keystore", "module"},
                                                         {"keystore", "token"}};
    const std::string controls[] = {"\r", std::string(1, '\0'), "\001", "\t", "\x7f", "\x1b[0m"};
    for (const auto& [group, key] : names) {
        for (const std::string& control : controls) {
            const auto found = errorsOf(group, key + "=s3cr3t" + control + "Host: evil");
            EXPECT_THAT(found, ElementsAre(m_conf.path() + ": [" + group + "] " + key +
                                           " holds a control character; it counts as not set until "
                                           "it is mended"));
            EXPECT_EQ(text(group.c_str(), key.c_str()), std::nullopt);
            EXPECT_THAT(m_log.text(), Not(HasSubstr("s3cr3t")));
        }
    }
}

TEST_F(SettingsFile, RefusesWhatIsNotUtf8)
{
    for (const char* const bytes : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\x80"}) {
        EXPECT_THAT(errorsOf("account", std::string("guid=a") + bytes + "z"),
                    ElementsAre(HasSubstr("[account] guid is not valid UTF-8")));
        EXPECT_EQ(guid(), std::nullopt);
    }
    EXPECT_THAT(errorsOf("account", "guid=\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), IsEmpty());
    EXPECT_EQ(guid(), "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST_F(SettingsFile, RefusesNumbersThatAreNone)
{
    for (const char* const value : {"", "x", "1x", "1 2", "0x1", "99999999999", "1.5", "--1"}) {
        EXPECT_THAT(errorsOf("system", std::string("vantor_server_type=") + value),
                    ElementsAre(HasSubstr("vantor_server_type is not a whole number")))
            << value;
        EXPECT_EQ(number("system", "vantor_server_type"), std::nullopt) << value;
    }
    EXPECT_THAT(errorsOf("config", "memory/menu/network/set_time=maybe"),
                ElementsAre(HasSubstr("set_time is not a whole number")));
}

TEST_F(SettingsFile, RefusesALoginIdThatDoesNotFitItsField)
{
    sso_login_info_s info{};
    EXPECT_THAT(errorsOf("account", "login_id=" + std::string(256, 'u')),
                ElementsAre(HasSubstr("login_id is over 255 bytes long")));
    EXPECT_NE(sso_get_login_info(&info), 0);
    EXPECT_THAT(errorsOf("account", "login_id=" + std::string(255, 'u')), IsEmpty());
    EXPECT_EQ(sso_get_login_info(&info), 0);
    EXPECT_EQ(std::string(info.user_id), std::string(255, 'u'));
}

TEST_F(SettingsFile, WithAGatewayRuleThatIsNoneMakesTheQuestionFail)
{
    for (const char* const value : {"", "Up", "error", "error:", "error:0", "error:-1", "error:x",
                                    "up down", "error:99999999999"}) {
        bool exists = true;
        EXPECT_THAT(errorsOf("network", std::string("default_gateway=") + value),
                    ElementsAre(HasSubstr("default_gateway is none of auto, up, down and error:")))
            << value;
        EXPECT_EQ(connection_profile_check_default_gateway(&exists), EINVAL) << value;
        EXPECT_TRUE(exists);
    }
}

TEST_F(SettingsFile, WithoutAHostIsReportedWhenTheHostIsNeededAndOnlyOnce)
{
    m_conf.write("[deployment]\nsandbox_host=s\n");
    EXPECT_EQ(token(), std::nullopt);
    EXPECT_THAT(errors(), IsEmpty());
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(deployment_get_host(DEPLOYMENT_HOST_PRODUCTION), nullptr);
    EXPECT_THAT(errors(), ElementsAre(m_conf.path() + ": [deployment] production_host is not set; "
                                                      "no request can be made to that server"));
}

TEST_F(SettingsFile, WithARefusedHostIsNotReportedTwice)
{
    m_conf.write("[deployment]\nsandbox_host=https://s/\n");
    EXPECT_EQ(deployment_get_host(DEPLOYMENT_HOST_SANDBOX), nullptr);
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("sandbox_host is not a bare host name")));
    m_conf.remove();
    EXPECT_EQ(deployment_get_host(DEPLOYMENT_HOST_SANDBOX), nullptr);
    EXPECT_THAT(errors(), SizeIs(2));
}

TEST_F(SettingsFile, MayHave64KiBAndNotMore)
{
    const std::string start = "[config]\ndb/comss/atoken=";
    const std::string fits(64 * 1024 - start.size(), 'x');
    m_conf.write(start + fits);
    EXPECT_EQ(token(), fits);
    EXPECT_THAT(errors(), IsEmpty());
    for (const std::size_t size : {std::size_t{1}, std::size_t{1} << 20}) {
        m_conf.write(start + fits + std::string(size, 'x'));
        EXPECT_EQ(token(), std::nullopt);
    }
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("is larger than 64 KiB")));
}

TEST_F(SettingsFile, OfOver4GiBIsTooLargeAlsoWhereALongHas32Bits)
{
    m_conf.write("[config]\ndb/comss/atoken=a\n");
    ASSERT_EQ(truncate(m_conf.path().c_str(), (off_t{1} << 32) + 64), 0) << strerror(errno);
    EXPECT_EQ(token(), std::nullopt);
    // The error is not "cannot be opened". The file is not read as 64 bytes either, which is its size cut to
    // 32 bits.
    EXPECT_THAT(errors(), ElementsAre(HasSubstr("is larger than 64 KiB")));
}

TEST_F(SettingsFile, ChangedTwiceWithinATickAndWithinItsSizeIsSeenEachTime)
{
    for (int i = 100; i < 300; i++) {
        const std::string value = std::to_string(i);
        if (i % 2 == 0)
            m_conf.write("[account]\nguid=" + value + "\n");
        else
            m_conf.replace("[account]\nguid=" + value + "\n");
        ASSERT_EQ(guid(), value);
    }
}

TEST_F(SettingsFile, IsOfOneVersionForTheSettingsOfACall)
{
    m_conf.write("[config]\ndb/comss/atoken=one\n[account]\nguid=one\n");
    log_set_caller(":1.7");
    EXPECT_EQ(token(), "one");
    m_conf.write("[config]\ndb/comss/atoken=two\n[account]\nguid=two\n");
    EXPECT_EQ(guid(), "one") << "the call has begun";
    log_set_caller(":1.7");
    EXPECT_EQ(guid(), "two") << "the next call of the same caller";
    log_set_caller(nullptr);
    m_conf.write("[account]\nguid=three\n");
    EXPECT_EQ(guid(), "three") << "no call is served";
}

TEST_F(SettingsFile, ChangedAfterALongQuietIsSeen)
{
    m_conf.write("[account]\nguid=1\n");
    EXPECT_EQ(guid(), "1");
    // The file is read at each call until its times can no longer hide a change.
    sleep(4);
    EXPECT_EQ(guid(), "1");
    EXPECT_EQ(guid(), "1");
    m_conf.write("[account]\nguid=2\n");
    EXPECT_EQ(guid(), "2");
    m_conf.replace("[account]\nguid=3\n");
    EXPECT_EQ(guid(), "3");
}

TEST_F(SettingsFile, CutShortIsReadForWhatIsThere)
{
    m_conf.write("[account]\nguid=g\n[config]\ndb/comss/atoken=t\n");
    EXPECT_EQ(token(), "t");
    std::filesystem::resize_file(m_conf.path(), 0);
    EXPECT_EQ(token(), std::nullopt);
    EXPECT_EQ(guid(), std::nullopt);
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(SettingsFile, IsForgottenWhenAnotherIsNamed)
{
    m_conf.write("[account]\nguid=1\n");
    EXPECT_EQ(guid(), "1");
    device::Conf other;
    other.write("[account]\nguid=2\n");
    EXPECT_EQ(guid(), "2");
}

TEST(GatewayRule, IsReadFromItsFourForms)
{
    using Source = settings::GatewayRule::Source;
    EXPECT_EQ(settings::gatewayRule("auto")->source, Source::Kernel);
    EXPECT_EQ(settings::gatewayRule("up")->source, Source::Fixed);
    EXPECT_TRUE(settings::gatewayRule("up")->exists);
    EXPECT_FALSE(settings::gatewayRule("down")->exists);
    EXPECT_EQ(settings::gatewayRule("error:7")->source, Source::Failure);
    EXPECT_EQ(settings::gatewayRule("error:7")->code, 7);
}

}  // namespace
