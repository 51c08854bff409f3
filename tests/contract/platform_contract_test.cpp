// platform_contract_test.cpp - the contract of the platform's headers, tested on a backend.
#include "arrange.h"
#include "made_by_new.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/network.h>
#include <platform/runtime_info.h>
#include <platform/system_info.h>
#include <platform/timezone.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string kControls[] = {"a\rb", "a\nHost: evil", "a\r\nb", "\001", "a\x7f", "a\033[0m"};

/// Takes over a text that the platform has returned.
std::optional<std::string> taken(char* text)
{
    if (text == nullptr)
        return std::nullopt;
    EXPECT_FALSE(madeByNew(text)) << "the service frees it with free()";
    const std::string copy = text;
    free(text);
    return copy;
}

class APlatform : public testing::Test {
protected:
    void SetUp() override { arrange::bareDevice(); }
};

class AConfiguration : public APlatform {
protected:
    static std::optional<std::string> text(const char* key) { return taken(vconf_get_str(key)); }
};

TEST_F(AConfiguration, GivesTheTextOfAKey)
{
    arrange::config("db/comss/atoken", "tok en=\\n;#%\"'~\xc3\xa9");
    EXPECT_EQ(text("db/comss/atoken"), "tok en=\\n;#%\"'~\xc3\xa9");
}

TEST_F(AConfiguration, GivesNullForAKeyThatIsAbsentOrEmpty)
{
    arrange::config("db/comss/hwduid", "");
    EXPECT_EQ(text("db/comss/atoken"), std::nullopt);
    EXPECT_EQ(text("db/comss/hwduid"), std::nullopt);
    EXPECT_THAT(arrange::errors(), IsEmpty());
}

TEST_F(AConfiguration, GivesTheValueOfTheMomentOfTheCall)
{
    arrange::config("db/comss/countrycode", "US");
    EXPECT_EQ(text("db/comss/countrycode"), "US");
    arrange::config("db/comss/countrycode", "KR");
    EXPECT_EQ(text("db/comss/countrycode"), "KR");
    arrange::config("db/comss/countrycode", std::nullopt);
    EXPECT_EQ(text("db/comss/countrycode"), std::nullopt);
}

TEST_F(AConfiguration, GivesALongText)
{
    const std::string text16k(16 * 1024, 'x');
    arrange::config("db/comss/atoken", text16k);
    EXPECT_EQ(text("db/comss/atoken"), text16k);
}

TEST_F(AConfiguration, GivesANumber)
{
    for (const int number : {1, 0, -7, 2147483647, -2147483647 - 1}) {
        arrange::config("memory/menu/network/set_time", std::to_string(number));
        int value = 99;
        EXPECT_EQ(vconf_get_int("memory/menu/network/set_time", &value), 0);
        EXPECT_EQ(value, number);
    }
}

TEST_F(AConfiguration, GivesNoNumberForAnAbsentKeyOrWhatIsNone)
{
    int value = 99;
    EXPECT_LT(vconf_get_int("memory/menu/network/set_time", &value), 0);
    for (const char* const text : {"", "one", "1x", "0x10", "1.0", "2147483648", "1 2", "+1"}) {
        arrange::config("memory/menu/network/set_time", text);
        EXPECT_LT(vconf_get_int("memory/menu/network/set_time", &value), 0) << text;
    }
    EXPECT_EQ(value, 99);
}

TEST_F(APlatform, GivesTheLanguage)
{
    arrange::language("en_US.utf8");
    char* text = nullptr;
    EXPECT_EQ(runtime_info_get_value_string(RUNTIME_INFO_KEY_LANGUAGE, &text), 0);
    EXPECT_EQ(taken(text), "en_US.utf8");
}

TEST_F(APlatform, GivesNoLanguageWhenItIsAbsentOrEmpty)
{
    char untouched = 'x';
    char* text = &untouched;
    EXPECT_NE(runtime_info_get_value_string(RUNTIME_INFO_KEY_LANGUAGE, &text), 0);
    arrange::language("");
    EXPECT_NE(runtime_info_get_value_string(RUNTIME_INFO_KEY_LANGUAGE, &text), 0);
    EXPECT_EQ(text, &untouched);
}

