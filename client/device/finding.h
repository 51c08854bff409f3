// finding.h - one check of the doctor and its result.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace client {

enum class Outcome {
    Ok,
    Warning,  ///< it works, but needs attention
    Failed,
    NotChecked,
};

struct Finding {
    std::string check;
    Outcome outcome;
    std::string reason;  ///< second half of the id: "expired" in "ca-bundle.expired"
    std::string text;    ///< the result, the cause of a failure, or why it was not checked
    std::string cure;    ///< for a warning or a failure: what to do
};
using Findings = std::vector<Finding>;

Finding good(const std::string& check, const std::string& text);
Finding notChecked(const std::string& check, const std::string& why);
Finding failed(const std::string& check, const std::string& reason, const std::string& cause,
               const std::string& cure);
Finding warning(const std::string& check, const std::string& reason, const std::string& cause,
                const std::string& cure);

/// @return the stable id of a result, such as "ca-bundle.expired"
std::string idOf(const Finding& finding);
/// "ok", "warning", "failed" or "not checked".
const char* nameOf(Outcome outcome);
Json::Value valueOf(const Finding& finding);

}  // namespace client
