// main_loop.h - the main loop's hold on SIGTERM and on GLib's default context.
#pragma once

namespace process {

/// Blocks SIGTERM in this thread, and so in all that it starts, and makes this thread the owner of
/// GLib's default context. From here on SIGTERM arrives only inside ecore_main_loop_begin().
/// Thread: main, before any other exists. Once.
void holdSignals();

}  // namespace process