TEST_F(APlatform, KnowsNoOtherRuntimeInformation)
{
    arrange::language("en_US.utf8");
    char* text = nullptr;
    EXPECT_NE(runtime_info_get_value_string(static_cast<runtime_info_key_e>(1), &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST_F(APlatform, GivesTheServerType)
{
    arrange::serverType(2);
    int value = 99;
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &value), 0);
    EXPECT_EQ(value, 2);
}

TEST_F(APlatform, GivesNoServerTypeWhenItIsAbsent)
{
    int value = 99;
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &value), 0);
    EXPECT_EQ(value, 99);
}

TEST_F(APlatform, KnowsNoOtherSystemInformation)
{
    arrange::serverType(2);
    int value = 99;
    EXPECT_NE(system_info_get_value_int(static_cast<system_info_key_e>(125), &value), 0);
    EXPECT_EQ(value, 99);
}

class AnAccount : public APlatform {
protected:
    /// Content of a record before the call.
    static constexpr int kFilling = 'x';

    static std::optional<std::string> guid()
    {
        char* text = nullptr;
        sso_get_guid(&text);
        return taken(text);
    }
    static std::optional<std::string> authToken()
    {
        char* text = nullptr;
        sso_get_auth_token(&text);
        return taken(text);
    }
    /// @return the id; nullopt after a failure, which leaves the record unchanged
    static std::optional<std::string> loginId()
    {
        sso_login_info_s info;
        memset(&info, kFilling, sizeof info);
        if (sso_get_login_info(&info) == 0) {
            const std::size_t length = strnlen(info.user_id, sizeof info.user_id);
            EXPECT_LT(length, sizeof info.user_id) << "the id has no terminator";
            return std::string(info.user_id, length);
        }
        sso_login_info_s filled;
        memset(&filled, kFilling, sizeof filled);
        EXPECT_EQ(memcmp(&info, &filled, sizeof info), 0);
        return std::nullopt;
    }
};

TEST_F(AnAccount, HasALoginRecordOf1408BytesWithTheIdAtByte256)
{
    EXPECT_EQ(sizeof(sso_login_info_s), 1408U);
    EXPECT_EQ(offsetof(sso_login_info_s, user_id), 256U);
}

TEST_F(AnAccount, GivesItsIdsAndToken)
{
    arrange::guid("g-1");
    arrange::authToken("t-1");
    arrange::loginId("u-1");
    EXPECT_EQ(guid(), "g-1");
    EXPECT_EQ(authToken(), "t-1");
    EXPECT_EQ(loginId(), "u-1");
}

TEST_F(AnAccount, GivesNothingWhenNobodyIsSignedIn)
{
    EXPECT_EQ(guid(), std::nullopt);
    EXPECT_EQ(authToken(), std::nullopt);
    EXPECT_EQ(loginId(), std::nullopt);
    EXPECT_THAT(arrange::errors(), IsEmpty());
}

TEST_F(AnAccount, HasALoginIdOfAtMost255Bytes)
{
    arrange::loginId(std::string(255, 'u'));
    EXPECT_EQ(loginId(), std::string(255, 'u'));
    arrange::loginId(std::string(257, 'u'));
    EXPECT_EQ(loginId(), std::nullopt);
}

