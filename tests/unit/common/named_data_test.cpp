// named_data_test.cpp - CBillingSecureStorageUtil: reading, writing and deleting data by name.
#include "secure_storage_fixture.h"

#include <string>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class NamedData : public SecureStorage {};

TEST_F(NamedData, IsReadAtItsFullLengthWithTheZeroBytesInIt)
{
    const std::string strStored("a\0b", 3);
    fake::platform().data("name", strStored);
    std::string strData = "old";

    EXPECT_TRUE(m_poUtil->SecureRead("name", strData));

    EXPECT_EQ(strData, strStored);
    EXPECT_THAT(LoggedLines(), ElementsAre(UTIL.info("SecureRead",
                                                     "strData[a] strData size[3] "
                                                     "uiDataSize[3]!")));
}

TEST_F(NamedData, ThatDoesNotExistIsNotReadAndTheErrorNumberIsLogged)
{
    std::string strData = "old";

    EXPECT_FALSE(m_poUtil->SecureRead("name", strData));

    EXPECT_EQ(strData, "old");
    EXPECT_THAT(LoggedLines(), ElementsAre(UTIL.error("SecureRead",
                                                      "ss_read error,data name[name] "
                                                      "error num[2]!")));
}

TEST_F(NamedData, LeavesTheTextAloneWhenTheStoreHandsOutNoBuffer)
{
    fake::platform().readGivesNoBuffer(true);
    std::string strData = "old";

    EXPECT_TRUE(m_poUtil->SecureRead("name", strData));

    EXPECT_EQ(strData, "old");
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

// Names of the store end at a NUL, so the rest of such a name would be lost.
TEST_F(NamedData, IsRefusedUnderANameWithANulAndTheShorterNameIsLeftAlone)
{
    const std::string strName("name\0x", 6);
    fake::platform().data("name", "stays");
    std::string strData = "old";

    EXPECT_FALSE(m_poUtil->SecureRead(strName, strData));
    EXPECT_FALSE(m_poUtil->SecureWrite(strName, "new"));
    EXPECT_FALSE(m_poUtil->SecureClear(strName));

    EXPECT_EQ(strData, "old");
    EXPECT_EQ(fake::platform().data("name"), "stays");
    EXPECT_THAT(Timeline(), ElementsAre(UTIL.refused("SecureRead", "HoldsNul(strName)"),
                                        UTIL.refused("SecureWrite", "HoldsNul(strName)"),
                                        UTIL.refused("SecureClear", "HoldsNul(strName)")));
}

TEST_F(NamedData, OfNoBytesIsReadAsAnEmptyText)
{
    fake::platform().data("name", "");
    std::string strData = "old";

    EXPECT_TRUE(m_poUtil->SecureRead("name", strData));

    EXPECT_EQ(strData, "");
    EXPECT_EQ(LoggedLines().back(),
              UTIL.info("SecureRead", "strData[] strData size[0] uiDataSize[0]!"));
}

TEST_F(NamedData, IsClearedBeforeItIsWritten)
{
    fake::platform().data("name", "old");

    EXPECT_TRUE(m_poUtil->SecureWrite("name", std::string("a\0b", 3)));

    EXPECT_THAT(fake::platform().calls(), ElementsAre("ss_delete name", "ss_write name"));
    EXPECT_EQ(fake::platform().data("name"), std::string("a\0b", 3));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(NamedData, IsWrittenAlsoWhereThereWasNone)
{
    EXPECT_TRUE(m_poUtil->SecureWrite("name", "new"));

    EXPECT_EQ(fake::platform().data("name"), "new");
    EXPECT_THAT(LoggedLines(), ElementsAre(UTIL.error("SecureClear",
                                                      "ss_delete data name[name] "
                                                      "error num[2]!")));
}

TEST_F(NamedData, MayBeWrittenEmptyAndReplacesWhatWasThere)
{
    fake::platform().data("name", "old");

    EXPECT_TRUE(m_poUtil->SecureWrite("name", ""));

    EXPECT_THAT(fake::platform().calls(), ElementsAre("ss_delete name", "ss_write name"));
    EXPECT_EQ(fake::platform().data("name"), "");
}

TEST_F(NamedData, IsGoneWhenItCouldNotBeWritten)
{
    fake::platform().data("name", "old");
    fake::platform().fails("ss_write", 4);

    EXPECT_FALSE(m_poUtil->SecureWrite("name", "new"));

    EXPECT_EQ(fake::platform().data("name"), std::nullopt);
    EXPECT_THAT(LoggedLines(), ElementsAre(UTIL.error("SecureWrite",
                                                      "ss_write data name[name] "
                                                      "error num[4]!")));
}

// Every number except 0 is an error.
TEST_F(NamedData, ReportsErrorsOfEitherSign)
{
    for (const int iError : {1, -1}) {
        const std::string strError = " data name[name] error num[" + std::to_string(iError) + "]!";
        fake::platform().fails("ss_read", iError);
        fake::platform().fails("ss_write", iError);
        fake::platform().fails("ss_delete", iError);
        fake::platform().clearTimeline();
        std::string strData = "old";

        EXPECT_FALSE(m_poUtil->SecureRead("name", strData));
        EXPECT_FALSE(m_poUtil->SecureWrite("name", "new"));

        EXPECT_EQ(strData, "old");
        EXPECT_THAT(
            Timeline(),
            ElementsAre(Asked("ss_read name"),
                        UTIL.error("SecureRead", "ss_read error,data name[name] error num[" +
                                                     std::to_string(iError) + "]!"),
                        Asked("ss_delete name"), UTIL.error("SecureClear", "ss_delete" + strError),
                        Asked("ss_write name"), UTIL.error("SecureWrite", "ss_write" + strError)));
    }
}

TEST_F(NamedData, IsDeleted)
{
    fake::platform().data("name", "old");

    EXPECT_TRUE(m_poUtil->SecureClear("name"));

    EXPECT_EQ(fake::platform().data("name"), std::nullopt);
    EXPECT_THAT(LoggedLines(), IsEmpty());
    EXPECT_FALSE(m_poUtil->SecureClear("name"));
    EXPECT_THAT(LoggedLines(), ElementsAre(UTIL.error("SecureClear",
                                                      "ss_delete data name[name] "
                                                      "error num[2]!")));
}

TEST_F(NamedData, IsAskedForWithTheServicesIdentityAndFlags33)
{
    std::string strData;
    m_poUtil->SecureWrite("name", "new");
    m_poUtil->SecureRead("name", strData);

    const auto calls = fake::platform().secureCalls();
    ASSERT_EQ(calls.size(), 3u);
    for (const fake::SecureCall& call : calls) {
        EXPECT_THAT(call.credential.words, ElementsAre(1, 2, 3, 4, 5)) << call.function;
        EXPECT_EQ(call.credential.kind, 1u);
        EXPECT_EQ(call.credential.reserved, 0u);
        EXPECT_EQ(call.flags, 33) << call.function;
        EXPECT_TRUE(call.restIsZero) << call.function;
    }
}

}  // namespace
