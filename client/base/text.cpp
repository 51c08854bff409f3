// text.cpp - makes texts safe to show, and indents JSON.
#include "text.h"

#include <glib.h>
#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace client {

namespace {

bool isPlain(gunichar character, bool lines)
{
    if (lines && (character == '\n' || character == '\t')) {
        return true;
    }
    switch (g_unichar_type(character)) {
        case G_UNICODE_CONTROL:
        case G_UNICODE_FORMAT:  // among others the marks of the writing direction
        case G_UNICODE_SURROGATE:
        case G_UNICODE_LINE_SEPARATOR:
        case G_UNICODE_PARAGRAPH_SEPARATOR:
            return false;
        default:
            return true;
    }
}

std::string escaped(const char* format, unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string lineOf(std::size_t depth)
{
    return "\n" + std::string(2 * depth, ' ');
}

/// @param at place of a quote that begins a JSON text
/// @return the place behind its closing quote
std::size_t endOfText(const std::string& json, std::size_t at)
{
    for (++at; at < json.size() && json[at] != '"'; ++at) {
        at += json[at] == '\\' ? 1 : 0;
    }
    return at + 1;
}

/// @return whether only blanks stand between this bracket and the closing one
bool isEmpty(const std::string& json, std::size_t at)
{
    const char next = json[json.find_first_not_of(" \t\r\n", at + 1)];
    return next == '}' || next == ']';
}

}  // namespace

std::string shown(const std::string& text, bool lines)
{
    std::string result;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at < end) {
        const gunichar character = g_utf8_get_char_validated(at, end - at);
        if (character >= 0x110000 || character == 0) {  // not UTF-8, or NUL
            result += escaped("\\x%02x", static_cast<unsigned char>(*at));
            ++at;
            continue;
        }
        const char* const next = g_utf8_next_char(at);
        if (isPlain(character, lines)) {
            result.append(at, next);
        } else {
            result += escaped(character < 0x80 ? "\\x%02x" : "\\u{%x}", character);
        }
        at = next;
    }
    return result;
}

bool isJson(const std::string& text)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    } catch (const Json::Exception&) {
        return false;  // too many nested levels
    }
}

std::string indented(const std::string& json)
{
    std::string result;
    std::size_t depth = 0;
    for (std::size_t at = 0; at < json.size(); ++at) {
        const char character = json[at];
        switch (character) {
            case '"': {
                const std::size_t end = endOfText(json, at);
                result.append(json, at, end - at);
                at = end - 1;
                break;
            }
            case '{':
            case '[':
                result += character;
                at = isEmpty(json, at) ? json.find_first_of("}]", at) : at;
                result += json[at] == character ? lineOf(++depth) : std::string(1, json[at]);
                break;
            case '}':
            case ']':
                result += lineOf(--depth) + character;
                break;
            case ',':
                result += "," + lineOf(depth);
                break;
            case ':':
                result += ": ";
                break;
            case ' ':
            case '\t':
            case '\r':
            case '\n':
                break;
            default:
                result += character;
        }
    }
    return result;
}

Style Style::of(int descriptor)
{
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return Style(isatty(descriptor) != 0 && (refused == nullptr || *refused == '\0') &&
                 terminal != nullptr && *terminal != '\0' && std::strcmp(terminal, "dumb") != 0);
}

std::string Style::paint(const char* code, const std::string& text) const
{
    return m_colours ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
}

}  // namespace client