TEST_F(APlatform, RefusesTextsThatHoldControlCharactersAndLogsTheirNamesOnly)
{
    const std::string secret = "s3cr3t";
    for (const std::string& control : kControls) {
        arrange::bareDevice();
        const std::string hostile = secret + control + secret;
        arrange::config("db/comss/atoken", hostile);
        arrange::language(hostile);
        arrange::guid(hostile);
        arrange::authToken(hostile);
        arrange::loginId(hostile);
        arrange::host(DEPLOYMENT_HOST_SANDBOX, hostile);

        char* text = nullptr;
        sso_login_info_s info{};
        EXPECT_EQ(taken(vconf_get_str("db/comss/atoken")), std::nullopt);
        EXPECT_NE(runtime_info_get_value_string(RUNTIME_INFO_KEY_LANGUAGE, &text), 0);
        sso_get_guid(&text);
        sso_get_auth_token(&text);
        EXPECT_EQ(text, nullptr);
        EXPECT_NE(sso_get_login_info(&info), 0);
        EXPECT_EQ(info.user_id[0], '\0');
        EXPECT_EQ(taken(deployment_get_host(DEPLOYMENT_HOST_SANDBOX)), std::nullopt);

        EXPECT_THAT(arrange::errors(), Not(IsEmpty()));
        EXPECT_THAT(arrange::errors(), Each(Not(HasSubstr(secret))));
    }
}

TEST_F(APlatform, KnowsWhetherThereIsADefaultGateway)
{
    bool exists = false;
    arrange::gateway(true);
    EXPECT_EQ(connection_profile_check_default_gateway(&exists), 0);
    EXPECT_TRUE(exists);
    arrange::gateway(false);
    EXPECT_EQ(connection_profile_check_default_gateway(&exists), 0);
    EXPECT_FALSE(exists);
}

TEST_F(APlatform, SaysWhyTheGatewayCannotBeAskedFor)
{
    for (const bool before : {false, true}) {
        bool exists = before;
        arrange::gatewayFails(5);
        EXPECT_EQ(connection_profile_check_default_gateway(&exists), 5);
        EXPECT_EQ(exists, before);
    }
}

TEST_F(APlatform, ReportsNoChangeOfANetworkThatStaysAsItIs)
{
    EXPECT_FALSE(connection_profile_has_changed());
    EXPECT_FALSE(connection_profile_has_changed());
}

class ADeployment : public APlatform {
protected:
    static std::optional<std::string> host(deployment_host_e which)
    {
        return taken(deployment_get_host(which));
    }
};

TEST_F(ADeployment, GivesTheTwoHosts)
{
    for (const std::string name :
         {"a", "billing.example", "b-1.example:8443", "127.0.0.1:1", "host.example:65535"}) {
        arrange::host(DEPLOYMENT_HOST_PRODUCTION, name);
        arrange::host(DEPLOYMENT_HOST_SANDBOX, "sandbox-of-" + name);
        EXPECT_EQ(host(DEPLOYMENT_HOST_PRODUCTION), name);
        EXPECT_EQ(host(DEPLOYMENT_HOST_SANDBOX), "sandbox-of-" + name);
    }
    EXPECT_THAT(arrange::errors(), IsEmpty());
}

TEST_F(ADeployment, GivesAndLogsNoHostThatIsNotSet)
{
    arrange::host(DEPLOYMENT_HOST_PRODUCTION, "billing.example");
    EXPECT_EQ(host(DEPLOYMENT_HOST_SANDBOX), std::nullopt);
    EXPECT_THAT(arrange::errors(), Contains(HasSubstr("sandbox_host is not set")));
}

TEST_F(ADeployment, RefusesAndLogsWhatIsNotABareHost)
{
    for (const std::string name : {"https://a", "a/b",  "user@a", "a b",     "a?x",
                                   "a#x",       "a:",   "a:0",    "a:65536", "a:1:2",
                                   "a:x",       ":80",  "-a",     "a..b",    ".a",
                                   "[::1]",     "a\\b", "a%20b",  "a:080",   "h\xc3\xb6st"}) {
        arrange::bareDevice();
        arrange::host(DEPLOYMENT_HOST_PRODUCTION, name);
        EXPECT_EQ(host(DEPLOYMENT_HOST_PRODUCTION), std::nullopt) << name;
        EXPECT_THAT(arrange::errors(), Contains(HasSubstr("production_host is not a bare host")))
            << name;
    }
}

