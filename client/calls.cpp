// calls.cpp - one call and its answer.
#include "calls.h"

#include "json.h"
#include "text.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

constexpr int RESULT_TRANSFER_FAILED = -1;
constexpr int RESULT_REFUSED = 1160003;

// They reach the server, or the account's device data stand in their place.
constexpr Argument APPID{"appid", "--appid", "Application whose products or purchases these are",
                         true};
constexpr Argument SERVER_TYPE{"serverType", "--server-type",
                               "Carried along; the device decides which server is asked", false};
constexpr Argument CHECK_VALUE{"CheckValue", "--check-value", "Check value, passed on as it is",
                               false};
constexpr Argument CUSTOM_ID{"customId", "--custom-id", "Customer of the application", false};
constexpr Argument ITEM_TYPE{"ItemType", "--item-type", "Carried along, read by nobody", false};
constexpr Argument PAGE_NUMBER{"PageNumber", "--page-number",
                               "Carried along: the first page of 20 is always asked for", false};
constexpr Argument INVOICE_ID{"invoiceid", "--invoiceid", "Invoice of the purchase", true};

void printForPeople(const Method& method, const Answer& answer)
{
    const Style style = Style::of(STDERR_FILENO);
    const std::string result = "resp_result " + std::to_string(answer.result);
    char time[32];
    std::snprintf(time, sizeof time, " (%.1f ms)", answer.milliseconds);
    std::fprintf(stderr, "%s: %s, %s%s\n", method.name,
                 (answer.result == 0 ? style.good(result) : style.bad(result)).c_str(),
                 meaningOf(answer.result), style.faint(time).c_str());
    const std::string body = isJson(answer.info) ? indented(answer.info) : answer.info;
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    if (!body.empty()) {
        std::fprintf(stdout, "%s\n", (terminal ? shown(body, true) : body).c_str());
    }
}

}  // namespace

const std::vector<Method>& methods()
{
    static const std::vector<Method> list = {
        {"get_product_list",
         "get-product-list",
         "List what an application sells",
         {APPID, SERVER_TYPE, CHECK_VALUE}},
        {"get_purchase_history",
         "get-purchase-history",
         "Show the newest purchases of the signed-in account",
         {APPID, CUSTOM_ID, ITEM_TYPE, PAGE_NUMBER, CHECK_VALUE, SERVER_TYPE}},
        {"get_applied_time",
         "get-applied-time",
         "Ask when a purchase was applied",
         {APPID, CUSTOM_ID, INVOICE_ID, SERVER_TYPE}},
        {"confirm_purchase",
         "confirm-purchase",
         "Confirm a purchase",
         {APPID, CUSTOM_ID, INVOICE_ID, SERVER_TYPE}},
        {"check_server_availability",
         "check-server-availability",
         "Ask whether the store is there for the device's country",
         {}},
    };
    return list;
}

const char* meaningOf(int result)
{
    switch (result) {
        case 0:
            return "the server answered";
        case RESULT_TRANSFER_FAILED:
            return "the transfer failed; billingctl doctor looks for the cause";
        case RESULT_REFUSED:
            return "nothing was sent";
        default:
            return "a result that this version does not know";
    }
}

ExitCode exitCodeOf(int result)
{
    switch (result) {
        case 0:
            return EXIT_DONE;
        case RESULT_TRANSFER_FAILED:
            return EXIT_TRANSFER;
        case RESULT_REFUSED:
            return EXIT_REFUSED;
        default:
            return EXIT_FAILED;
    }
}

void report(const std::string& what, const std::string& cause, const std::string& cure, bool json)
{
    if (json) {
        Json::Value value;
        if (!what.empty()) {
            value["method"] = what;
        }
        value["error"]["cause"] = cause;
        value["error"]["cure"] = cure;
        printLine(value);
        return;
    }
    const Style style = Style::of(STDERR_FILENO);
    std::fprintf(stderr, "%s: %s; %s\n", style.bad(what.empty() ? "billingctl" : what).c_str(),
                 shown(cause, false).c_str(), shown(cure, false).c_str());
}

int call(const Method& method, const std::vector<std::string>& arguments,
         const CallOptions& options)
{
    Answer answer;
    try {
        answer = Bus(options.bus, std::min(options.timeout, BUS_TIMEOUT))
                     .call(method.name, arguments, options.timeout);
    } catch (const Unreachable& error) {
        report(method.name, error.what(), error.cure(), options.json);
        return EXIT_UNREACHABLE;
    }
    if (options.json) {
        Json::Value value;
        value["method"] = method.name;
        value["resp_result"] = answer.result;
        value["resp_info"] = answer.info;
        value["milliseconds"] = answer.milliseconds;
        printLine(value);
    } else if (options.raw) {
        std::fwrite(answer.info.data(), 1, answer.info.size(), stdout);
    } else {
        printForPeople(method, answer);
    }
    return exitCodeOf(answer.result);
}

}  // namespace client
