// json.h - JSON in one line, for programs that read the output.
#pragma once

#include <json/json.h>

#include <string>

namespace client {

/// The value in one line, its members sorted by name. @param ascii every other character escaped
std::string lineOf(const Json::Value& value, bool ascii);

/// Prints it on standard output. On a terminal nothing in it can steer the terminal.
void printLine(const Json::Value& value);

}  // namespace client
