// loop.h - a turn of the main loop, called as Ecore calls it.
#pragma once

#include "doubles.h"

#include <Ecore.h>
#include <glib-unix.h>

#include <functional>
#include <map>
#include <string>

namespace test {

/// Ecore's side of one turn.
struct Turn {
    Turn()
    {
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&exceptional);
    }

    int take(timeval* limit = nullptr, int count = FD_SETSIZE)
    {
        return ecore_main_loop_select_func_get()(count, &readable, &writable, &exceptional, limit);
    }

    /// @return the descriptors that are marked, each with r, w and x
    std::string marks() const
    {
        std::string text;
        for (int fd = 0; fd < FD_SETSIZE; fd++) {
            const std::string letters = std::string(FD_ISSET(fd, &readable) ? "r" : "") +
                                        (FD_ISSET(fd, &writable) ? "w" : "") +
                                        (FD_ISSET(fd, &exceptional) ? "x" : "");
            if (!letters.empty())
                text += " " + std::to_string(fd) + letters;
        }
        return text;
    }

    fd_set readable;
    fd_set writable;
    fd_set exceptional;
};

/// Descriptors of the tests: one that GLib watches, and one of Ecore.
constexpr int kGlib = 300;
constexpr int kEcore = 400;

/// Watches a descriptor in GLib's default context.
void watch(int fd, GIOCondition what, GUnixFDSourceFunc call);

/// Starts the loop in a child.
/// @return what the steps return
std::string inLoop(const std::function<std::string()>& steps);

/// A wait that notes what is polled, then sets these results.
/// @param ready revents by descriptor
Wait answers(int result, const std::map<int, int>& ready = {}, int error = 0);

/// @return the timeline, with "; " between its events
std::string joined();

}  // namespace test
