// doctor_settings.cpp - checks the settings file.
#include "base/platform_log.h"
#include "base/process.h"
#include "device/certificate.h"
#include "doctor.h"
#include "linux/settings/settings.h"
#include "linux/settings/settings_file.h"
#include "settings/platform_library.h"
#include "settings/settings_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace client {

namespace {

constexpr const char* kCheck = "settings";

/// "mode 644, of root:root"
std::string rightsOf(const Patient& patient, const struct stat& status)
{
    // Account names may not be readable from here: the known ones are used.
    const Identity& service = patient.identity;
    const std::string group =
        status.st_gid == service.gid ? service.group : groupName(status.st_gid);
    char mode[16];
    std::snprintf(mode, sizeof mode, "mode %03o", status.st_mode & 07777U);
    return std::string(mode) + ", of " + userName(status.st_uid) + ":" + group;
}

/// @return false when the service may have its settings at a path that this user does not know
bool mayBeNamed(const Patient& patient)
{
    return patient.asService || patient.identity.environmentKnown ||
           std::getenv("PLEVO_DEVICE_CONF") != nullptr || !patient.facts.process;
}

Finding closed(const Patient& patient, const std::string& path)
{
    const std::string& group = patient.identity.group;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        const std::string folder = path.substr(0, path.rfind('/'));
        return failed(kCheck, "closed", "the service may not look into the folder of " + path,
                      "chgrp " + group + " " + folder + " && chmod 750 " + folder);
    }
    return failed(kCheck, "closed",
                  "the service may not read " + path + " (" + rightsOf(patient, status) + ")",
                  "chgrp " + group + " " + path + " && chmod 640 " + path);
}

Finding mended(const std::string& path, const std::vector<Mistake>& mistakes)
{
    std::string text = path;
    for (const Mistake& mistake : mistakes) {
        text += (&mistake == &mistakes.front() ? ": " : "; ") + mistake.shown();
    }
    const auto bad = std::find_if(mistakes.begin(), mistakes.end(),
                                  [](const Mistake& one) { return !one.harmless; });
    if (bad == mistakes.end()) {
        return warning(kCheck, mistakes.front().reason, text, "take out the one that is not meant");
    }
    return failed(kCheck, bad->reason, text,
                  "mend the file; it is read again at the next call (billingctl settings check "
                  "FILE tries one beforehand)");
}

Finding judged(const Patient& patient, const std::string& path, const settings::Contents& contents)
{
    if (!contents.problem.empty()) {
        return failed(kCheck, "unreadable", path + " " + contents.problem,
                      "put a file there that is a copy of device.conf.example, filled in");
    }
    const std::vector<Mistake> mistakes = mistakesIn(contents.bytes);
    if (!mistakes.empty()) {
        return mended(path, mistakes);
    }
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IROTH | S_IWOTH | S_IWGRP)) != 0) {
        return warning(
            kCheck, "open",
            path + " (" + rightsOf(patient, status) + ") is open to others, and it holds tokens",
            "chmod 640 " + path);
    }
    // The checks of store, key and token report the settings that they miss.
    for (const Mistake& missing : missingIn(contents.bytes)) {
        if (missing.harmless) {
            return warning(kCheck, missing.reason, path + ": " + missing.shown(),
                           "set [system] vantor_server_type: 0 for production, 1 for the sandbox");
        }
    }
    return good(kCheck, path + " is well-formed");
}

}  // namespace

void checkSettings(Findings& findings, Patient& patient)
{
    if (!patient.noLibrary.empty()) {
        findings.push_back(failed(kCheck, "library",
                                  "the device's functions cannot be loaded: " + patient.noLibrary,
                                  "install the library, or the package that it misses"));
        return;
    }
    if (!platformReadsDeviceConf()) {
        findings.push_back(
            good(kCheck, "this device's own library has them; its functions are asked"));
        return;
    }
    const std::string path = settings::filePath();
    const int error = openErrorOf(path);
    if (error == EACCES && patient.asService) {
        findings.push_back(closed(patient, path));
    } else if (error == EACCES || (error == ENOENT && !mayBeNamed(patient))) {
        patient.settingsClosed = true;
        findings.push_back(settingsClosed(kCheck));
    } else if (error == ENOENT) {
        findings.push_back(
            failed(kCheck, "missing", path + ": " + std::strerror(error),
                   "put the device's settings there (device.conf(5)), or name another "
                   "file with PLEVO_DEVICE_CONF in the unit's drop-in"));
    } else {
        findings.push_back(judged(patient, path, settings::readFile(path)));
    }
    // Discards the platform's own complaint about the same mistakes.
    settings::text("deployment", "production_host");
    takeComplaint();
}

}  // namespace client
