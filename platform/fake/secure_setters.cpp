// secure_setters.cpp - the setters of the fake's secure storage, key store and crypto container.
#include "fake_secure.h"
#include "fake_state.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <stdexcept>

namespace fake {

namespace {

using PKey = openssl::Owner<EVP_PKEY>;
using Bio = openssl::Owner<BIO>;

Secure::Key numbers(EVP_PKEY* key)
{
    const auto found = key == nullptr ? std::nullopt : rawrsa::numbersOf(key);
    if (!found)
        throw std::invalid_argument("not a private RSA key of 2048 bits");
    return std::make_shared<const rawrsa::PrivateKey>(*found);
}

PKey generate()
{
    PKey key(EVP_RSA_gen(2048));
    if (key == nullptr)
        throw std::runtime_error("no key could be made");
    return key;
}

struct DeviceKey {
    std::string pem;
    Secure::Key numbers;
};

const DeviceKey& device()
{
    static const DeviceKey* const made = [] {
        const PKey key = generate();
        const Bio out(BIO_new(BIO_s_mem()));
        PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        char* text = nullptr;
        const long length = BIO_get_mem_data(out.get(), &text);
        return new DeviceKey{std::string(text, static_cast<std::size_t>(length)),
                             numbers(key.get())};
    }();
    return *made;
}

template <typename Part>
auto read(Part part)
{
    const std::lock_guard<std::mutex> hold(state().lock);
    return part(state().secure);
}

}  // namespace

Secure::Key deviceKey()
{
    return device().numbers;
}

void Secure::reset()
{
    data.clear();
    keys = {{7, nullptr}};
    credential = {{1, 2, 3, 4, 5}};
    keyId = 7;
    keyMaterial = "key-material-1";
    failures.clear();
    nextFailures.clear();
    readGivesNoBuffer = false;
    blockSize = rawrsa::kBlockSize;
    wrongBlock = false;
    idOfStoredKey.reset();
    wrongDecryption = false;
    calls.clear();
}

int Secure::failureOf(const std::string& function)
{
    const auto next = nextFailures.extract(function);
    if (!next.empty())
        return next.mapped();
    const auto found = failures.find(function);
    return found == failures.end() ? 0 : found->second;
}

void Platform::credential(std::optional<std::array<std::uint32_t, 5>> words)
{
    change([&](State& s) { s.secure.credential = words; });
}

void Platform::keyId(std::optional<std::int32_t> id)
{
    change([&](State& s) { s.secure.keyId = id; });
}

void Platform::keyMaterial(std::optional<std::string> sealed)
{
    change([&](State& s) { s.secure.keyMaterial = std::move(sealed); });
}

void Platform::fails(const std::string& function, int error)
{
    change([&](State& s) { s.secure.failures[function] = error; });
}

void Platform::failsOnce(const std::string& function, int error)
{
    change([&](State& s) { s.secure.nextFailures[function] = error; });
}

void Platform::readGivesNoBuffer(bool on)
{
    change([&](State& s) { s.secure.readGivesNoBuffer = on; });
}

void Platform::blockSize(std::size_t bytes)
{
    change([&](State& s) { s.secure.blockSize = std::min(bytes, rawrsa::kBlockSize); });
}

void Platform::wrongBlock(bool on)
{
    change([&](State& s) { s.secure.wrongBlock = on; });
}

void Platform::idOfStoredKey(std::optional<std::int32_t> id)
{
    change([&](State& s) { s.secure.idOfStoredKey = id; });
}

void Platform::wrongDecryption(bool on)
{
    change([&](State& s) { s.secure.wrongDecryption = on; });
}

std::string Platform::deviceKeyPem()
{
    return device().pem;
}

void Platform::storedKey(std::int32_t id)
{
    change([&](State& s) { s.secure.keys = {{id, nullptr}}; });
}

void Platform::storedKey(std::int32_t id, const std::string& pem)
{
    const Bio in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const PKey key(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
    change([&, stored = numbers(key.get())](State& s) { s.secure.keys = {{id, stored}}; });
}

void Platform::noStoredKey()
{
    change([](State& s) { s.secure.keys.clear(); });
}

std::vector<std::int32_t> Platform::storedKeyIds() const
{
    return read([](const Secure& secure) {
        std::vector<std::int32_t> ids;
        for (const auto& [id, key] : secure.keys)
            ids.push_back(id);
        return ids;
    });
}

void Platform::data(const std::string& name, std::optional<std::string> bytes)
{
    change([&](State& s) {
        if (bytes)
            s.secure.data[s.secure.ownName(name)] = *bytes;
        else
            s.secure.data.erase(s.secure.ownName(name));
    });
}

std::optional<std::string> Platform::data(const std::string& name) const
{
    return read([&](const Secure& secure) {
        const auto found = secure.data.find(secure.ownName(name));
        return found == secure.data.end() ? std::nullopt : std::optional(found->second);
    });
}

int Platform::buffersOut() const
{
    return read([](const Secure& secure) { return secure.buffersOut; });
}

int Platform::containersOut() const
{
    return read([](const Secure& secure) { return secure.containersOut; });
}

std::vector<SecureCall> Platform::secureCalls() const
{
    return read([](const Secure& secure) { return secure.calls; });
}

}  // namespace fake
