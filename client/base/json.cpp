// json.cpp - JSON in one line.
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
    // The same value in other letters, for the few texts that need it: JSON may leave C1 controls
    // and the marks that change the direction of writing as they are.
    if (isatty(STDOUT_FILENO) != 0 && shown(line, false) != line) {
        line = lineOf(value, true);
    }
    std::fputs((line + "\n").c_str(), stdout);
}

}  // namespace client
