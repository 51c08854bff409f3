// main_loop.h - the main loop's hold on SIGTERM and on GLib's default context.
#pragma once

namespace process {

/// Blocks SIGTERM in this thread, and so in all that it starts. From here on it arrives only inside
/// ecore_main_loop_begin().
/// Thread: main, before any other exists. Once.
void holdSignals();

/// Makes this thread the owner of GLib's default context.
/// Thread: main. Once, when descriptors and environment are in order: it is the first use of GLib.
void ownDefaultContext();

}  // namespace process
