// main.cpp - billing-provision: gives a device its key, its certificate and its sealed key
// material.
#include "commands.h"
#include "common/nearest.h"
#include "common/value_rules.h"
#include "keystore/secure_error.h"
#include "linux/settings/module_environment.h"
#include "stop.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <glib.h>
#include <openssl/crypto.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cstdlib>

namespace {

constexpr const char* kFooter =
    "Secrets come from files or standard input, never from arguments; files that hold one get\n"
    "mode 0600. Keys are RSA with 2048 bits. Validity is counted in days.\n"
    "Exit codes: 0 done, 1 failed, 2 usage, 3 an object exists and was not changed (--force),\n"
    "4 certificate and key do not belong together.";

constexpr const char* kForce = "Replace existing files";

struct Options {
    std::string conf;
    provision::LabOptions lab;
    provision::TokenOptions token;
    provision::PinOptions pin;
    provision::RequestOptions request;
    provision::InstallOptions install;
    provision::SealOptions seal;
    provision::ImportOptions import;
};

/// A CLI11 validator whose message names the wanted form.
CLI::Validator must(const char* be, bool (*holds)(const std::string& value))
{
    return {[be, holds](std::string& value) {
                return holds(value) ? std::string() : std::string("must be ") + be;
            },
            ""};
}

bool isServerName(const std::string& value)
{
    in6_addr address{};
    return inet_pton(AF_INET, value.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, value.c_str(), &address) == 1 ||
           (valuerules::isBareHost(value) && value.find(':') == std::string::npos);
}

bool isSettingsHost(const std::string& value)
{
    return valuerules::isBareHost(value);
}

bool isOneLine(const std::string& value)
{
    return !value.empty() && !valuerules::holdsControl(value);
}

bool isModule(const std::string& value)
{
    return isOneLine(value) && value.front() == '/';
}

void describeLab(CLI::App& app, provision::LabOptions& options)
{
    CLI::App* const lab = app.add_subcommand(
        "lab",
        "Make a complete test device in DIR: authority, server and device certificates, a "
        "software token with a key made inside it, and a settings file");
    const auto host = must("a host name, with :port or without", isSettingsHost);
    lab->add_option("DIR", options.folder, "Folder of the test device, created when it is missing")
        ->required()
        ->check(must("one line of text", isOneLine));
    lab->add_option("--host", options.hosts, "Names and addresses of the server certificate")
        ->capture_default_str()
        ->check(must("a host name or an address", isServerName));
    lab->add_option("--production-host", options.productionHost, "[deployment] production_host")
        ->capture_default_str()
        ->check(host);
    lab->add_option("--sandbox-host", options.sandboxHost, "[deployment] sandbox_host")
        ->capture_default_str()
        ->check(host);
    lab->add_option("--days", options.days, "Days that the certificates are valid")
        ->capture_default_str()
        ->check(CLI::Range(1, 36500));
    lab->add_option("--module", options.module, "PKCS#11 module of the software token")
        ->check(must("an absolute path", isModule));
    lab->add_flag("--force", options.force, kForce);
    lab->callback([&options] { provision::lab(options); });
}

void describeToken(CLI::App& app, provision::TokenOptions& options)
{
    CLI::App* const token = app.add_subcommand(
        "token", "Initialize the token of the settings, with the PIN of [keystore] pin_file");
    token
        ->add_option("--so-pin", options.soPin,
                     "File with the security officer's PIN, mode 0600, - for standard input")
        ->required();
    token->callback([&options] { provision::token(options); });
}

void describePin(CLI::App& app, provision::PinOptions& options)
{
    CLI::App* const pin =
        app.add_subcommand("pin", "Change the PIN of the token and of [keystore] pin_file");
    pin->add_option("NEW", options.pin, "File with the new PIN, mode 0600, - for standard input")
        ->required();
    pin->callback([&options] { provision::pin(options); });
}

void describeDevice(CLI::App& app, Options& options)
{
    CLI::App* const request = app.add_subcommand(
        "request", "Generate the device's key in its token, and a certificate request for it");
    request->add_option("--out", options.request.out, "File for the request, - for standard output")
        ->capture_default_str();
    request
        ->add_option("--name", options.request.name,
                     "Common name in the request; else that of the installed certificate, else one "
                     "made of the key")
        ->check(CLI::Validator(
            [](std::string& name) {
                return name.empty() || name.size() > 64 ? "must have 1 to 64 bytes" : "";
            },
            "1 to 64 bytes"));
    request->add_flag("--existing", options.request.existing,
                      "Use the existing key of the token, generate none");
    request->add_flag("--may-decrypt", options.request.mayDecrypt,
                      "Allow the key to decrypt; a TPM needs that to sign");
    request->add_flag("--force", options.request.force, "Replace the file, never the key");
    request->callback([&options] { provision::request(options.request); });

    CLI::App* const install = app.add_subcommand(
        "install", "Install the device's certificate, if it belongs to the token's key");
    install
        ->add_option("CERTIFICATE", options.install.certificate, "PEM file, - for standard input")
        ->required();
    install
        ->add_option("--to", options.install.to,
                     "Destination, by default the file that the service reads")
        ->capture_default_str();
    install->add_flag("--force", options.install.force, kForce);
    install->callback([&options] { provision::install(options.install); });

    CLI::App* const seal = app.add_subcommand(
        "seal", "Seal (encrypt) a private key for a device whose token cannot generate one");
    seal->add_option("--certificate", options.seal.certificate, "Certificate of the key, PEM")
        ->required();
    seal->add_option("--key", options.seal.key, "Private key, PEM, - for standard input")
        ->capture_default_str();
    seal->add_option("--out", options.seal.out, "File for the sealed key material")->required();
    seal->add_flag("--force", options.seal.force, kForce);
    seal->callback([&options] { provision::seal(options.seal); });
}

void describeImport(CLI::App& app, provision::ImportOptions& options)
{
    CLI::App* const import = app.add_subcommand(
        "import", "Store the sealed private key in the token, and remove its two files");
    import->add_option("CERTIFICATE", options.certificate, "The key's certificate, PEM")
        ->required();
    import->callback([&options] { provision::import(options);
});
}  // namespace

void describeStatus(CLI::App& app)
{
    app.add_subcommand("status",
                       "Print token, keys and certificate, and whether they belong together")
        ->callback(provision::status);
}

int complain(int code, const char* text)
{
    if (*text != '\0')
        fprintf(stderr, "billing-provision: %s\n", text);
    return code;
}

/// Message for an unknown command.
/// @return empty for any other mistake
std::string unknownCommand(const CLI::App& app)
{
    const auto words = app.remaining();
    if (!app.get_subcommands().empty() || words.empty() || words[0][0] == '-')
        return "";
    std::vector<std::string> names;
    for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    const std::string meant = nearest::to(words[0], names);
    return "there is no command \"" + words[0] + "\"" +
           (meant.empty() ? "" : ", did you mean \"" + meant + "\"") +
           "; see billing-provision --help";
}

std::string version()
{
    return std::string("billing-provision ") + BILLING_VERSION + "\nGLib " +
           std::to_string(glib_major_version) + "." + std::to_string(glib_minor_version) + "." +
           std::to_string(glib_micro_version) + "\n" + OpenSSL_version(OPENSSL_VERSION);
}

}  // namespace

