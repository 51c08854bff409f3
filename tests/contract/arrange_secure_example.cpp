// arrange_secure_example.cpp - the contract suite of the keys on the worked example of a port: a
// folder of files, and a software token.
#include "arrange_secure.h"
#include "example_device.h"
#include "keystore/key_material.h"
#include "rsa_key.h"
#include "soft_token.h"

#include <platform/secure_storage.h>

#include <sys/stat.h>

namespace {

/// Lives as long as the process, like its token.
struct Device {
    device::SoftToken token;
    ExampleDevice files;
    test::RsaKey key = test::RsaKey::make();
};

Device& here()
{
    static auto* const instance = new Device;
    return *instance;
}

}  // namespace

std::string arrange::missing()
{
    return device::softTokenModule().empty() ? "softhsm2 is not installed (apt install softhsm2)"
                                             : "";
}

void arrange::secureDevice()
{
    const Device& d = here();
    const std::string folder = d.token.folder();
    std::filesystem::remove_all(folder + "/store");
    const std::string secret = folder + "/seal.key";
    std::ofstream(secret) << std::string(32, 's');
    chmod(secret.c_str(), 0600);
    const std::pair<const char*, std::string> values[] = {{"module", device::softTokenModule()},
                                                          {"token", d.token.label()},
                                                          {"pin_file", folder + "/pin"},
                                                          {"store", folder + "/store"},
                                                          {"seal_key", secret}};
    for (const auto& [name, value] : values)
        d.files.set(std::string("keystore/") + name, value);

    ss_credential_s client{};
    ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0);
    for (const int id : {1, 2, 7, 8, -9})
        ss_remove_key(&client, id);
    credential(true);
    keyId(7);
    keyMaterial(true);
    d.files.log().clear();
}

std::string arrange::deviceKeyPem()
{
    return here().key.pem();
}

void arrange::credential(bool isSet)
{
    here().files.set("credential", isSet ? std::optional<std::string>("1 2 3 4 5") : std::nullopt);
}

void arrange::keyId(std::optional<int> id)
{
    here().files.set("key_id", id ? std::optional(std::to_string(*id)) : std::nullopt);
}

void arrange::keyMaterial(bool isSet)
{
    const Device& d = here();
    const auto seal = [&] {
        return keymaterial::close(keymaterial::readSealKey(d.token.folder() + "/seal.key"),
                                  rawrsa::numbersOf(d.key.key.get()).value());
    };
    d.files.set("key_material", isSet ? std::optional(seal()) : std::nullopt);
}

std::vector<std::string> arrange::secureErrors()
{
    return here().files.log().linesWith("E/BILLING_PLATFORM: ");
}
