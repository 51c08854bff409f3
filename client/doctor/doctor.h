// doctor.h - looks for what keeps the service from working, from the bus to the store.
#pragma once

#include "common/places.h"
#include "device/eyes.h"
#include "device/finding.h"
#include "device/identity.h"

#include <string>

namespace client {

class Bus;

/// What vouches for the store. The service has the same.
inline constexpr const char* kCaBundle = "/opt/down/cert/ca.pem";
using places::kFewDays;

struct DoctorOptions {
    std::string bus;      ///< address; empty: the system's
    double timeout = 10;  ///< seconds, for each check that waits for somebody
    bool json = false;
    bool terse = false;  ///< only what is not well
    bool sign = false;   ///< sign with the device's key, and ask the store with it
};

/// What the checks know of each other.
struct Patient {
    Patient(const DoctorOptions& wanted, const Eyes& rootsEyes) : options(wanted), eyes(rootsEyes)
    {
    }

    DoctorOptions options;
    const Eyes& eyes;
    Facts facts;
    Identity identity;
    bool asService = false;       ///< looked at as the service's user
    bool settingsClosed = false;  ///< this user may not read the settings
    std::string noLibrary;        ///< why the device's library cannot be loaded; empty: it is
    bool keyWorks = false;        ///< it has signed, and the certificate confirms it
    bool tokenThere = false;
    bool storeReached = false;  ///< the TLS stage is well
    bool callIll = false;       ///< the service's own request failed, or its answer is odd
    std::string proxy;  ///< where a proxy is named that the service does not use; empty: nowhere
};

/// Why a setting has no value: it is not there, or it was refused.
/// @param complaint what the device's library has logged of it
std::string whyMissing(const char* group, const char* key, const std::string& complaint);
/// "since this user may not read the settings; run it as root": for checks that depend on them
Finding settingsClosed(const char* check);
/// A file that cannot be opened. @param error errno value, or kNoFile @param cure when it is missing
Finding unreadable(const Patient& patient, const char* check, const std::string& path, int error,
                   const char* cure);

void checkSettings(Findings& findings, Patient& patient);
/// Certificate, CA bundle, clock.
void checkDevice(Findings& findings, Patient& patient);
/// Token, and with `sign` the key.
void checkKeyStore(Findings& findings, Patient& patient);
/// One signature, held against the certificate.
Finding checkKey(Patient& patient);
/// Default route, and the store's host: name, TCP, TLS, HTTP, time.
void checkStore(Findings& findings, Patient& patient);
/// Bus, unit, owner of the name, ping, one call, whether the service has to start anew, callers.
void checkService(Findings& findings, Patient& patient);
/// Callers that are held back or refused, and the rules of the bus that the service needs for it.
Finding checkCallers(const Patient& patient, const Bus& bus);
/// The service's own request, with the device's key: with `sign`, or when the call was ill.
void checkRequest(Findings& findings, Patient& patient);
/// "HTML or XML", "no JSON", "nothing", or empty for an answer that apps can read.
std::string oddityOf(const std::string& body);
/// An answer that oddityOf() has something to say of: a page has failed. @param text before its
/// first bytes
Finding oddAnswer(const char* check, const std::string& text, const std::string& body);
/// The first bytes of an answer, in one line.
std::string beginningOf(const std::string& body);

/// Runs all of them and prints what they found. @return the exit code
int doctor(const DoctorOptions& options);

}  // namespace client
