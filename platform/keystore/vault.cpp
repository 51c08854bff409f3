// vault.cpp - named data, each in a sealed file of its own.
#include "vault.h"

#include "common/hex.h"
#include "common/secure_rules.h"
#include "private_file.h"
#include "seal.h"
#include "secure_error.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

namespace keystore {

namespace {

constexpr const char* kKeyFile = "store.key";
constexpr const char* kLockFile = "lock";
const std::string kMagic = "BILLDAT1";
const std::string kSuffix = ".data";
constexpr std::size_t kFileLimit = 8 + seal::kOverhead + securerules::kDataLimit;

/// The client's words in big-endian order, independent of the machine.
std::string idOf(const ss_credential_s& client)
{
    std::string id;
    for (const uint32_t word : client.words) {
        for (int shift = 24; shift >= 0; shift -= 8)
            id += static_cast<char>(word >> shift & 0xff);
    }
    return id;
}

std::string fileOf(const ss_credential_s& client, const std::string& name)
{
    return hex(seal::digest(idOf(client) + name)) + kSuffix;
}

std::string associatedWith(const ss_credential_s& client, const std::string& name)
{
    return kMagic + idOf(client) + name;
}

/// Locks out other writers, of all processes, until the descriptor is closed.
Descriptor locked(const Descriptor& folder)
{
    Descriptor lock(
        openat(folder.fd, kLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    int result = -1;
    do {
        result = lock.fd < 0 ? -1 : flock(lock.fd, LOCK_EX);
    } while (result != 0 && lock.fd >= 0 && errno == EINTR);
    if (result != 0)
        throw secure::Error(SS_ERROR_UNAVAILABLE,
                            "the store cannot be locked; its folder must be writable for the "
                            "service's user");
    return lock;
}

bool holdsData(const Descriptor& folder)
{
    struct Close {
        void operator()(DIR* list) const { closedir(list); }
    };
    Descriptor again(openat(folder.fd, ".", O_RDONLY | O_CLOEXEC));
    const std::unique_ptr<DIR, Close> list(again.fd < 0 ? nullptr : fdopendir(again.fd));
    if (list == nullptr)
        throw secure::Error(SS_ERROR_UNAVAILABLE,
                            "the store cannot be looked through; its folder must be readable for "
                            "the service's user");
    again.fd = -1;  // closedir() closes it
    while (const dirent* const entry = readdir(list.get())) {
        const std::string name = entry->d_name;
        if (name.size() > kSuffix.size() &&
            name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0)
            return true;
    }
    return false;
}

[[noreturn]] void throwNotFound()
{
    throw secure::Error(SS_ERROR_NOT_FOUND, "");
}

}  // namespace

bool Vault::exists() const
{
    struct stat status {};
    return stat(m_folder.c_str(), &status) == 0 || errno != ENOENT;
}

std::optional<secret::Bytes> Vault::key(const Descriptor& folder) const
{
    auto found = privatefile::readIn(folder, kKeyFile, seal::kKeySize);
    if (found && found->size() != seal::kKeySize)
        throw secure::Error(SS_ERROR_ACCESS, m_folder + "/" + kKeyFile +
                                                 " does not have 32 bytes; put the right one back");
    return found;
}

/// Precondition: the caller holds the lock. Never makes a new key while files sealed with the old one
/// exist.
secret::Bytes Vault::keyOrNew(const Descriptor& folder) const
{
    if (auto found = key(folder))
        return *found;
    if (holdsData(folder))
        throw secure::Error(SS_ERROR_ACCESS,
                            m_folder + "/" + kKeyFile +
                                " is missing; put it back, or empty the folder to start anew");
    secret::Bytes made = seal::random(seal::kKeySize);
    privatefile::replaceIn(folder, kKeyFile, made.data(), made.size());
    return made;
}

secret::Bytes Vault::read(const ss_credential_s& client, const std::string& name) const
{
    if (!exists())
        throwNotFound();
    const Descriptor folder = privatefile::openFolder(m_folder);
    const auto file = privatefile::readIn(folder, fileOf(client, name), kFileLimit);
    if (!file)
        throwNotFound();
    const auto secret = key(folder);
    if (!secret)
        throw secure::Error(SS_ERROR_ACCESS,
                            m_folder + "/" + kKeyFile + " is missing; put it back");
    if (file->size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), file->begin())) {
        auto data = seal::open(*secret, associatedWith(client, name), file->data() + kMagic.size(),
                               file->size() - kMagic.size());
        if (data)
            return *std::move(data);
    }
    throw secure::Error(SS_ERROR_BROKEN, m_folder + "/" + fileOf(client, name) +
                                             " is broken or not of this device; delete it");
}

void Vault::write(const ss_credential_s& client, const std::string& name, const unsigned char* data,
                  std::size_t size) const
{
    const Descriptor folder = privatefile::openFolder(m_folder);
    const Descriptor lock = locked(folder);
    const std::string bytes =
        kMagic + seal::close(keyOrNew(folder), associatedWith(client, name), data, size);
    privatefile::replaceIn(folder, fileOf(client, name), bytes.data(), bytes.size());
}

void Vault::remove(const ss_credential_s& client, const std::string& name) const
{
    if (!exists())
        throwNotFound();
    const Descriptor folder = privatefile::openFolder(m_folder);
    const Descriptor lock = locked(folder);
    if (!privatefile::removeIn(folder, fileOf(client, name)))
        throwNotFound();
}

}  // namespace keystore
