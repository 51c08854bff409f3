// report.cpp - collects what support needs into one text, without secrets.
#include "report.h"

#include "base/calls.h"
#include "base/process.h"
#include "base/text.h"
#include "settings/platform_library.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace client {

namespace {

constexpr const char* kJournalLines = "--lines=300";

/// Groups without private values.
constexpr const char* kOpenGroups[] = {"[network]", "[runtime]", "[system]", "[keystore]"};
constexpr const char* kOpenKeys[] = {"production_host", "sandbox_host", "key_id", "key_material"};

std::string trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

template <typename List>
bool isIn(const List& list, const std::string& text)
{
    for (const char* const one : list) {
        if (text == one) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> environment()
{
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    return variables;
}

/// Runs this program with other arguments in a process of its own, since the doctor changes its identity.
/// @return its output
std::string own(const ReportOptions& options, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "/proc/self/exe");
    if (!options.bus.empty()) {
        arguments.push_back("--bus=" + options.bus);
    }
    return outputOf(arguments, environment());
}

std::string settingsFile(const std::string& status)
{
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    reader->parse(status.data(), status.data() + status.size(), &value, nullptr);
    return value["settings"].asString();
}

std::string machine()
{
    utsname names{};
    uname(&names);
    std::string text =
        std::string(names.sysname) + " " + names.release + " " + names.machine + "\n";
    std::istringstream lines(contentOf("/etc/os-release"));
    for (std::string line; std::getline(lines, line);) {
        text += line.rfind("PRETTY_NAME=", 0) == 0 ? line + "\n" : "";
    }
    return text;
}

/// @return the settings without private values, or why there are none
std::string settingsText(const std::string& path)
{
    if (path == kOwnLibrary) {
        return "the library does not list them\n";
    }
    const int error = openErrorOf(path);
    if (error == EACCES) {
        return "this user may not read the settings\n";
    }
    return error == 0 ? hidden(contentOf(path)) : path + ": " + std::strerror(error) + "\n";
}

std::string made(const ReportOptions& options)
{
    const std::string status = own(options, {"--json", "status"});
    const std::string path = settingsFile(status);
    std::string text;
    const auto section = [&text](const std::string& title, const std::string& content,
                                 const std::string& otherwise = "nothing") {
        text += "== " + title + "\n" + (content.empty() ? otherwise + "\n" : content);
    };
    section("machine", machine());
    section("versions", own(options, {"--version"}));
    section("status", status);
    section("doctor", own(options, {"--json", "doctor"}));
    section("settings " + path + ", private values hidden", settingsText(path), "no settings");
    section("unit", outputOf({"systemctl", "cat", "billing-service"}, environment()),
            "systemctl shows no unit of the service");
    section("journal",
            outputOf({"journalctl", "--quiet", "--no-pager", "--output=short-iso", kJournalLines,
                      "-t", "BILLING_SERVICE", "-t", "BILLING_PLATFORM"},
                     environment()),
            geteuid() == 0 ? "the journal has no record of the service"
                           : "the journal has no record of the service that this user may read");
    return text;
}

bool isAgreed(const ReportOptions& options)
{
    if (options.yes) {
        return true;
    }
    if (isatty(STDIN_FILENO) == 0) {
        return false;
    }
    std::fprintf(stderr, "Write this to %s? [y/N] ", shown(options.file, false).c_str());
    const int answer = std::getchar();
    return answer == 'y' || answer == 'Y';
}

/// @return false when the file cannot be written, with errno set
bool write(const std::string& path, const std::string& text)
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) {
        return false;
    }
    const bool written =
        ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(file) == 0 && written;
}

}  // namespace

std::string hidden(const std::string& settings)
{
    std::string text;
    std::string group;
    std::istringstream lines(settings);
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            group = line;
        } else if (equals == std::string::npos) {
            line = "<hidden: a line without =>";
        } else if (!isIn(kOpenGroups, group) && !isIn(kOpenKeys, trimmed(line.substr(0, equals)))) {
            const std::string value = trimmed(line.substr(equals + 1));
            line = line.substr(0, equals) + "=<hidden: " + std::to_string(value.size()) + " bytes>";
        }
        text += line + "\n";
    }
    return text;
}

int report(const ReportOptions& options)
{
    const std::string text = made(options);
    std::fputs(isatty(STDOUT_FILENO) != 0 ? shown(text, true).c_str() : text.c_str(), stdout);
    std::fflush(stdout);
    if (options.file.empty()) {
        return EXIT_DONE;
    }
    if (!isAgreed(options)) {
        std::fprintf(stderr, "billingctl: nothing was written; --yes agrees beforehand\n");
        return EXIT_FAILED;
    }
    if (!write(options.file, text)) {
        const std::string cause = options.file + " cannot be written: " + std::strerror(errno);
        printFailure("report", cause, "name a file that is not there yet, in a folder with room",
                     false);
        return EXIT_FAILED;
    }
    return EXIT_DONE;
}

}  // namespace client
