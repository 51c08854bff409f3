// settings.cpp - the settings file of the Linux backend: whatever stands in it, the service sees only
// values that are what they must be, and hears of what is wrong without the value.
#include "fuzz.h"
#include "settings_file.h"
#include "settings_known.h"

#include <algorithm>

namespace {

bool isClean(const std::string& strText)
{
    return std::none_of(strText.begin(), strText.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < ' ' || byte == 0x7f;
    });
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
        FUZZ_REQUIRE(values.refused.count(name) == 0);
    }
    for (const std::string& strProblem : values.problems) {
        FUZZ_REQUIRE(strProblem.find("/device.conf") != std::string::npos);
    }
    return 0;
}
