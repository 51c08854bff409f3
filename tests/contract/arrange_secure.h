// arrange_secure.h - functions with which the contract suite of secure storage, key store and crypto
// container sets the state of a backend. Each backend has a source file that defines them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace arrange {

/// Reason why the suite cannot run here; empty when it can.
std::string missing();

/// Makes a device without named data and keys, with credential 1 2 3 4 5, key id 7, the device key as
/// sealed key material, and an empty log.
void secureDevice();

/// The device's private key in PEM form.
std::string deviceKeyPem();

void credential(bool isSet);
void keyId(std::optional<int> id);
void keyMaterial(bool isSet);

/// Texts of the errors logged since the last secureDevice().
std::vector<std::string> secureErrors();

}  // namespace arrange
