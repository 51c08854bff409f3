// files.cpp - reads and writes files.
#include "files.h"

#include "common/descriptor.h"
#include "common/file_bytes.h"
#include "common/hex.h"
#include "keystore/seal.h"
#include "stop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace provision {

namespace {

constexpr std::size_t kReadLimit = std::size_t{64} * 1024;
constexpr const char* kMade = "made";
/// The kernel's own limit of links in a path.
constexpr int kLinksLimit = 40;

const char* cureOf(int error)
{
    switch (error) {
        case ENOENT:
            return "; make its folder first";
        case EROFS:
            return "; name a writable place with --to or --out, or make a link or a mount of one "
                   "there";
        case EBUSY:
            return "; mount its folder, not the file alone";
        default:
            return "";
    }
}

[[noreturn]] void fail(const std::string& path, const char* what)
{
    const int error = errno;
    throw Stop(EXIT_FAILED, path + " cannot be " + what + ": " + strerror(error) +
                                (strcmp(what, kMade) == 0 ? cureOf(error) : ""));
}

/// Temporary file beside the target, with a random name. The destructor unlinks it.
struct Temporary {
    explicit Temporary(const std::string& beside) : path(beside + "." + randomHex(8)) {}
    ~Temporary() { unlink(path.c_str()); }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;

    const std::string path;
};

std::string folderOf(const std::string& path)
{
    const std::string folder = std::filesystem::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

/// Gives the new file the owner of the one that it replaces: the service could not read a PIN file that
/// root owns.
bool takesOwner(const Descriptor& file, const std::string& path)
{
    struct stat status {};
    return geteuid() != 0 || lstat(path.c_str(), &status) != 0 ||
           fchown(file.fd, status.st_uid, status.st_gid) == 0;
}

void makeFolderLasting(const std::string& path)
{
    const Descriptor folder(open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.fd >= 0)
        fsync(folder.fd);
}

}  // namespace

bool exists(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::string behindLinks(const std::string& path)
{
    std::filesystem::path place(path);
    std::error_code error;
    for (int links = 0; std::filesystem::is_symlink(place, error); links++) {
        if (links == kLinksLimit)
            throw Stop(EXIT_FAILED, path + " is a link to a link without end");
        // operator/ drops the folder when the target is absolute.
        place = place.parent_path() / std::filesystem::read_symlink(place);
    }
    return place.string();
}

void writeFile(const std::string& path, std::string_view bytes, mode_t mode, bool replace)
{
    const Stop there(EXIT_EXISTS, path + " exists and was left alone; --force replaces it");
    if (!replace && exists(path))
        throw there;
    const Temporary temporary(path);
    {
        const Descriptor file(open(temporary.path.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
        if (file.fd < 0 || fchmod(file.fd, mode) != 0 || !takesOwner(file, path))
            fail(path, kMade);
        errno = writeWhole(file.fd, bytes.data(), bytes.size());
        if (errno != 0 || fsync(file.fd) != 0)
            fail(path, "written");
    }
    // link(), unlike rename(), fails when the file has come into being meanwhile.
    const int result = replace ? rename(temporary.path.c_str(), path.c_str())
                               : link(temporary.path.c_str(), path.c_str());
    if (result != 0 && errno == EEXIST)
        throw there;
    if (result != 0)
        fail(path, kMade);
    makeFolderLasting(path);
}

void removeFile(const std::string& path)
{
    if (unlink(path.c_str()) != 0)
        fail(path, "removed");
    makeFolderLasting(path);
}

void print(const std::string& text)
{
    if (fputs(text.c_str(), stdout) < 0 || fflush(stdout) != 0)
        fail("standard output", "written");
}

secret::Bytes readFile(const std::string& path)
{
    const bool isInput = path == "-";
    const Descriptor opened(isInput ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int fd = isInput ? STDIN_FILENO : opened.fd;
    if (fd < 0)
        fail(path, "read");
    secret::Bytes bytes;
    errno = readUpTo(fd, kReadLimit, bytes);
    if (errno != 0)
        fail(path, "read");
    if (bytes.size() > kReadLimit)
        throw Stop(EXIT_FAILED, path + " is larger than 64 KiB");
    return bytes;
}

void makeFolder(const std::string& path)
{
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        fail(path, kMade);
}

std::string randomHex(std::size_t bytes)
{
    return hex(seal::random(bytes));
}

}  // namespace provision
