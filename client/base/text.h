// text.h - texts from outside on a terminal: they cannot move its cursor, change colours or reorder the line.
#pragma once

#include <string>

namespace client {

/// Writes dangerous characters as "\x1b" or "\u{202e}": control characters, bytes that are not UTF-8, and marks of the
/// writing direction.
/// @param lines true: line feeds and tabs stay
std::string shown(const std::string& text, bool lines);

/// @return whether the text is one whole JSON document
bool isJson(const std::string& text);

/// Puts the members of a JSON document on indented lines. Numbers and texts are not rewritten.
/// @param json isJson() is true for it
std::string indented(const std::string& json);

/// Colours. Used on a terminal that has them (TERM is neither empty nor dumb), unless NO_COLOR is in the environment.
class Style {
public:
    explicit Style(bool colours) : m_colours(colours) {}
    /// @param descriptor destination of the text
    static Style of(int descriptor);

    std::string good(const std::string& text) const { return paint("32", text); }
    std::string bad(const std::string& text) const { return paint("31", text); }
    std::string odd(const std::string& text) const { return paint("33", text); }
    std::string faint(const std::string& text) const { return paint("2", text); }

private:
    std::string paint(const char* code, const std::string& text) const;

    bool m_colours;
};

}  // namespace client
