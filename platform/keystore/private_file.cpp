// private_file.cpp - files and folders with access for the service's own user alone.
#include "private_file.h"

#include "common/file_bytes.h"
#include "secure_error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace privatefile {

namespace {

constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
constexpr const char* kTemporary = "new";

std::string errorText(int error)
{
    // GNU's strerror_r returns the text; strerror would not be thread-safe.
    char room[128];
    return strerror_r(error, room, sizeof room);
}

[[noreturn]] void fail(const std::string& what, int error, const std::string& cure)
{
    const ss_error_e code = error == EACCES || error == EPERM || error == EROFS ? SS_ERROR_ACCESS
                            : error == ENOMEM                                   ? SS_ERROR_NO_MEMORY
                                              : SS_ERROR_UNAVAILABLE;
    throw secure::Error(code, what + ": " + errorText(error) + "; " + cure);
}

secret::Bytes readAll(const Descriptor& file, const std::string& name, std::size_t limit)
{
    secret::Bytes bytes;
    if (const int error = readUpTo(file.fd, limit, bytes); error != 0)
        fail(name + " cannot be read", error, "check the device's storage");
    if (bytes.size() > limit)
        throw secure::Error(SS_ERROR_BROKEN, name + " is larger than " + std::to_string(limit) +
                                                 " bytes; put the right file there");
    return bytes;
}

void makeLasting(const Descriptor& file)
{
    if (fsync(file.fd) != 0)
        fail("the store cannot be written out", errno, "check the device's storage");
}

/// Temporary file; unlinked in the destructor unless renamed. The constructor unlinks the one of a
/// writer that was killed.
struct Temporary {
    explicit Temporary(const Descriptor& in) : folder(in) { remove(); }
    ~Temporary() { remove(); }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    void remove() const { unlinkat(folder.fd, kTemporary, 0); }

    const Descriptor& folder;
};

}  // namespace

secret::Bytes readSecret(const std::string& path, std::size_t limit)
{
    // O_NONBLOCK: opening a FIFO would wait for its writer.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0) {
        const int error = errno;
        const std::string cure = "it must be there and readable for the service's user";
        if (error == ENOENT)
            throw secure::Error(SS_ERROR_ACCESS, path + " does not exist; " + cure);
        fail(path + " cannot be opened", error, cure);
    }
    if (!S_ISREG(status.st_mode))
        throw secure::Error(SS_ERROR_ACCESS, path + " is not a regular file");
    if ((status.st_mode & kOthers) != 0)
        throw secure::Error(SS_ERROR_ACCESS,
                            path + " is open to others; it is used after chmod 600 " + path);
    return readAll(file, path, limit);
}

Descriptor openFolder(const std::string& path)
{
    if (mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        fail(path + " cannot be made", errno, "make it, for the service's user, with mode 0700");
    Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (folder.fd < 0 || fstat(folder.fd, &status) != 0)
        fail(path + " cannot be opened", errno, "it must be a folder of the service's user");
    if (status.st_uid != geteuid() || (status.st_mode & kOthers) != 0)
        throw secure::Error(SS_ERROR_ACCESS,
                            path +
                                " belongs to another user or is open to others; it is used "
                                "after chown to the service's user and chmod 700");
    return folder;
}

std::optional<secret::Bytes> readIn(const Descriptor& folder, const std::string& name,
                                    std::size_t limit)
{
    const Descriptor file(
        openat(folder.fd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (file.fd < 0 && errno == ENOENT)
        return std::nullopt;
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        fail(name + " of the store cannot be opened", errno,
             "it must belong to the service's user");
    if (!S_ISREG(status.st_mode) || (status.st_mode & kOthers) != 0)
        throw secure::Error(SS_ERROR_ACCESS, name +
                                                 " of the store is open to others or no regular "
                                                 "file; somebody has changed it");
    return readAll(file, name, limit);
}

void replaceIn(const Descriptor& folder, const std::string& name, const void* bytes,
               std::size_t size)
{
    const Temporary temporary(folder);
    const Descriptor file(openat(folder.fd, kTemporary,
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                                 S_IRUSR | S_IWUSR));
    if (file.fd < 0 || fchmod(file.fd, S_IRUSR | S_IWUSR) != 0)
        fail("a file of the store cannot be made", errno,
             "the folder must be writable for the service's user");
    if (const int error = writeWhole(file.fd, bytes, size); error != 0)
        fail("a file of the store cannot be written", error, "make room for it");
    makeLasting(file);
    if (renameat(folder.fd, kTemporary, folder.fd, name.c_str()) != 0)
        fail("a file of the store cannot be put in its place", errno, "check the folder's rights");
    makeLasting(folder);
}

bool removeIn(const Descriptor& folder, const std::string& name)
{
    if (unlinkat(folder.fd, name.c_str(), 0) != 0) {
        if (errno == ENOENT)
            return false;
        fail("a file of the store cannot be removed", errno, "check the folder's rights");
    }
    makeLasting(folder);
    return true;
}

}  // namespace privatefile
