// platform/include/platform/process.h - start-up, and the main loop that carries both Ecore and
// GLib.
//
// A backend fills this in with code that is linked into the executable itself, beside the shared
// library of the other platform functions. It also steps in front of ecore_init(),
// ecore_main_loop_begin() and ecore_main_loop_quit() where the platform's own versions would lose a
// signal, dispatch after the end, or leave GLib's default context unserved.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Makes the process fit to run: call it once, first in main, before any thread exists and any
/// library is used. Afterwards
/// - SIGTERM arrives on the main thread only, and only while ecore_main_loop_begin() waits, holding
///   nothing: the handler may lock, free and join. A SIGTERM that comes earlier stays pending until
///   then; none is lost.
/// - SIGPIPE is ignored from ecore_init() on; every other signal keeps its disposition.
/// - after ecore_main_loop_quit() nothing more is dispatched, by Ecore or by GLib.
/// - GLib's default main context is run by ecore_main_loop_begin() and by nobody else.
/// - as many descriptors may be open as the system lets the process have
/// - a thread that is made without a stack size gets a small one
/// - environment variables that steer libraries (proxies, key logs, trust, engine configuration)
///   are gone.
/// Thread: main.
void platform_process_start(void);

#ifdef __cplusplus
}
#endif
