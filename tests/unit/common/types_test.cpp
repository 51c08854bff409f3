// types_test.cpp - the records of requests and results: order of members, defaults, copies; and the order of
// virtual functions that other code may rely on.
#include "BillingHttpConnector.h"
#include "BillingTaskBase.h"
#include "BillingTypes.h"
#include "DBusManager.h"
#include "item_members.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

using ::testing::ElementsAre;

namespace {

static_assert(REQUEST_TYPE_PURCHASE_HISTORY == 5 && REQUEST_TYPE_GET_PRODUCTS == 6 &&
              REQUEST_TYPE_GET_APPLIED_TIME == 7 && REQUEST_TYPE_CONFIRM_PURCHASE == 8 &&
              REQUEST_TYPE_CHECK_SERVER_AVAILABILITY == 9);
static_assert(sizeof(REQUEST_TYPE) == 4 && std::is_signed_v<std::underlying_type_t<REQUEST_TYPE>>);
static_assert(BILLING_RESULT_SUCCESS == 0 && BILLING_RESULT_HTTP_ERROR == -1 &&
              BILLING_RESULT_ENGINE_REFUSED == 1160003);
static_assert(!std::is_polymorphic_v<CBillingItem> &&
              !std::is_polymorphic_v<BILLING_RETURN_INFO_T>);
static_assert(std::has_virtual_destructor_v<CDBusManager> &&
              std::has_virtual_destructor_v<CHttpConnector>);
static_assert(!std::is_polymorphic_v<CBillingEngine>);
static_assert(std::is_base_of_v<CBillingThreadBase, CHttpConnector>);

TEST(AnItem, HasItsTwentyMembersInTheirOrderAndNoOthers)
{
    const CBillingItem oItem;
    for (std::size_t i = 0; i < ITEM_MEMBERS.size(); ++i) {
        EXPECT_EQ(reinterpret_cast<const char*>(&(oItem.*ITEM_MEMBERS[i])) -
                      reinterpret_cast<const char*>(&oItem),
                  static_cast<std::ptrdiff_t>(i * sizeof(std::string)))
            << "member " << i + 1;
    }
    EXPECT_EQ(sizeof oItem, 20 * sizeof(std::string));
    EXPECT_TRUE(FilledMembers(oItem).empty()) << "a fresh one is empty";
}

TEST(AnItem, IsCopiedWithAllItsMembers)
{
    const CBillingItem oItem = FullItem();
    const CBillingItem oCopy(oItem);  // NOLINT(performance-unnecessary-copy-initialization)
    CBillingItem oAssigned;
    oAssigned = oItem;

    EXPECT_EQ(FilledMembers(oCopy).size(), 20u);
    EXPECT_EQ(FilledMembers(oCopy), FilledMembers(oItem));
    EXPECT_EQ(FilledMembers(oAssigned), FilledMembers(oItem));
}

template <typename Record, typename... Members>
std::vector<std::ptrdiff_t> OffsetsOf(const Record& tRecord, Members Record::*... members)
{
    return {(reinterpret_cast<const char*>(&(tRecord.*members)) -
             reinterpret_cast<const char*>(&tRecord))...};
}

TEST(AResult, HasItsTwelveFieldsInTheirOrderAndBeginsEmpty)
{
    using R = BILLING_RETURN_INFO_T;
    const R tInfo;
    const auto offsets = OffsetsOf(tInfo, &R::eReqType, &R::strSpare1, &R::iSpare1, &R::iSpare2,
                                   &R::strSpare2, &R::strSpare3, &R::strSpare4, &R::strSpare5,
                                   &R::strSpare6, &R::strRespInfo, &R::pUser, &R::iRespResult);

    EXPECT_EQ(offsets.front(), 0);
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
    EXPECT_EQ(tInfo.eReqType, 0);
    EXPECT_EQ(tInfo.iSpare1, 0);
    EXPECT_EQ(tInfo.iSpare2, 0);
    EXPECT_EQ(tInfo.iRespResult, 0);
    EXPECT_EQ(tInfo.pUser, nullptr);
    EXPECT_EQ(tInfo.strSpare1 + tInfo.strSpare2 + tInfo.strSpare3 + tInfo.strSpare4 +
                  tInfo.strSpare5 + tInfo.strSpare6 + tInfo.strRespInfo,
              "");
}

TEST(ARequestsContext, HasItsThreeFieldsInTheirOrder)
{
    using C = EngineRequestContext;
    const C tContext{};
    EXPECT_THAT(OffsetsOf(tContext, &C::pOwner, &C::pUser, &C::bReserved),
                ElementsAre(0, sizeof(void*), 2 * sizeof(void*)));
    EXPECT_EQ(tContext.pOwner, nullptr);
    EXPECT_EQ(tContext.pUser, nullptr);
    EXPECT_FALSE(tContext.bReserved);
}

TEST(ARequestsDescription, HasItsFieldsInTheirOrder)
{
    using R = _BILLING_HTTP_REQ_INFO_T;
    const R tInfo;
    const auto offsets =
        OffsetsOf(tInfo, &R::bOptionsSet, &R::bSSL, &R::bReserved1, &R::bReserved2, &R::iReserved1,
                  &R::iReserved2, &R::iReserved3, &R::strReserved, &R::eMethod, &R::strUrl,
                  &R::lstReserved, &R::strHeader, &R::strBody, &R::pfnCallback, &R::pReserved,
                  &R::pUserData, &R::strResponse, &R::llReserved);

    EXPECT_EQ(offsets.front(), 0);
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
}

// In the C++ ABI of GCC and clang a pointer to a virtual member function holds the offset of its slot in
// bytes plus one. On ARM the one is in the adjustment field instead.
template <typename Member>
std::ptrdiff_t SlotOf(Member pfnMember)
{
    struct {
        std::ptrdiff_t iPlace;
        std::ptrdiff_t iAdjustment;
    } tPointer{};
    static_assert(sizeof pfnMember == sizeof tPointer);
    std::memcpy(&tPointer, &pfnMember, sizeof tPointer);
    return tPointer.iPlace / static_cast<std::ptrdiff_t>(sizeof(void*));
}

// The destructor occupies the first two slots.
TEST(TheVirtualOperations, StandInTheirOrder)
{
    EXPECT_EQ(SlotOf(&CBillingMainLoop::Destory), 2);
    EXPECT_EQ(SlotOf(&CBillingThreadBase::Destroy), 2);
    EXPECT_EQ(SlotOf(&CBillingThreadBase::t_Main), 3);
    EXPECT_EQ(SlotOf(&CBillingTaskBase::Destroy), 2);
    EXPECT_EQ(SlotOf(&CBillingTaskBase::t_Main), 3);
    EXPECT_EQ(SlotOf(&CBillingTaskBase::t_OnEvent), 4);
    EXPECT_EQ(SlotOf(&CBillingTaskBase::t_Create), 5);
    EXPECT_EQ(SlotOf(&CBillingTaskBase::t_Destroy), 6);
}

}  // namespace
