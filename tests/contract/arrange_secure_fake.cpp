// arrange_secure_fake.cpp - the contract suite of the keys on the scriptable backend.
#include "arrange_secure.h"

#include <fake_platform.h>

using fake::platform;

std::string arrange::missing()
{
    return "";
}

void arrange::secureDevice()
{
    platform().reset();
    platform().noStoredKey();
}

std::string arrange::deviceKeyPem()
{
    return fake::Platform::deviceKeyPem();
}

void arrange::credential(bool isSet)
{
    platform().credential(isSet ? std::optional(std::array<std::uint32_t, 5>{1, 2, 3, 4, 5})
                                : std::nullopt);
}

void arrange::keyId(std::optional<int> id)
{
    platform().keyId(id);
}

void arrange::keyMaterial(bool isSet)
{
    platform().keyMaterial(isSet ? std::optional<std::string>("key-material-1") : std::nullopt);
}

std::vector<std::string> arrange::secureErrors()
{
    std::vector<std::string> found;
    for (const fake::LogRecord& record : platform().log()) {
        if (record.ePriority == DLOG_ERROR)
            found.push_back(record.strText);
    }
    return found;
}
