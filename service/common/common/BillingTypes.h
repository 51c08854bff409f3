// BillingTypes.h - the records that carry a billing request and its result, and the result codes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class CBillingEngine;

/// The parameters of one call. The spare members keep the record's layout; they stay empty.
struct CBillingItem {
    std::string strSpare0;
    std::string strSpare1;
    std::string strSpare2;
    std::string strSpare3;
    std::string strSpare4;
    std::string strCustomId;
    std::string strSpare5;
    std::string strSpare6;
    std::string strSpare7;
    std::string strAppId;
    std::string strServerType;  ///< not used by any request
    std::string strCheckValue;
    std::string strItemType;    ///< not used by any request that a method sends
    std::string strPageNumber;  ///< not used by any request that a method sends
    std::string strSpare8;
    std::string strSpare9;
    std::string strSpare10;
    std::string strInvoiceId;
    std::string strSpare11;
    std::string strSpare12;
};

/// The request that a result belongs to. 0 to 4 are reserved.
enum REQUEST_TYPE : std::int32_t {
    REQUEST_TYPE_PURCHASE_HISTORY = 5,
    REQUEST_TYPE_GET_PRODUCTS = 6,
    REQUEST_TYPE_GET_APPLIED_TIME = 7,
    REQUEST_TYPE_CONFIRM_PURCHASE = 8,
    REQUEST_TYPE_CHECK_SERVER_AVAILABILITY = 9,
};

/// Result codes, the first value of every reply on the bus.
enum BILLING_RESULT : std::int32_t {
    BILLING_RESULT_SUCCESS =
        0,  ///< the server answered, with whatever status; the text is its body
    BILLING_RESULT_HTTP_ERROR = -1,  ///< the transfer failed; the text is what arrived of the body
    BILLING_RESULT_ENGINE_REFUSED = 1160003,  ///< nothing was sent; the text says why
};

/// One result on its way to the caller. Allocated by the writer of the result pipe, deleted by its reader.
struct BILLING_RETURN_INFO_T {
    REQUEST_TYPE eReqType = REQUEST_TYPE(0);  ///< set by the writer of the result pipe
    std::string strSpare1;
    std::int32_t iSpare1 = 0;
    std::int32_t iSpare2 = 0;
    std::string strSpare2;
    std::string strSpare3;
    std::string strSpare4;
    std::string strSpare5;
    std::string strSpare6;
    std::string strRespInfo;
    void* pUser =
        nullptr;  ///< the caller's token, here the bus call to answer; opaque to the engine
    std::int32_t iRespResult = 0;
    std::shared_ptr<void> pCount;  ///< counts a large text while it is in memory (CountBody)
};

/// Called exactly once for each accepted request. Thread: the connector's worker.
/// @param bSuccess true when the exchange completed, with any HTTP status
/// @param strRsp response body, as far as it was received
/// @param pUserData as given with the request; owned by the callee
using ResponseCallback = void (*)(bool bSuccess, std::string& strRsp, void* pUserData);

/// The engine's context of a request. Freed by the response callback; by the engine when the request was
/// not accepted.
struct EngineRequestContext {
    CBillingEngine* pOwner;
    void* pUser;
    bool bReserved;
};