TEST_F(ADeployment, GivesTheCredentialAndTheKeysNumber)
{
    const std::uint32_t wanted[5] = {1, 2, 0xffffffff, 0, 4294967295};
    std::uint32_t words[5] = {};
    std::int32_t id = 0;
    arrange::credential("1 2 0xffffffff 0 4294967295", "-7");
    EXPECT_EQ(deployment_get_credential(words), 0);
    EXPECT_THAT(words, testing::ElementsAreArray(wanted));
    EXPECT_EQ(deployment_get_key_id(&id), 0);
    EXPECT_EQ(id, -7);
}

TEST_F(ADeployment, TakesNothingElseForACredential)
{
    for (const char* const text :
         {"", "1", "1 2 3 4", "1 2 3 4 5 6", "1 2 3 4 x", "1 2 3 4 5x", "1 2 3 4 -5", "1 2 3 4 +5",
          "1 2 3 4 4294967296", "1 2 3 4 0x100000000", "1 2 3 4 5.0", "1 2 3 4 0x"}) {
        std::uint32_t words[5] = {9, 9, 9, 9, 9};
        arrange::credential(text, "1");
        EXPECT_NE(deployment_get_credential(words), 0) << text;
        EXPECT_THAT(words, Each(9u)) << text;
    }
    for (const char* const text : {"", "0", "1x", "x", "2147483648", "1 2", "0x1"}) {
        std::int32_t id = 9;
        arrange::credential("1 2 3 4 5", text);
        EXPECT_NE(deployment_get_key_id(&id), 0) << text;
        EXPECT_EQ(id, 9) << text;
    }
}

TEST_F(APlatform, GivesTheZonesOffsetsInSeconds)
{
    int utc = 99;
    int daylight = 99;
    arrange::zoneWithDaylightSaving();
    EXPECT_EQ(mz_gettimezone(&utc, &daylight, nullptr), 0);
    EXPECT_EQ(utc, 3600);
    EXPECT_EQ(daylight, 3600);
    arrange::zoneWithoutDaylightSaving();
    EXPECT_EQ(mz_gettimezone(&utc, &daylight, nullptr), 0);
    EXPECT_EQ(utc, 19800);
    EXPECT_EQ(daylight, 0);
}

TEST_F(APlatform, GivesNoOffsetsWhenTheZoneCannotBeRead)
{
    int utc = 98;
    int daylight = 99;
    arrange::zoneThatCannotBeRead();
    EXPECT_EQ(mz_gettimezone(&utc, &daylight, nullptr), -1);
    EXPECT_EQ(utc, 98);
    EXPECT_EQ(daylight, 99);
}

TEST_F(APlatform, LogsARecordAndCountsItsBytes)
{
    EXPECT_GE(__dlog_print(DLOG_ERROR, "TAG", "a %s %d", "text", 7), 8);
    EXPECT_THAT(arrange::texts(), Contains(HasSubstr("a ")));
    EXPECT_THAT(arrange::texts(), Contains(HasSubstr(" 7")));
}

TEST_F(APlatform, LogsOnBehalfOfACallerOrOfNobody)
{
    const std::string longest(255, 'x');
    for (const char* const caller :
         {":1.42", longest.c_str(), "", static_cast<const char*>(nullptr)}) {
        log_set_caller(caller);
        EXPECT_GT(__dlog_print(DLOG_ERROR, "TAG", "for a caller"), 0);
    }
    EXPECT_THAT(arrange::texts(), Contains(HasSubstr("for a caller")).Times(4));
}

TEST_F(APlatform, SaysWhetherItShowsPrivateValues)
{
    for (const log_priority priority : {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR}) {
        const int shows = log_shows_private(priority);
        EXPECT_TRUE(shows == 0 || shows == 1) << priority;
        EXPECT_LE(shows, log_shows_private(DLOG_ERROR)) << "what is graver is not hidden alone";
    }
}

TEST_F(APlatform, LogsANullTextAsNull)
{
    const char* volatile text = nullptr;
    EXPECT_GT(__dlog_print(DLOG_ERROR, "TAG", "a %s b", text), 0);
    EXPECT_THAT(arrange::texts(), Contains(HasSubstr("a (null) b")));
}

}  // namespace
