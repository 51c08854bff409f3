// doctor.h - checks everything that the service needs, from the bus to the store.
#pragma once

#include "common/places.h"
#include "device/eyes.h"
#include "device/finding.h"
#include "device/identity.h"

#include <string>

namespace client {

class Bus;

/// Path of the trusted certificates for the store, the same as the service's.
inline constexpr const char* kCaBundle = "/opt/down/cert/ca.pem";
using places::kFewDays;

struct DoctorOptions {
    std::string bus;      ///< address; empty: the system bus
    double timeout = 10;  ///< seconds, for each check that waits
    bool json = false;
    bool terse = false;  ///< print warnings and failures only
    bool sign = false;   ///< sign with the device's key, and use it for a request to the store
};

/// Results that the checks share.
struct Patient {
    Patient(const DoctorOptions& wanted, const Eyes& rootsEyes) : options(wanted), eyes(rootsEyes)
    {
    }

    DoctorOptions options;
    const Eyes& eyes;
    Facts facts;
    Identity identity;
    bool asService = false;       ///< this process runs as the service's user
    bool settingsClosed = false;  ///< this user may not read the settings
    std::string noLibrary;  ///< why the device's library cannot be loaded; empty: it is loaded
    bool keyWorks = false;  ///< it has signed, and the signature fits the certificate
    bool tokenThere = false;
    bool storeReached = false;  ///< the check of TLS has passed
    bool callIll = false;       ///< the service's own request failed, or its answer was not valid
    std::string proxy;  ///< where a proxy is named that the service does not use; empty: none
};

/// Tells why a setting has no value: it is missing, or it was refused.
/// @param complaint the error that the device's library has logged
std::string whyMissing(const char* group, const char* key, const std::string& complaint);
/// A check that was not made because this user may not read the settings.
Finding settingsClosed(const char* check);
/// A file that cannot be opened.
/// @param error errno value, or kNoFile
/// @param cure used when the file is missing
Finding unreadable(const Patient& patient, const char* check, const std::string& path, int error,
                   const char* cure);

void checkSettings(Findings& findings, Patient& patient);
/// Checks certificate, CA bundle and clock.
void checkDevice(Findings& findings, Patient& patient);
/// Checks the token, and with `sign` the key.
void checkKeyStore(Findings& findings, Patient& patient);
/// Makes one signature and verifies it with the certificate.
Finding checkKey(Patient& patient);
/// Checks the default route and the way to the store: name, TCP, TLS, HTTP, time.
void checkStore(Findings& findings, Patient& patient);
/// Checks bus, unit, owner of the name, ping, one call, whether the service needs a restart, callers.
void checkService(Findings& findings, Patient& patient);
/// Checks for callers that are held back or refused, and for the bus rules that the service needs for that.
Finding checkCallers(const Patient& patient, const Bus& bus);
/// Makes the service's own request with the device's key, if `sign` is set or the call has failed.
void checkRequest(Findings& findings, Patient& patient);
/// @return "HTML or XML", "no JSON" or "nothing"; empty for an answer that apps can read
std::string oddityOf(const std::string& body);
/// The finding for an answer for which oddityOf() is not empty; a web page counts as a failure.
/// @param text stands before the answer's first bytes
Finding oddAnswer(const char* check, const std::string& text, const std::string& body);
/// @return the first bytes of an answer, on one line
std::string beginningOf(const std::string& body);

/// Runs all checks and prints their findings.
/// @return the exit code
int doctor(const DoctorOptions& options);

}  // namespace client
