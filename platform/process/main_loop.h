// main_loop.h - SIGTERM and GLib's default context, as the main loop handles them.
#pragma once

namespace process {

/// Blocks SIGTERM in this thread and in those that it starts. From then on it arrives only inside
/// ecore_main_loop_begin().
/// Thread: main, before any other thread exists. Once.
void holdSignals();

/// Makes this thread the owner of GLib's default context.
/// Thread: main. Once, after descriptors and environment are set up: it is the first use of GLib.
void ownDefaultContext();

}  // namespace process
