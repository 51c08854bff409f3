// certificates.h - makes and reads certificates, requests and keys.
#pragma once

#include "common/raw_rsa.h"

#include <functional>
#include <string>
#include <vector>

namespace provision {

using Key = openssl::Owner<EVP_PKEY>;
using Certificate = openssl::Owner<X509>;

// Each function throws Stop.

/// Makes an RSA key of 2048 bits in the memory of the tool.
Key makeKey();
secret::Bytes pemOf(EVP_PKEY* privateKey);
std::string pemOf(X509* certificate);

/// Reads the certificates of a PEM file, at least one. The first is the end entity, the others its
/// chain.
std::vector<Certificate> readCertificates(const std::string& path);
/// Reads the first certificate of a PEM file.
Certificate readCertificate(const std::string& path);
/// A name on one line, without control characters.
std::string shownName(const X509_NAME* name);
/// The common name, empty when there is none.
std::string commonNameOf(const X509* certificate);
/// Reads an unencrypted private key in PEM form.
/// @param path "-" for standard input
Key readPrivateKey(const std::string& path);

/// A certificate and the key that signs with it.
struct Authority {
    Key key;
    Certificate certificate;
};

/// Makes a self-signed authority.
/// @param days of validity
Authority makeAuthority(const std::string& name, int days);

enum class Use { Server, Client };

/// Issues a certificate.
/// @param hosts names and addresses of a server; unused for a client
Certificate issue(const Authority& authority, EVP_PKEY* publicKey, const std::string& name, Use use,
                  const std::vector<std::string>& hosts, int days);

/// The private operation on a block of 256 bytes.
using Signer = std::function<secret::Bytes(const unsigned char* block)>;

/// Makes a certificate request in PEM form, signed by a key outside of this process.
std::string makeRequest(const rawrsa::PublicKey& key, const std::string& name,
                        const Signer& signer);

}  // namespace provision
