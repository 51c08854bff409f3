#include "loop.h"

#include "child.h"
#include "process/main_loop.h"

#include <cerrno>
#include <vector>

namespace test {

void watch(int fd, GIOCondition what, GUnixFDSourceFunc call)
{
    g_unix_fd_add(fd, what, call, nullptr);
}

std::string inLoop(const std::function<std::string()>& steps)
{
    return inChild([&] {
        process::holdSignals();
        ecore_init();
        process::ownDefaultContext();
        events().clear();
        return steps();
    });
}

Wait answers(int result, const std::map<int, int>& ready, int error)
{
    return [=](std::vector<pollfd>& polled, const std::string& limit, const sigset_t&) {
        std::string text = "wait " + limit + ":";
        for (pollfd& one : polled) {
            // GLib's own descriptor comes first; its number is not known.
            text += " " + (&one == polled.data() ? "own" : std::to_string(one.fd)) + ":" +
                    std::to_string(one.events);
            const auto found = ready.find(one.fd);
            one.revents = static_cast<short>(found == ready.end() ? 0 : found->second);
        }
        events().push_back(text);
        errno = error;
        return result;
    };
}

std::string joined()
{
    std::string text;
    for (const std::string& event : events())
        text += (text.empty() ? "" : "; ") + event;
    return text;
}

}  // namespace test
