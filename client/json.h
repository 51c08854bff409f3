// json.h - JSON in one line, for programs that read the output.
#pragma once

#include <json/json.h>

#include <string>

namespace client {

/// The value in one line of UTF-8, its members sorted by name.
inline std::string lineOf(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["precision"] = 6;
    return Json::writeString(builder, value);
}

}  // namespace client
