// arrange_secure.h - how the contract suite of secure storage, key store and crypto container brings
// a backend into a state: one source file for each backend fills this in.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace arrange {

/// Why the suite cannot run here; empty when it can.
std::string missing();

/// A device without named data and without keys, with credential 1 2 3 4 5, key id 7 and the device
/// key as sealed key material; the log is empty.
void secureDevice();

/// The device key: a private key as PEM.
std::string deviceKeyPem();

void credential(bool isSet);
void keyId(std::optional<int> id);
void keyMaterial(bool isSet);

/// The texts of the errors that were logged since the last secureDevice().
std::vector<std::string> secureErrors();

}  // namespace arrange
