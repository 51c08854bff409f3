// arrange.h - functions with which the contract suite sets the state of a backend. Each backend has a
// source file that defines them.
#pragma once

#include <platform/deployment.h>
#include <platform/log.h>

#include <optional>
#include <string>
#include <vector>

namespace arrange {

/// Makes a device without any value and with an empty log.
void bareDevice();

// Values of the platform; nullopt removes one.
void config(const std::string& key, std::optional<std::string> value);
void language(std::optional<std::string> value);
void serverType(std::optional<int> value);
void guid(std::optional<std::string> value);
void authToken(std::optional<std::string> value);
void loginId(std::optional<std::string> value);
void gateway(bool exists);
void gatewayFails(int code);
void host(deployment_host_e which, std::optional<std::string> value);

/// Credential and key id of the service, as an integrator writes them.
void credential(const std::string& words, const std::string& keyId);

/// Sets a zone two hours east of UTC, one of them daylight saving, all year.
void zoneWithDaylightSaving();
/// Sets a zone five and a half hours east of UTC without daylight saving.
void zoneWithoutDaylightSaving();
void zoneThatCannotBeRead();

/// Texts of the errors logged since the last bareDevice(), without their prefix.
std::vector<std::string> errors();

/// Texts of all records since then.
std::vector<std::string> texts();

}  // namespace arrange