int main(int argc, char** argv)
{
    // Keys pass through this memory: forbids core files and debuggers of the same user.
    prctl(PR_SET_DUMPABLE, 0);
    // Applies to the files that the token's module makes.
    umask(S_IRWXG | S_IRWXO);
    Options options;
    CLI::App app("Gives a device of the billing service its key and its certificate.",
                 "billing-provision");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
    app.set_version_flag("--version", version);
    app.add_option_function<std::string>(
           "--conf", [](const std::string& path) { setenv("PLEVO_DEVICE_CONF", path.c_str(), 1); },
           "The device's settings file; else $PLEVO_DEVICE_CONF, else /etc/plevo/device.conf")
        ->trigger_on_parse();
    // Runs after --conf was read and before the command.
    app.parse_complete_callback(keystore::takeEnvironment);
    describeLab(app, options.lab);
    describeToken(app, options.token);
    describePin(app, options.pin);
    describeDevice(app, options);
    describeImport(app, options.import);
    describeStatus(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (const std::string unknown = unknownCommand(app); !unknown.empty())
            return complain(provision::EXIT_USAGE, unknown.c_str());
        return app.exit(error) == 0 ? provision::EXIT_DONE : provision::EXIT_USAGE;
    } catch (const provision::Stop& stop) {
        return complain(stop.code(), stop.what());
    } catch (const secure::Error& error) {
        return complain(provision::EXIT_FAILED, error.what());
    } catch (const std::exception& error) {
        return complain(provision::EXIT_FAILED, error.what());
    }
    return provision::EXIT_DONE;
}
