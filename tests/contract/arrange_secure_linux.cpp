// arrange_secure_linux.cpp - the contract suite of the keys on the Linux backend: a settings file, a
// folder for the named data and a software token.
#include "arrange_secure.h"
#include "keystore/key_material.h"
#include "rsa_key.h"
#include "soft_token.h"

#include <platform/secure_storage.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace {

/// Lives as long as the process, like its token.
struct Device {
    device::Conf conf;
    device::SoftToken token;
    device::CapturedLog log;
    test::RsaKey key = test::RsaKey::make();
};

Device& here()
{
    static auto* const instance = new Device;
    return *instance;
}

void writePrivate(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
    chmod(path.c_str(), 0600);
}

}  // namespace

std::string arrange::missing()
{
    return device::softTokenModule().empty() ? "softhsm2 is not installed (apt install softhsm2)"
                                             : "";
}

void arrange::secureDevice()
{
    Device& d = here();
    d.token.use(d.conf, device::softTokenModule());
    std::filesystem::remove_all(d.token.folder() + "/store");
    ss_credential_s client{};
    ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0);
    for (const int id : {1, 2, 7, 8, -9})
        ss_remove_key(&client, id);

    const std::string secret = d.token.folder() + "/seal.key";
    writePrivate(secret, std::string(32, 's'));
    d.conf.set("keystore", "seal_key", secret);
    const auto numbers = rawrsa::numbersOf(d.key.key.get());
    writePrivate(d.token.folder() + "/material",
                 keymaterial::close(keymaterial::readSealKey(secret), numbers.value()));
    credential(true);
    keyId(7);
    keyMaterial(true);
    d.log.clear();
}

std::string arrange::deviceKeyPem()
{
    return here().key.pem();
}

void arrange::credential(bool isSet)
{
    here().conf.set("deployment", "credential",
                    isSet ? std::optional<std::string>("1 2 3 4 5") : std::nullopt);
}

void arrange::keyId(std::optional<int> id)
{
    here().conf.set("deployment", "key_id", id ? std::optional(std::to_string(*id)) : std::nullopt);
}

void arrange::keyMaterial(bool isSet)
{
    here().conf.set("deployment", "key_material",
                    isSet ? std::optional(here().token.folder() + "/material") : std::nullopt);
}

std::vector<std::string> arrange::secureErrors()
{
    return here().log.linesWith("E/BILLING_PLATFORM: ");
}
