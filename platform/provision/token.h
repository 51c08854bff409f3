// token.h - a token that is given its label and its PINs.
#pragma once

#include "keystore/key_store.h"

namespace provision {

/// Gives the first blank token of the module its label, the security officer's PIN and the user's.
/// @throw Stop, secure::Error
void initialiseToken(const keystore::Place& place, secret::Bytes soPin, secret::Bytes pin);

}  // namespace provision
