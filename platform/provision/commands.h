// commands.h - the commands of the tool.
#pragma once

#include "common/places.h"

#include <string>
#include <vector>

namespace provision {

struct LabOptions {
    std::string folder;
    std::string module;  ///< software token; empty: look in the usual places
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
    std::string name;         ///< empty: chosen by request()
    bool existing = false;    ///< use the present key and make none
    bool mayDecrypt = false;  ///< allow a key with more rights than signing
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

// Each function throws Stop or secure::Error. All but lab() work on the device whose settings file
// PLEVO_DEVICE_CONF names.

/// Makes a complete device in a folder, for laboratories and demonstrations.
void lab(const LabOptions& options);
/// Initialises the device's token: label, security officer's PIN, user's PIN.
void token(const TokenOptions& options);
/// Changes the PIN of the token and of the PIN file.
void pin(const PinOptions& options);
/// Makes the device's key inside its token, and a certificate request for it. Common name: the given
/// one, else that of the installed certificate, else one derived from the key.
void request(const RequestOptions& options);
/// Installs the device's certificate after checking that it belongs to the key.
void install(const InstallOptions& options);
/// Seals a private key for a device whose token cannot make one.
void seal(const SealOptions& options);

/// Imports the sealed private key into the token and removes the two files that can open it.
void import(const ImportOptions& options);

/// Prints token, keys and certificate, and whether they belong together.
void status();

/// Writes a line of progress to standard error.
void tell(const std::string& line);

}  // namespace provision
