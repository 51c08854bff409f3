// text.h - texts of others on a terminal: nothing in them moves its cursor, colours it or reorders
// it.
#pragma once

#include <string>

namespace client {

/// What is dangerous to show stands as "\x1b" or "\u{202e}": control characters, bytes that are no
/// UTF-8, and the marks that change the direction of writing. @param lines line feeds and tabs stay
std::string shown(const std::string& text, bool lines);

/// Is this a whole JSON document?
bool isJson(const std::string& text);

/// The same document in lines, indented. No value is rewritten: numbers and texts stay as they
/// stand. @param json isJson()
std::string indented(const std::string& json);

/// Colours, where they are wanted: on a terminal that has them (TERM is neither empty nor dumb), and
/// not with NO_COLOR in the environment.
class Style {
public:
    explicit Style(bool colours) : m_colours(colours) {}
    /// @param descriptor where the text goes
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
