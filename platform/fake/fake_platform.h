// fake_platform.h - the scriptable backend for unit tests: what the platform answers, what it was
// asked, what was logged.
#pragma once

#include <platform/deployment.h>
#include <platform/log.h>

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace fake {

/// One log record, taken apart. The text keeps its colour codes and its trailing line break.
struct LogRecord {
    log_priority ePriority = DLOG_DEBUG;
    std::string strTag;
    std::string
        strFile;  ///< empty when the message does not have the "<file>: <function>(<line>) > " form
    std::string strFunction;
    int iLine = 0;
    std::string strText;
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

/// Thread: any for all of it.
class Platform {
public:
    /// Back to a device that works: gateway up, hosts "production.example" and "sandbox.example",
    /// db/comss/atoken "atoken-1", hwduid "duid-1", countrycode "US", modelid "model-1",
    /// memory/menu/network/set_time "1", language "en_US.utf8", server type 1, guid "guid-1",
    /// authToken "auth-token-1", loginId "uid-1", time zone (3600, 0). Log and calls empty, no
    /// observer.
    void reset();

    // What the platform answers from now on; nullopt makes the read fail. The promises of the
    // platform headers hold here too: an empty text counts as not set, one that holds a control
    // character or a host that is not bare is refused.
    void config(const std::string& key, std::optional<std::string> value);
    void language(std::optional<std::string> value);
    void serverType(std::optional<int> value);
    void guid(std::optional<std::string> value);
    void authToken(std::optional<std::string> value);
    void loginId(std::optional<std::string>
                     value);  ///< up to 256 bytes: 256 leave no room for the terminator
    void timeZone(std::optional<std::pair<int, int>> utcoffAndDstoff);
    void gateway(bool exists);
    void gatewayFails(int code);
    void host(deployment_host_e which, std::optional<std::string> value);

    /// Called with each record as it is logged, on the thread that logs. Null for none.
    void onLog(std::function<void(const LogRecord&)> observer);

    std::vector<LogRecord> log() const;
    void clearLog();
    /// The platform functions called so far, in order, each as its name and, where it has one, its
    /// key: "vconf_get_str db/comss/atoken". The log is not among them.
    std::vector<std::string> calls() const;
    void clearCalls();
};

/// The one platform of the process.
Platform& platform();

}  // namespace fake
