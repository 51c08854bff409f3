// settings_check.cpp - finds the mistakes of a settings file.
#include "settings_check.h"

#include "base/calls.h"
#include "base/json.h"
#include "base/text.h"
#include "linux/settings/settings_file.h"
#include "linux/settings/settings_known.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

namespace client {

namespace {

using settings::Kind;
using Name = std::pair<std::string, std::string>;

constexpr const char* kBlanks = " \t\v\f\r";
constexpr const char* kBom = "\xef\xbb\xbf";
constexpr const char* kUtf8 =
    "is UTF-16, and nothing in it is read: write it as UTF-8 (iconv -f UTF-16 -t UTF-8)";
constexpr const char* kMarked =
    "begins with a byte order mark (EF BB BF), which makes its first line unreadable: write it as "
    "UTF-8 without one";

/// Settings without which no call reaches the store.
constexpr std::pair<const char*, const char*> kNeeded[] = {
    {"deployment", "credential"}, {"deployment", "key_id"}, {"keystore", "module"},
    {"keystore", "token"},        {"keystore", "pin_file"},
};

std::string trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool isUtf16(const std::string& bytes)
{
    const std::string mark = bytes.substr(0, 2);
    return mark == "\xff\xfe" || mark == "\xfe\xff" ||
           (bytes.size() > 3 && (bytes[1] == '\0' || bytes[0] == '\0') && bytes[0] != bytes[1]);
}

/// Reads a file line by line.
class Reader {
public:
    void read(const std::string& bytes)
    {
        std::istringstream lines(bytes);
        for (std::string line; std::getline(lines, line);) {
            ++m_line;
            one(trimmed(line));
        }
    }

    std::vector<Mistake> mistakes;
    std::map<Name, std::string> values;

private:
    void add(const std::string& reason, const std::string& text, bool harmless = false)
    {
        mistakes.push_back({m_line, reason, text, harmless});
    }

    void one(const std::string& line)
    {
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#') {
            return;
        }
        if (line[0] == '[' && line.back() == ']' &&
            line.find_first_of("[]", 1) == line.size() - 1 && line.size() > 2) {
            m_group = line.substr(1, line.size() - 2);
            m_known = settings::isKnownGroup(m_group);
            if (!m_known) {
                add("unknown", "[" + m_group + "] is not a known group and is ignored");
            }
        } else if (line[0] == '[' || equals == std::string::npos || equals == 0) {
            add("syntax",
                "is not a [group], a key=value or a # comment; no setting is read until it "
                "is mended");
        } else if (m_group.empty()) {
            add("syntax",
                "a key=value stands before the first [group]; no setting is read until it "
                "is mended");
        } else if (m_known) {
            setting(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
        }
    }

    void setting(const std::string& key, const std::string& value)
    {
        const std::string name = "[" + m_group + "] " + key + " ";
        const auto kind = settings::kindOf(m_group, key);
        if (!kind) {
            add("unknown", name + "is not a known setting and is ignored");
            return;
        }
        const auto [first, isNew] = m_lines.try_emplace({m_group, key}, m_line);
        if (!isNew) {
            add("double",
                name + "stands here once more, first on line " + std::to_string(first->second) +
                    "; the last one counts",
                true);
        }
        const std::string_view fault = settings::faultIn(*kind, value);
        if (!fault.empty()) {
            add("value", name + std::string(fault) + "; it counts as not set until it is mended");
        }
        values[{m_group, key}] = fault.empty() ? value : "";
    }

