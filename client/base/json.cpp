// json.cpp - writes JSON on one line.
#include "json.h"

#include "text.h"

#include <unistd.h>

#include <cstdio>

namespace client {

std::string lineOf(const Json::Value& value, bool ascii)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = !ascii;
    builder["precision"] = 6;
    return Json::writeString(builder, value);
}

void printLine(const Json::Value& value)
{
    std::string line = lineOf(value, false);
    // On a terminal such texts are written as escapes, with the same value: JSON allows C1 controls and marks of the
    // writing direction unescaped.
    if (isatty(STDOUT_FILENO) != 0 && shown(line, false) != line) {
        line = lineOf(value, true);
    }
    std::fputs((line + "\n").c_str(), stdout);
}

}  // namespace client
