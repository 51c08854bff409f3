// fake_platform.h - the scriptable backend for unit tests. A test sets the answers, and reads the calls
// and the log.
#pragma once

#include <platform/deployment.h>
#include <platform/log.h>
#include <platform/secure_storage.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace fake {

/// One parsed log record. The text keeps its colour codes and its trailing line break.
struct LogRecord {
    log_priority ePriority = DLOG_DEBUG;
    std::string strTag;
    std::string
        strFile;  ///< empty when the message does not have the "<file>: <function>(<line>) > " form
    std::string strFunction;
    int iLine = 0;
    std::string strText;
    std::string strCaller;  ///< bus client that was served; not part of the text
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

/// One event: a log record, a call of the platform, or a note of a test's double.
struct Event {
    enum Kind { LOG, CALL, NOTE };
    Kind kind = NOTE;
    LogRecord record;  ///< of a log record
    std::string text;  ///< of a call or a note
};

/// The arguments of one call of secure storage or key store, as far as the function has them.
struct SecureCall {
    std::string function;
    ss_credential_s credential{};
    std::string name;
    std::string data;  ///< data of ss_write
    std::size_t size = 0;
    int flags = 0;
    std::int32_t keyId = 0;
    int type = 0;
    int use = 0;
    std::size_t modulusSize = 0;
    std::size_t exponentSize = 0;
    bool restIsZero = false;  ///< every reserved argument was 0 or null
};

/// Thread: any for all of it.
class Platform {
public:
    /// Back to a device that works: gateway up, hosts "production.example" and "sandbox.example",
    /// db/comss/atoken "atoken-1", hwduid "duid-1", countrycode "US", modelid "model-1",
    /// memory/menu/network/set_time "1", language "en_US.utf8", server type 1, guid "guid-1",
    /// authToken "auth-token-1", loginId "uid-1", time zone (3600, 0). The key store holds the
    /// device key as number 7 and works; credential {1, 2, 3, 4, 5}, key id 7, key material
    /// "key-material-1", no named data. Log and calls empty, no observer, private values shown.
    void reset();

    // Answers of the platform from now on; nullopt makes the read fail. The rules of the platform
    // headers apply: an empty text counts as not set; a control character, or a host that is not bare,
    // is refused.
    void config(const std::string& key, std::optional<std::string> value);
    void language(std::optional<std::string> value);
    void serverType(std::optional<int> value);
    void guid(std::optional<std::string> value);
    void authToken(std::optional<std::string> value);
    void loginId(std::optional<std::string>
                     value);  ///< up to 256 bytes: 256 leave no room for the terminator
    void timeZone(std::optional<std::pair<int, int>> utcoffAndDstoff);
    void gateway(bool exists);
    void gatewayFails(int code);
    /// Changes the network once: the next connection_profile_has_changed() returns true.
    void networkChanges();
    /// Result of log_shows_private. The records keep their private values in any case.
    void logShowsPrivate(bool on);
    void host(deployment_host_e which, std::optional<std::string> value);

    void credential(std::optional<std::array<std::uint32_t, 5>> words);
    void keyId(std::optional<std::int32_t> id);
    void keyMaterial(std::optional<std::string> sealed);

    // Secure storage, key store and crypto container.
    /// Makes every later call of the function return this error number and do nothing; 0 lets it work
    /// again. Functions: ss_init_credential, ss_read, ss_write, ss_delete,
    /// ss_store_rsa_key, ss_encrypt_by_key, ss_remove_key, create_CryptoCoreContainer,
    /// set_public_key, ae_decrypt, open_key_material, deployment_get_credential,
    /// deployment_get_key_id, deployment_get_key_material.
    void fails(const std::string& function, int error);
    /// The same, for the next call only.
    void failsOnce(const std::string& function, int error);
    /// ss_read returns 0 without a buffer, against its contract.
    void readGivesNoBuffer(bool on);
    /// ss_encrypt_by_key returns 0 with the first bytes of the block; 256 is the right size.
    void blockSize(std::size_t bytes);
    /// ss_encrypt_by_key returns 0 with a block that does not verify with the public key.
    void wrongBlock(bool on);
    /// The id that ss_store_rsa_key returns; nullopt: the wanted one.
    void idOfStoredKey(std::optional<std::int32_t> id);
    /// ae_decrypt returns 0 with one bit of the block changed.
    void wrongDecryption(bool on);

    /// The device's key: a private key of 2048 bits with its public part, as PEM. It is made once
    /// for the process. A certificate made for it belongs to the device.
    static std::string deviceKeyPem();
    /// Puts a key into the key store in place of all that are there; without a PEM the device key.
    void storedKey(std::int32_t id);
    void storedKey(std::int32_t id, const std::string& pem);
    void noStoredKey();
    /// The ids in the key store, in order.
    std::vector<std::int32_t> storedKeyIds() const;

    /// Named data of the client that credential() names.
    void data(const std::string& name, std::optional<std::string> bytes);
    std::optional<std::string> data(const std::string& name) const;

    /// Numbers of buffers not yet released and of containers not yet destroyed. reset() keeps them.
    int buffersOut() const;
    int containersOut() const;
    /// Calls of secure storage and key store with their arguments, in order; clearCalls() empties
    /// it.
    std::vector<SecureCall> secureCalls() const;

    /// Sets a function that gets each record on the thread that logs it. Null for none.
    void onLog(std::function<void(const LogRecord&)> observer);

    /// All events in one order over all threads. clearTimeline() empties it, together with log() and
    /// calls().
    std::vector<Event> timeline() const;
    void clearTimeline();
    /// Adds a note of a test's double to the timeline.
    void note(std::string what);

    std::vector<LogRecord> log() const;
    void clearLog();
    /// The platform functions called so far, in order, each as its name and, where it has one, its
    /// key: "vconf_get_str db/comss/atoken", "ss_read name", "ss_encrypt_by_key 7". The log,
    /// ss_free_buffer and destroy_CryptoCoreContainer are not among them.
    std::vector<std::string> calls() const;
    void clearCalls();
};

/// The only platform of the process.
Platform& platform();

}  // namespace fake
