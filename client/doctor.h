// doctor.h - looks for what keeps the service from working, from the bus to the store.
#pragma once

#include <string>
#include <vector>

namespace client {

/// What vouches for the store. The service has the same.
inline constexpr const char* CA_BUNDLE = "/opt/down/cert/ca.pem";

enum class Outcome { Ok, Failed, NotChecked };

/// One check and what came of it.
struct Finding {
    const char* check;
    Outcome outcome;
    std::string text;  ///< what was found, the cause of a failure, or why it was not checked
    std::string cure;  ///< for a failure: what to do
};
using Findings = std::vector<Finding>;

struct DoctorOptions {
    std::string bus;      ///< address; empty: the system's
    double timeout = 10;  ///< seconds, for each check that waits for somebody
    bool json = false;
    bool sign = false;  ///< sign once with the device's key
};

/// Why a setting has no value: it is not there, or it was refused.
std::string whyMissing(const char* group, const char* key);

/// Bus, owner of the name, one call.
void checkService(Findings& findings, const DoctorOptions& options);
/// Settings, certificate, CA bundle, clock, token, and with `sign` the key.
void checkDevice(Findings& findings, const DoctorOptions& options);
/// Default route, and the store's host: name, TCP, TLS, HTTP.
void checkStore(Findings& findings, const DoctorOptions& options);

/// Runs all of them and prints what they found. @return the exit code
int doctor(const DoctorOptions& options);

}  // namespace client
