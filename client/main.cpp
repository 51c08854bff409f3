// main.cpp - billingctl: the commands and their options.
#include "calls.h"
#include "doctor.h"
#include "monitor.h"

#include <CLI/CLI.hpp>
#include <curl/curl.h>
#include <json/version.h>
#include <openssl/crypto.h>

#include <deque>

namespace {

using namespace client;

constexpr const char* FOOTER =
    "Exit codes: 0 the server answered (resp_result 0; doctor: nothing failed), 1 something else\n"
    "failed (doctor: a check), 2 usage, 3 the transfer failed (-1), 4 nothing was sent (1160003),\n"
    "5 the bus or the service cannot be reached or does not answer.\n"
    "Answers go to standard output, what was done to standard error.";

struct Options {
    std::string bus;
    bool json = false;
    std::optional<double> timeout;  // seconds
    bool raw = false;
    bool sign = false;
    bool showPrivate = false;
    int exitCode = EXIT_DONE;
};

std::string isUtf8(std::string& text)
{
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE
               ? ""
               : "is not UTF-8, which the bus asks for";
}

void describeCall(CLI::App& app, const Method& method, std::vector<std::string>& values,
                  Options& options)
{
    CLI::App* const command = app.add_subcommand(method.command, method.help);
    command->alias(method.name);
    values.resize(method.arguments.size());
    for (std::size_t i = 0; i < method.arguments.size(); ++i) {
        const Argument& argument = method.arguments[i];
        command->add_option(argument.option, values[i], argument.help)
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
        call.raw = options.raw;
        options.exitCode = client::call(method, values, call);
    });
}

void describeDoctor(CLI::App& app, Options& options)
{
    CLI::App* const command =
        app.add_subcommand("doctor", "Look for what keeps the service from working");
    command->add_flag("--sign", options.sign,
                      "Sign once with the device's key, as the service's user");
    command->callback([&options] {
        DoctorOptions doctor;
        doctor.bus = options.bus;
        doctor.timeout = options.timeout.value_or(doctor.timeout);
        doctor.json = options.json;
        doctor.sign = options.sign;
        options.exitCode = client::doctor(doctor);
    });
}

void describeMonitor(CLI::App& app, Options& options)
{
    CLI::App* const command =
        app.add_subcommand("monitor", "Show calls live, where the bus lets this user watch");
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

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    std::deque<std::vector<std::string>> values;
    CLI::App app("Calls the billing service and finds out why it does not work.", "billingctl");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(FOOTER);
    app.set_version_flag("--version", version);
    app.add_option("--bus", options.bus,
                   "Address of the bus; else $DBUS_SYSTEM_BUS_ADDRESS, else the system bus")
        ->type_name("ADDRESS");
    app.add_flag("--json", options.json, "Print JSON, errors included");
    app.add_option("--timeout", options.timeout,
                   "Seconds to wait for an answer (100; for each check of doctor 10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0));
    for (const Method& method : methods()) {
        describeCall(app, method, values.emplace_back(), options);
    }
    describeDoctor(app, options);
    describeMonitor(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "billingctl: %s\n", error.what());
        return EXIT_FAILED;
    }
    return options.exitCode;
}
