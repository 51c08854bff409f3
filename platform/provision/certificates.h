// certificates.h - certificates, requests and keys as the tool makes and reads them.
#pragma once

#include "common/raw_rsa.h"

#include <functional>
#include <string>
#include <vector>

namespace provision {

using Key = openssl::Owner<EVP_PKEY>;
using Certificate = openssl::Owner<X509>;

// Each throws Stop.

/// A new RSA key with 2048 bits, in the memory of the tool.
Key makeKey();
secret::Bytes pemOf(EVP_PKEY* privateKey);
std::string pemOf(X509* certificate);

/// The certificates of a PEM file, one at least; the first is the one that the others vouch for.
std::vector<Certificate> readCertificates(const std::string& path);
/// The first of them.
Certificate readCertificate(const std::string& path);
/// A name on one line, without control characters.
std::string shownName(const X509_NAME* name);
/// The common name, empty when there is none.
std::string commonNameOf(const X509* certificate);
/// A private key that is not encrypted, as PEM. @param path "-" for standard input
Key readPrivateKey(const std::string& path);

/// A certificate and the key that signs with it.
struct Authority {
    Key key;
    Certificate certificate;
};

/// An authority of its own. @param days of validity
Authority makeAuthority(const std::string& name, int days);

enum class Use { Server, Client };

/// A certificate of the authority. @param hosts for Server: names and addresses it is for
Certificate issue(const Authority& authority, EVP_PKEY* publicKey, const std::string& name, Use use,
                  const std::vector<std::string>& hosts, int days);

/// The private operation on a block of 256 bytes.
using Signer = std::function<secret::Bytes(const unsigned char* block)>;

/// A certificate request, as PEM, signed by a key that is elsewhere.
std::string makeRequest(const rawrsa::PublicKey& key, const std::string& name,
                        const Signer& signer);

}  // namespace provision