    std::size_t m_line = 0;
    std::string m_group;
    bool m_known = false;
    std::map<Name, std::size_t> m_lines;
};

/// Adds the service's own error, if the lines show no mistake that explains it.
void addVerdict(const std::string& bytes, std::vector<Mistake>& mistakes)
{
    settings::Contents contents;
    contents.bytes = bytes;
    const settings::Values values = settings::parse("", contents);
    const bool seen = std::any_of(mistakes.begin(), mistakes.end(),
                                  [](const Mistake& one) { return !one.harmless; });
    if (!values.problems.empty() && !seen) {
        mistakes.push_back({0, "syntax", values.problems.front().substr(2), false});
    }
}

bool isSandbox(const std::string& type)
{
    return type.empty() || type == "1" || type == "2";
}

int printMistakes(const std::string& path, const std::vector<Mistake>& mistakes, bool json)
{
    const auto bad = std::count_if(mistakes.begin(), mistakes.end(),
                                   [](const Mistake& one) { return !one.harmless; });
    if (json) {
        Json::Value result;
        result["file"] = path;
        result["mistakes"] = Json::Value(Json::arrayValue);
        for (const Mistake& mistake : mistakes) {
            Json::Value value;
            value["line"] = static_cast<Json::UInt64>(mistake.line);
            value["id"] = "settings." + mistake.reason;
            value["outcome"] = mistake.harmless ? "warning" : "failed";
            value["finding"] = mistake.text;
            result["mistakes"].append(value);
        }
        printLine(result);
    }
    for (const Mistake& mistake : mistakes) {
        if (!json) {
            std::printf("%s: %s\n", shown(path, false).c_str(),
                        shown(mistake.shown(), false).c_str());
        }
    }
    if (mistakes.empty() && !json) {
        std::printf("%s is well-formed and has what the service needs\n",
                    shown(path, false).c_str());
    }
    if (bad > 0) {
        return EXIT_FAILED;
    }
    return mistakes.empty() ? EXIT_DONE : EXIT_WARNING;
}

}  // namespace

std::string Mistake::shown() const
{
    const char* const link = text.rfind("is ", 0) == 0 ? " " : ": ";
    return line == 0 ? text : "line " + std::to_string(line) + link + text;
}

std::vector<Mistake> mistakesIn(const std::string& bytes)
{
    if (isUtf16(bytes)) {
        return {{0, "encoding", kUtf8, false}};
    }
    if (bytes.compare(0, 3, kBom) == 0) {
        Reader reader;
        reader.read(bytes.substr(3));
        reader.mistakes.insert(reader.mistakes.begin(), {1, "encoding", kMarked, false});
        return reader.mistakes;
    }
    Reader reader;
    reader.read(bytes);
    addVerdict(bytes, reader.mistakes);
    return reader.mistakes;
}

std::vector<Mistake> missingIn(const std::string& bytes)
{
    Reader reader;
    reader.read(bytes);
    std::vector<Mistake> missing;
    const auto need = [&](const std::string& group, const std::string& key) {
        if (reader.values[{group, key}].empty()) {
            missing.push_back({0, "not-set", "[" + group + "] " + key + " is not set", false});
        }
    };
    const std::string& type = reader.values[{"system", "vantor_server_type"}];
    need("deployment", isSandbox(type) ? "sandbox_host" : "production_host");
    for (const auto& [group, key] : kNeeded) {
        need(group, key);
    }
    if (type.empty()) {
        missing.push_back(
            {0, "not-set", "[system] vantor_server_type is not set: the sandbox is used", true});
    }
    return missing;
}

int checkSettingsFile(const std::string& path, bool json)
{
    const settings::Contents contents = settings::readFile(path);
    if (!contents.problem.empty()) {
        return printMistakes(path, {{0, "unreadable", contents.problem, false}}, json);
    }
    std::vector<Mistake> mistakes = mistakesIn(contents.bytes);
    const bool readable = std::none_of(mistakes.begin(), mistakes.end(), [](const Mistake& one) {
        return one.reason == "syntax" || one.reason == "encoding";
    });
    if (readable) {
        for (const Mistake& missing : missingIn(contents.bytes)) {
            mistakes.push_back(missing);
        }
    }
    return printMistakes(path, mistakes, json);
}

}  // namespace client
