// settings.cpp - the settings file of the Linux backend. Whatever the file contains, the service gets only
// valid values, and messages about invalid ones do not contain the value.
#include "fuzz.h"
#include "linux/settings/settings_file.h"
#include "linux/settings/settings_known.h"

#include <glib.h>

#include <algorithm>

namespace {

bool isClean(const std::string& strText)
{
    return std::none_of(strText.begin(), strText.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < ' ' || byte == 0x7f;
    });
}

// Appends a secret with an invalid byte to the contents; no message may contain it.
void saysNoRefusedValue(settings::Contents contents)
{
    const std::string strSecret = "canary-7f3a";
    if (contents.bytes.find(strSecret) != std::string::npos) {
        return;  // as the name of a key it may be printed
    }
    contents.bytes += "\n[config]\ndb/comss/atoken=" + strSecret + "\x01\n";
    const settings::Values values = settings::parse("/device.conf", contents);
    FUZZ_REQUIRE(!values.usable || values.refused.count({"config", "db/comss/atoken"}) == 1);
    for (const std::string& strProblem : values.problems) {
        FUZZ_REQUIRE(strProblem.find(strSecret) == std::string::npos);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    settings::Contents contents;
    contents.bytes = fuzz::text(data, size);

    const settings::Values values = settings::parse("/device.conf", contents);

    FUZZ_REQUIRE(values.usable || values.texts.empty());
    FUZZ_REQUIRE(values.usable || !values.problems.empty());
    for (const auto& [name, strValue] : values.texts) {
        const auto eKind = settings::kindOf(name.first, name.second).value_or(settings::Kind::Text);
        FUZZ_REQUIRE(settings::faultIn(eKind, strValue).empty());
        FUZZ_REQUIRE(isClean(strValue));
        FUZZ_REQUIRE(
            g_utf8_validate(strValue.data(), static_cast<gssize>(strValue.size()), nullptr));
        FUZZ_REQUIRE(values.refused.count(name) == 0);
        FUZZ_REQUIRE(contents.bytes.find(strValue) != std::string::npos);
    }
    for (const std::string& strProblem : values.problems) {
        FUZZ_REQUIRE(strProblem.rfind("/device.conf: ", 0) == 0);
    }
    saysNoRefusedValue(contents);
    return 0;
}
