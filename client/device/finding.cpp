// finding.cpp - one check of the doctor and its result.
#include "finding.h"

#include <algorithm>
#include <cctype>

namespace client {

Finding good(const std::string& check, const std::string& text)
{
    return {check, Outcome::Ok, "ok", text, ""};
}

Finding notChecked(const std::string& check, const std::string& why)
{
    return {check, Outcome::NotChecked, "not-checked", why, ""};
}

Finding failed(const std::string& check, const std::string& reason, const std::string& cause,
               const std::string& cure)
{
    return {check, Outcome::Failed, reason, cause, cure};
}

Finding warning(const std::string& check, const std::string& reason, const std::string& cause,
                const std::string& cure)
{
    return {check, Outcome::Warning, reason, cause, cure};
}

std::string idOf(const Finding& finding)
{
    std::string id = finding.check;
    std::transform(id.begin(), id.end(), id.begin(), [](unsigned char letter) {
        return letter == ' ' ? '-' : static_cast<char>(std::tolower(letter));
    });
    return id + "." + finding.reason;
}

const char* nameOf(Outcome outcome)
{
    switch (outcome) {
        case Outcome::Ok:
            return "ok";
        case Outcome::Warning:
            return "warning";
        case Outcome::Failed:
            return "failed";
        case Outcome::NotChecked:
            return "not checked";
    }
    return "";
}

Json::Value valueOf(const Finding& finding)
{
    Json::Value value;
    value["check"] = finding.check;
    value["id"] = idOf(finding);
    value["outcome"] = nameOf(finding.outcome);
    value["finding"] = finding.text;
    if (!finding.cure.empty()) {
        value["cure"] = finding.cure;
    }
    return value;
}

}  // namespace client
