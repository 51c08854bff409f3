// token.h - initialises a token: label and PINs.
#pragma once

#include "keystore/key_store.h"

namespace provision {

/// Sets label, security officer's PIN and user's PIN of the module's first blank token.
/// @throw Stop, secure::Error
void initialiseToken(const keystore::Place& place, secret::Bytes soPin, secret::Bytes pin);

}  // namespace provision
