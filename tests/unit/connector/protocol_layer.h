// protocol_layer.h - fixture for CBillingHttpRequest: a double of the connector and a device with known
// values.
#pragma once

#include "BillingHttpRequest.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

/// One request as the connector's double received it.
struct Submitted {
    std::string strOperation;  ///< Get or Post
    _BILLING_HTTP_REQ_INFO_T tReqInfo;
    bool bSync;
    std::size_t lines;  ///< number of lines logged before the request
};

/// Double of the connector: keeps its arguments and answers as the test sets.
struct ConnectorDouble {
    bool bAccepts = true;
    std::vector<Submitted> submitted;
    std::vector<std::size_t> constructedAfter;  ///< platform calls before each construction
};

/// A device with DUID D1, token T1, UID u, GUID g, country US, language en, and an item with a text in each
/// member.
class ProtocolLayer : public ::testing::Test {
protected:
    ProtocolLayer();
    ~ProtocolLayer() override;

    bool availability();
    bool products();
    bool history(const std::string& strSize = "20", const std::string& strStart = "1",
                 const std::string& strType = "2");
    bool appHistory();
    bool appliedTime();
    bool confirm();

    /// The requests of CBillingHttpRequest by name.
    struct Operation {
        const char* szName;
        std::function<bool()> start;
    };
    std::vector<Operation> operations();

    /// Takes the one request that reached the connector since the last call. Checks every member except URL,
    /// header and body.
    _BILLING_HTTP_REQ_INFO_T got() { return submitted("Get", 1); }
    _BILLING_HTTP_REQ_INFO_T posted() { return submitted("Post", 2); }

    /// Expects exactly these lines for the one request, all but the last before the connector received it.
    void expectLines(std::initializer_list<std::vector<Line>> parts);

    static void noCallback(bool, std::string&, void*);

    ConnectorDouble m_connector;
    CBillingHttpRequest m_request;
    CBillingItem m_item;
    int m_caller = 0;

private:
    _BILLING_HTTP_REQ_INFO_T submitted(const std::string& strOperation, int iMethod);
};

inline const char* const COMMON_HEADER =
    "Content-Type: application/json; charset=utf-8\r\n"
    "Accept: application/json\r\n"
    "DUID: D1\r\n"
    "Atoken: T1\r\n";

// Platform calls as the fake names them.
inline const char* const SERVER_TYPE = "system_info_get_value_int 126";
inline const char* const SANDBOX = "deployment_get_host 1";
inline const char* const GUID = "sso_get_guid";
inline const char* const UID = "sso_get_login_info";
inline const char* const COUNTRY = "vconf_get_str db/comss/countrycode";
inline const char* const LANGUAGE = "runtime_info_get_value_string 0";
inline const char* const DUID = "vconf_get_str db/comss/hwduid";
inline const char* const ATOKEN = "vconf_get_str db/comss/atoken";

// Lines of Init and of the getters that log, on that device.
inline const LinesOf Source{"BillingHttpRequest.cpp"};
inline const LinesOf Util{"BillingUtil.cpp"};
inline const std::vector<Line> INIT_LINES = {
    Source.debug("Init", "[START] "),
    Util.debug("GetiVantorSerType",
               "+++++++++++++Return value of type[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE] is "
               "[1]!+++++++++++++"),
    Source.debug("Init", "[END] ")};
inline const std::vector<Line> UID_LINES = {Util.info("GetSSOUID", "BillingUtil::GetSSOUID : u")};
inline const std::vector<Line> LANGUAGE_LINES = {
    Util.debug("GetLanguage", "get RUNTIME_INFO_KEY_LANGUAGE(0),value=en_US.utf8"),
    Util.info("GetLanguage", "strLanguage before convert is en_US.utf8"),
    Util.info("GetLanguage", " language after convert is [en]")};
