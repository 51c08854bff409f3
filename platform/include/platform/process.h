// platform/include/platform/process.h - start-up, and the main loop that carries both Ecore and
// GLib.
//
// The code behind this header is linked into the executable itself; the other platform functions are
// in a shared library. It also replaces ecore_init(), ecore_main_loop_begin() and
// ecore_main_loop_quit() where the platform's own versions would lose a signal, dispatch after the
// end, or not run GLib's default context.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Prepares the process. It is the first call of main, once, before any thread exists and any library
/// is used. Afterwards
/// - SIGTERM arrives on the main thread only, and only while ecore_main_loop_begin() waits without a
///   lock: the handler may lock, free and join. An earlier SIGTERM stays pending; none is lost.
/// - SIGPIPE is ignored from ecore_init() on; every other signal keeps its disposition.
/// - after ecore_main_loop_quit() neither Ecore nor GLib dispatches anything.
/// - only ecore_main_loop_begin() runs GLib's default main context.
/// - the soft limit of descriptors is the hard one.
/// - a thread that asks for no stack size gets a small stack.
/// - the memory of a large block goes back to the system as soon as the block is freed, if the C library
///   can do that.
/// - environment variables that steer libraries (proxies, key logs, trust, engine configuration)
///   are unset.
/// Thread: main.
void platform_process_start(void);

/// Returns free memory to the system, if the C library can. Takes milliseconds. Thread: any.
void platform_process_give_back_memory(void);

#ifdef __cplusplus
}
#endif
