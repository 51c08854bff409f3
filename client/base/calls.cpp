// calls.cpp - one call and its answer.
#include "calls.h"

#include "json.h"
#include "text.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

constexpr int kResultTransferFailed = -1;
constexpr int kResultRefused = 1160003;

// Only application and invoice are required; any other argument is the empty text when it is not given.
constexpr Argument kAppId{"appid", "--appid", "Application whose products or purchases these are",
                          true};
constexpr Argument kServerType{"serverType", "--server-type",
                               "Not used: the device's settings choose the server", false};
constexpr Argument kCheckValue{"CheckValue", "--check-value", "Check value, sent unchanged", false};
constexpr Argument kCustomId{"customId", "--custom-id", "Customer of the application", false};
constexpr Argument kItemType{"ItemType", "--item-type", "Not used", false};
constexpr Argument kPageNumber{"PageNumber", "--page-number",
                               "Not used: the answer is always the first page of 20", false};
constexpr Argument kInvoiceId{"invoiceid", "--invoiceid", "Invoice of the purchase", true};

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
         {kAppId, kServerType, kCheckValue}},
        {"get_purchase_history",
         "get-purchase-history",
         "Show the newest purchases of the signed-in account",
         {kAppId, kCustomId, kItemType, kPageNumber, kCheckValue, kServerType}},
        {"get_applied_time",
         "get-applied-time",
         "Ask when a purchase was applied",
         {kAppId, kCustomId, kInvoiceId, kServerType}},
        {"confirm_purchase",
         "confirm-purchase",
         "Confirm a purchase",
         {kAppId, kCustomId, kInvoiceId, kServerType}},
        {"check_server_availability",
         "check-server-availability",
         "Ask whether the store is available in the device's country",
         {}},
    };
    return list;
}

const char* meaningOf(int result)
{
    switch (result) {
        case 0:
            return "the server answered";
        case kResultTransferFailed:
            return "the transfer failed; billingctl doctor looks for the cause";
        case kResultRefused:
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
        case kResultTransferFailed:
            return EXIT_TRANSFER;
        case kResultRefused:
            return EXIT_REFUSED;
        default:
            return EXIT_FAILED;
    }
}

void printFailure(const std::string& what, const std::string& cause, const std::string& cure,
                  bool json)
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
        answer = Bus(options.bus, std::min(options.timeout, kBusTimeout))
                     .call(method.name, arguments, options.timeout);
    } catch (const Unreachable& error) {
        printFailure(method.name, error.what(), error.cure(), options.json);
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
