// json.h - writes JSON on one line, for programs that read the output.
#pragma once

#include <json/json.h>

#include <string>

namespace client {

/// @param ascii true: escapes every character outside ASCII
/// @return the value on one line, its members sorted by name
std::string lineOf(const Json::Value& value, bool ascii);

/// Prints the value on standard output. On a terminal it contains no control characters.
void printLine(const Json::Value& value);

}  // namespace client
