// log_steps.h - the messages that are steps of a call.
#pragma once

#include <string_view>

namespace logging {

/// @param format the whole format, with or without the origin and the colours
/// @return true for the information records that the level "call" leaves out
bool isStep(std::string_view format);

}  // namespace logging
