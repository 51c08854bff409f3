// main.cpp - billingctl: the commands and their options.
#include "base/calls.h"
#include "common/nearest.h"
#include "doctor/doctor.h"
#include "monitor.h"
#include "report.h"
#include "settings/settings_check.h"
#include "status.h"

#include <CLI/CLI.hpp>
#include <curl/curl.h>
#include <json/version.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>

namespace {

using namespace client;

constexpr const char* kFooter =
    "Exit codes: 0 the server answered (resp_result 0; doctor: all is well), 1 something else\n"
    "failed (doctor: a check), 2 usage, 3 the transfer failed (-1), 4 nothing was sent (1160003),\n"
    "5 the bus or the service cannot be reached or does not answer, 6 doctor: it works, but look.\n"
    "Answers go to standard output, what was done to standard error.";

struct Options {
    std::string bus;
    bool json = false;
    std::optional<double> timeout;  // seconds
    bool raw = false;
    bool sign = false;
    bool terse = false;
    std::string settingsFile;
    std::string reportFile;
    bool yes = false;
    bool showPrivate = false;
    int exitCode = EXIT_DONE;
};

std::string isUtf8(std::string& text)
{
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE
               ? ""
               : "is not UTF-8, which the bus asks for";
}

/// Checks a number of seconds. CLI::Range would accept "nan", for which every comparison is false.
std::string isSeconds(std::string& text)
{
    double seconds = 0;
    return CLI::detail::lexical_cast(text, seconds) && seconds >= 0.1 && seconds <= 86400
               ? ""
               : "\"" + text + "\" is no number of seconds from 0.1 to 86400";
}

/// @return the argument's option of this program, and its name on the bus as a second one
std::string optionOf(const Argument& argument)
{
    const std::string own = std::string("--") + argument.name;
    return own == argument.option ? own : argument.option + ("," + own);
}

void describeCall(CLI::App& app, const Method& method, std::vector<std::string>& values,
                  Options& options)
{
    CLI::App* const command = app.add_subcommand(method.command, method.help);
    command->alias(method.name);
    values.resize(method.arguments.size());
    for (std::size_t i = 0; i < method.arguments.size(); ++i) {
        const Argument& argument = method.arguments[i];
        command->add_option(optionOf(argument), values[i], argument.help)
            ->required(argument.required)
            ->type_name("TEXT")
            ->check(CLI::Validator(isUtf8, ""));
    }
    command->add_flag("--raw", options.raw, "Print the server's body and nothing else");
    command->callback([&method, &values, &options] {
        CallOptions call;
        call.bus = options.bus;
        call.timeout = options.timeout.value_or(call.timeout);
        call.json = options.json;
        call.raw = options.raw || options.terse;
        options.exitCode = client::call(method, values, call);
    });
}

void describeDoctor(CLI::App& app, Options& options)
{
    CLI::App* const command =
        app.add_subcommand("doctor", "Find out why the service does not work");
    command->add_flag("--sign", options.sign,
                      "Sign with the device's key, and make the service's own request with it");
    command->callback([&options] {
        DoctorOptions doctor;
        doctor.bus = options.bus;
        doctor.timeout = options.timeout.value_or(doctor.timeout);
        doctor.json = options.json;
        doctor.sign = options.sign;
        doctor.terse = options.terse;
        options.exitCode = client::doctor(doctor);
    });
}

void describeStatus(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand(
        "status", "Show the state of the service: its start, its calls, its last failure");
    command->callback([&options] {
        options.exitCode = client::status(
            {options.bus, options.timeout.value_or(StatusOptions().timeout), options.json});
    });
}

void describeReport(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand(
        "report", "Show, and write to a file, what support needs; secrets are hidden");
    command->add_option("FILE", options.reportFile,
                        "File to write after a confirmation; without it only shown");
    command->add_flag("--yes", options.yes, "Write without a confirmation");
    command->callback([&options] {
        options.exitCode = client::report({options.bus, options.reportFile, options.yes});
    });
}

void describeSettings(CLI::App& app, Options& options)
{
    CLI::App* const command = app.add_subcommand("settings", "Check settings files");
    command->require_subcommand(1);
    CLI::App* const check =
        command->add_subcommand("check", "Print all mistakes in a settings file, with their lines");
    check->add_option("FILE", options.settingsFile, "The file")->required();
    check->callback([&options] {
        options.exitCode = client::checkSettingsFile(options.settingsFile, options.json);
    });
}

/// Adds "help COMMAND", which many programs have: wordsOf() turns it into "COMMAND --help".
void describeHelp(CLI::App& app)
{
    CLI::App* const command = app.add_subcommand("help", "Print the options of a command");
    command->add_option("COMMAND", "The command; without it all of them");
    command->callback([] { throw CLI::ValidationError("help stands before everything else"); });
}

/// @return the arguments in the parser's order: the last one first
std::vector<std::string> wordsOf(int argc, char** argv)
{
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    std::reverse(words.begin(), words.end());
    return words;
}

void describeMonitor(CLI::App& app, Options& options)
{
    CLI::App* const command =
        app.add_subcommand("monitor", "Show calls live, if the bus lets this user monitor it");
    command->add_flag("--show-private", options.showPrivate,
                      "Show arguments and answers, which are private values");
    command->callback([&options] {
        options.exitCode = client::monitor({options.bus, options.json, options.showPrivate});
    });
}

std::string version()
{
    return std::string("billingctl ") + BILLING_VERSION + "\nGLib " +
           std::to_string(glib_major_version) + "." + std::to_string(glib_minor_version) + "." +
           std::to_string(glib_micro_version) + "\nlibcurl " +
           curl_version_info(CURLVERSION_NOW)->version + "\n" + OpenSSL_version(OPENSSL_VERSION) +
           "\njsoncpp " + JSONCPP_VERSION_STRING;
}

/// @param word as it was typed
/// @return the most similar command; empty when none is similar
std::string nearestCommand(const CLI::App& app, std::string word)
{
    std::replace(word.begin(), word.end(), '_', '-');
    std::vector<std::string> names;
    for (const CLI::App* const command :
         app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return nearest::to(word, names);
}

/// @return what is wrong with the arguments. CLI11 reports only that a command is missing when it does not know the name.
std::string causeOf(const CLI::App& app, const CLI::ParseError& error)
{
    const auto words = app.remaining();
    if (!app.get_subcommands().empty() || words.empty()) {
        return error.what();
    }
    const std::string meant = nearestCommand(app, words[0]);
    return "there is no command \"" + words[0] + "\"" +
           (meant.empty() ? "" : ", did you mean \"" + meant + "\"");
}

int wrongUsage(const CLI::App& app, const CLI::ParseError& error, bool json)
{
    const auto commands = app.get_subcommands();
    const std::string command = commands.empty() ? "" : commands[0]->get_name() + " ";
    printFailure("", causeOf(app, error), "see billingctl " + command + "--help", json);
    return EXIT_USAGE;
}

/// @return the exit code; a failure when the output could not be written
int finished(int exitCode)
{
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (flushed && std::ferror(stdout) == 0) {
        return exitCode;
    }
    std::fprintf(stderr,
                 "billingctl: the output cannot be written: %s; make room, or send it elsewhere\n",
                 flushed ? "a part of it is lost" : std::strerror(error));
    return EXIT_FAILED;
}

void describe(CLI::App& app, std::deque<std::vector<std::string>>& values, Options& options)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
    app.set_version_flag("--version", version);
    app.add_option("--bus,--address", options.bus,
                   "Address of the bus; else $DBUS_SYSTEM_BUS_ADDRESS, else the system bus")
        ->type_name("ADDRESS");
    app.add_flag("--json", options.json, "Print JSON, errors included; a report stays text");
    app.add_option_function<std::string>(
           "-o,--output",
           [&options](const std::string& form) {
               options.json = options.json || form == "json";
               options.terse = form == "terse";
           },
           "Form of the output: people, terse (the body alone; for doctor what is not well, one "
           "line each) or json")
        ->type_name("FORM")
        ->check(CLI::IsMember({"people", "terse", "json"}))
        ->trigger_on_parse();
    app.add_option("--timeout", options.timeout,
                   "Seconds to wait for an answer (100; for each check of doctor 10)")
        ->type_name("SECONDS")
        ->check(CLI::Validator(isSeconds, ""));
    for (const Method& method : methods()) {
        describeCall(app, method, values.emplace_back(), options);
    }
    describeDoctor(app, options);
    describeStatus(app, options);
    describeReport(app, options);
    describeSettings(app, options);
    describeMonitor(app, options);
    describeHelp(app);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    std::deque<std::vector<std::string>> values;
    CLI::App app("Calls the billing service and finds out why it does not work.", "billingctl");
    describe(app, values, options);
    // Searched for here: the parser may stop before this option.
    const bool json = std::any_of(argv, argv + argc,
                                  [](const char* word) { return word == std::string("--json"); });
    try {
        app.parse(wordsOf(argc, argv));
    } catch (const CLI::Success& help) {
        // The parser answers --help before it looks for the command.
        const bool unknown = app.get_subcommands().empty() && !app.remaining().empty();
        return finished(unknown ? wrongUsage(app, help, json) : app.exit(help));
    } catch (const CLI::ParseError& error) {
        return finished(wrongUsage(app, error, json));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "billingctl: %s\n", error.what());
        return EXIT_FAILED;
    }
    return finished(options.exitCode);
}
