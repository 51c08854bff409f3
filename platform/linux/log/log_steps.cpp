// log_steps.cpp - the messages that are steps of a call.
#include "log_steps.h"

#include "log_private.h"

#include <algorithm>
#include <iterator>

namespace logging {

namespace {

#define STEP(format) format,
constexpr std::string_view kSteps[] = {
#include "log_steps.inc"
};
#undef STEP

}  // namespace

bool isStep(std::string_view format)
{
    const std::string_view bare = bareMessage(format);
    return std::find(std::begin(kSteps), std::end(kSteps), bare) != std::end(kSteps);
}

}  // namespace logging
