#include "child.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace test {

namespace {

std::string readAll(int file)
{
    std::string text;
    char part[4096];
    ssize_t size = 0;
    while ((size = read(file, part, sizeof part)) > 0 || (size < 0 && errno == EINTR))
        text.append(part, size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
}

}  // namespace

std::string inChild(const std::function<std::string()>& steps)
{
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        alarm(20);
        const std::string text = steps();
        const bool told =
            write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    std::string text = readAll(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        text += " signal " + std::to_string(WTERMSIG(status));
    else if (WEXITSTATUS(status) != 0)
        text += " status " + std::to_string(WEXITSTATUS(status));
    return text;
}

bool enterRoot(const std::string& folder)
{
    return chroot(folder.c_str()) == 0 ||
           (unshare(CLONE_NEWUSER) == 0 && chroot(folder.c_str()) == 0);
}

}  // namespace test
