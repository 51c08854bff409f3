// arrange.h - how the contract suite brings a backend into a state: one source file for each
// backend fills this in.
#pragma once

#include <platform/deployment.h>
#include <platform/log.h>

#include <optional>
#include <string>
#include <vector>

namespace arrange {

/// A device on which nothing is set, and whose log is empty.
void bareDevice();

// What the platform is to answer; nullopt takes the value away.
void config(const std::string& key, std::optional<std::string> value);
void language(std::optional<std::string> value);
void serverType(std::optional<int> value);
void guid(std::optional<std::string> value);
void authToken(std::optional<std::string> value);
void loginId(std::optional<std::string> value);
void gateway(bool exists);
void gatewayFails(int code);
void host(deployment_host_e which, std::optional<std::string> value);

/// The service's credential and its key's number, as an integrator would write them.
void credential(const std::string& words, const std::string& keyId);

/// A zone two hours east of UTC, one of them for daylight saving, at any time of the year.
void zoneWithDaylightSaving();
/// A zone half past five hours east of UTC without it.
void zoneWithoutDaylightSaving();
void zoneThatCannotBeRead();

/// The texts of the errors that were logged since the last bareDevice(), without their prefix.
std::vector<std::string> errors();

/// The texts of all that was logged.
std::vector<std::string> texts();

}  // namespace arrange
