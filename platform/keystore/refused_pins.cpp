// refused_pins.cpp - the PINs that a token has refused.
//
// File refused-pins in the folder of the named data: 32 bytes of salt, then 32 bytes a PIN:
// the salted digest of token and PIN.
#include "refused_pins.h"

#include "private_file.h"
#include "seal.h"
#include "secure_error.h"

#include <platform/log.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace keystore {

namespace {

constexpr const char* kFile = "refused-pins";
constexpr std::size_t kMost = 32;
constexpr std::size_t kLimit = seal::kDigestSize * (kMost + 1);

void complain(const char* doing, const secure::Error& error)
{
    __dlog_print(DLOG_WARN, "BILLING_PLATFORM",
                 "key store: refused PINs cannot be %s, a new start would try them again: %s",
                 doing, error.what());
}

std::string text(const secret::Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

bool isOurs(const std::string& folder)
{
    struct stat status {};
    return !folder.empty() && stat(folder.c_str(), &status) == 0 && status.st_uid == geteuid();
}

}  // namespace

void RefusedPins::load(const std::string& folder)
{
    if (m_folder == folder && !m_salt.empty())
        return;
    m_folder = folder;
    m_digests.clear();
    m_salt = text(seal::random(seal::kDigestSize));
    if (!isOurs(folder))
        return;
    try {
        const auto kept = privatefile::readIn(privatefile::openFolder(folder), kFile, kLimit);
        if (!kept || kept->size() < m_salt.size())
            return;
        const std::string bytes = text(*kept);
        m_salt = bytes.substr(0, seal::kDigestSize);
        for (std::size_t at = m_salt.size(); at + seal::kDigestSize <= bytes.size();
             at += seal::kDigestSize)
            m_digests.push_back(bytes.substr(at, seal::kDigestSize));
    } catch (const secure::Error& error) {
        complain("read", error);
    }
}

void RefusedPins::save() const
{
    // billing-provision may run as root: a folder that root makes would be closed to the service.
    if (m_folder.empty() || (geteuid() == 0 && !isOurs(m_folder)))
        return;
    std::string bytes = m_salt;
    for (const std::string& digest : m_digests)
        bytes += digest;
    try {
        privatefile::replaceIn(privatefile::openFolder(m_folder), kFile, bytes.data(),
                               bytes.size());
    } catch (const secure::Error& error) {
        complain("written", error);
    }
}

std::string RefusedPins::digest(const std::string& token, const secret::Bytes& pin) const
{
    return seal::digest(m_salt + seal::digest(token) + seal::digest(pin.data(), pin.size()));
}

bool RefusedPins::contains(const std::string& folder, const std::string& token,
                           const secret::Bytes& pin)
{
    load(folder);
    return std::find(m_digests.begin(), m_digests.end(), digest(token, pin)) != m_digests.end();
}

void RefusedPins::add(const std::string& folder, const std::string& token, const secret::Bytes& pin)
{
    load(folder);
    m_digests.push_back(digest(token, pin));
    if (m_digests.size() > kMost)
        m_digests.pop_front();
    save();
}

}  // namespace keystore
