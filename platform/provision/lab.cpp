// lab.cpp - makes a complete device in a folder: authority, certificates, software token, settings
// file.
#include "certificates.h"
#include "commands.h"
#include "files.h"
#include "keystore/key_store.h"
#include "keystore/seal.h"
#include "stop.h"
#include "token.h"

#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>

namespace provision {

namespace {

constexpr const char* kLabel = "billing-lab";
constexpr std::int32_t kKeyId = 7;
constexpr int kAuthorityDays = 3650;
constexpr std::size_t kPinBytes = 8;
/// Largest size of a common name. Clients compare the alternative names only.
constexpr std::size_t kNameLimit = 64;

/// All files of a lab.
constexpr const char* kNames[] = {"ca.pem",       "ca.key", "server.pem", "server.key",
                                  "bgclient.crt", "pin",    "so-pin",     "softhsm2.conf",
                                  "tokens",       "store",  "seal.key",   "device.conf"};

constexpr const char* kModules[] = {
    "/usr/lib/softhsm/libsofthsm2.so",
    "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
    "/usr/lib/aarch64-linux-gnu/softhsm/libsofthsm2.so",
    "/usr/lib/arm-linux-gnueabihf/softhsm/libsofthsm2.so",
    "/usr/lib64/libsofthsm2.so",
    "/usr/local/lib/softhsm/libsofthsm2.so",
};

std::string softwareToken(const std::string& wanted)
{
    if (!wanted.empty())
        return wanted;
    for (const char* const path : kModules) {
        if (exists(path))
            return path;
    }
    throw Stop(EXIT_FAILED,
               "no software token found; install softhsm2, or name its module with --module");
}

/// @return a line that sets a variable in a shell, whatever the value contains
std::string exported(const char* name, const std::string& value)
{
    const std::unique_ptr<char, decltype(&g_free)> quoted(g_shell_quote(value.c_str()), g_free);
    return std::string("export ") + name + "=" + quoted.get() + "\n";
}

class Lab {
public:
    explicit Lab(const LabOptions& options)
        : m_options(options),
          m_folder(std::filesystem::absolute(options.folder).lexically_normal().string()),
          m_place{softwareToken(options.module), kLabel, path("pin")}
    {
    }

    void make()
    {
        clear();
        makeFolder(m_folder);
        makeSecrets();
        tell("Making a token with a key inside it.");
        makeToken();
        makeCertificates();
        // Written last: a folder with this file is a complete lab.
        write("device.conf", settings());
    }

    std::string path(const std::string& name) const { return m_folder + "/" + name; }

private:
    void write(const char* name, std::string_view bytes) const
    {
        writeFile(path(name), bytes, kSecretMode, false);
    }

    void clear() const
    {
        for (const char* const name : kNames) {
            if (!exists(path(name)))
                continue;
            if (!m_options.force)
                throw Stop(EXIT_EXISTS, path(name) +
                                            " exists and was left alone; --force replaces "
                                            "the whole lab");
            std::filesystem::remove_all(path(name));
        }
    }

    void makeSecrets() const
    {
        write("pin", randomHex(kPinBytes) + "\n");
        write("so-pin", randomHex(kPinBytes) + "\n");
        const secret::Bytes sealKey = ::seal::random(::seal::kKeySize);
        write("seal.key", {reinterpret_cast<const char*>(sealKey.data()), sealKey.size()});
        makeFolder(path("store"));
        makeFolder(path("tokens"));
        write("softhsm2.conf", "directories.tokendir = " + path("tokens") +
                                   "\nobjectstore.backend = file\nlog.level = ERROR\n");
    }

    void makeToken() const
    {
        setenv("SOFTHSM2_CONF", path("softhsm2.conf").c_str(), 1);
        initialiseToken(m_place, keystore::readPin(path("so-pin")), keystore::readPin(path("pin")));
        keystore::instance().change(
            m_place, [](const pkcs11::Session& session) { tokenkeys::generate(session, kKeyId); });
    }

    void makeCertificates() const
    {
        const Authority authority = makeAuthority("Billing lab authority", kAuthorityDays);
        const Key server = makeKey();
        const Certificate serverCertificate =
            issue(authority, server.get(), m_options.hosts.front().substr(0, kNameLimit),
                  Use::Server, m_options.hosts, m_options.days);
        rawrsa::PublicKey deviceKey;
        keystore::instance().read(m_place, [&](const pkcs11::Session& session) {
            deviceKey = tokenkeys::publicKey(session, kKeyId);
        });
        const Certificate device = issue(authority, rawrsa::record(deviceKey).get(),
                                         "Billing lab device", Use::Client, {}, m_options.days);
        write("ca.pem", pemOf(authority.certificate.get()));
        writeKey("ca.key", authority.key.get());
        write("server.pem", pemOf(serverCertificate.get()));
        writeKey("server.key", server.get());
        write("bgclient.crt", pemOf(device.get()));
    }

    void writeKey(const char* name, EVP_PKEY* key) const
    {
        const secret::Bytes pem = pemOf(key);
        write(name, {reinterpret_cast<const char*>(pem.data()), pem.size()});
    }

    std::string settings() const
    {
        std::string credential;
        for (int i = 0; i < 5; i++)
            credential += (i == 0 ? "0x" : " 0x") + randomHex(4);
        return "# A lab device, made by billing-provision lab. Nothing in it is of a real one.\n"
               "[config]\n"
               "db/comss/atoken=lab-" +
               randomHex(8) + "\ndb/comss/hwduid=LAB" + randomHex(6) +
               "\ndb/comss/countrycode=US\n"
               "db/comss/modelid=LAB1\n"
               "memory/menu/network/set_time=1\n"
               "[runtime]\nlanguage=en_US.utf8\n"
               "[system]\nvantor_server_type=1\n"
               "[account]\nguid=lab-guid\nauth_token=lab-" +
               randomHex(8) +
               "\nlogin_id=lab@example.org\n"
               "[network]\ndefault_gateway=up\n"
               "[deployment]\nproduction_host=" +
               m_options.productionHost + "\nsandbox_host=" + m_options.sandboxHost +
               "\ncredential=" + credential + "\nkey_id=" + std::to_string(kKeyId) +
               "\n[keystore]\nmodule=" + m_place.module + "\ntoken=" + m_place.token +
               "\npin_file=" + m_place.pinFile + "\nstore=" + path("store") +
               "\nseal_key=" + path("seal.key") + "\n";
    }

    const LabOptions& m_options;
    std::string m_folder;
    keystore::Place m_place;
};

}  // namespace

void lab(const LabOptions& options)
{
    Lab made(options);
    made.make();
    tell("A lab device is in " + options.folder + ". The service and its token need:");
    print(exported("PLEVO_DEVICE_CONF", made.path("device.conf")) +
          exported("SOFTHSM2_CONF", made.path("softhsm2.conf")));
}

}  // namespace provision
