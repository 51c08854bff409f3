// commands.h - what the tool does, command by command.
#pragma once

#include "common/places.h"

#include <string>
#include <vector>

namespace provision {

struct LabOptions {
    std::string folder;
    std::string module;  ///< of the software token; empty: where distributions put it
    std::vector<std::string> hosts = {"localhost", "127.0.0.1"};
    std::string productionHost = "localhost:8443";
    std::string sandboxHost = "localhost:8444";
    int days = 365;
    bool force = false;
};

struct TokenOptions {
    std::string soPin;  ///< file with the security officer's PIN, "-" for standard input
};

struct PinOptions {
    std::string pin;  ///< file with the new PIN, "-" for standard input
};

struct RequestOptions {
    std::string out = "-";
    std::string name;         ///< empty: the device's own, see request()
    bool existing = false;    ///< for the key that is there; no key is made
    bool mayDecrypt = false;  ///< the key need not be for signing alone
    bool force = false;
};

struct InstallOptions {
    std::string certificate;
    std::string to = places::kDeviceCertificate;
    bool force = false;
};

struct SealOptions {
    std::string certificate;
    std::string key = "-";
    std::string out;
    bool force = false;
};

struct ImportOptions {
    std::string certificate;
};

// Each throws Stop or secure::Error. All but the first act on the device whose settings file
// PLEVO_DEVICE_CONF names.

/// Makes a whole device of its own in a folder, for laboratories and demonstrations.
void lab(const LabOptions& options);
/// Makes the device's token: label, security officer's PIN, user's PIN.
void token(const TokenOptions& options);
/// Gives the token another PIN, and the PIN file with it.
void pin(const PinOptions& options);
/// Makes the device's key inside its token, and a certificate request for it. Without a name it asks
/// for that of the certificate that is installed, and without one for a name made of the key.
void request(const RequestOptions& options);
/// Puts the device's certificate in its place, after a check that it is for the key.
void install(const InstallOptions& options);
/// Seals a private key for the device, for a token that cannot make one.
void seal(const SealOptions& options);

/// Puts the sealed private key into the token, and removes the two files that give it.
void import(const ImportOptions& options);

/// Prints token, keys and certificate, and whether they belong together.
void status();

/// A line for the person who waits, on standard error.
void tell(const std::string& line);

}  // namespace provision
