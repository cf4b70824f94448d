// Exceptions for the sanitizers, with reasons: only for system libraries, and for our threads that
// are not joined. Linked into programs built with sanitizers; run-time options add to it.

#if defined(__SANITIZE_ADDRESS__)

// The toolkit and sound libraries unload plug-ins before the leak check, which then cannot name
// their functions. So nothing is unloaded.
extern "C" int dlclose(void* library);
extern "C" int dlclose(void* /*library*/) {
    return 0;
}

// The leak check runs in exit(), so not after a signal or _exit, which ExitProcess calls when the
// main thread does not answer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "detect_leaks=1:print_suppressions=0";
}

// Ignores a leak with one of these names anywhere in the stack of its allocation. So none may be a
// library that calls our code (the toolkit, PortAudio).
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return
        // The platform without a display never frees its one screen.
        "leak:libqoffscreen.so\n"
        // The fonts' configuration, when exit() is called inside an event loop.
        "leak:libfontconfig.so\n"
        // The connections to the buses, which the toolkit never closes.
        "leak:libdbus-1.so\n"
        // What a connection to Icecast used is not freed when it is closed.
        "leak:libshout.so\n"
        // The compositor's objects, which the toolkit's plug-in never frees.
        "leak:libwayland-client.so\n";
}

#elif defined(__SANITIZE_THREAD__)

extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "history_size=4:print_suppressions=0";
}

// All but the first two are libraries that are not built with the sanitizer, which cannot see their
// synchronisation. called_from_lib ignores what a library calls itself (memcpy, free), not what our
// callbacks do. Nothing wider: it would hide our races.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return
        // Our threads that are never joined, by design.
        "thread:VelantrixServerNoGUI::init\n"
        "thread:VelantrixServerNoGUI::closeAudioUnderWatchdog\n"
        // The toolkit's atomics and futexes between threads.
        "called_from_lib:libQt*Core.so\n"
        "called_from_lib:libQt*Gui.so\n"
        "called_from_lib:libQt*Widgets.so\n"
        "called_from_lib:libQt*DBus.so\n"
        "called_from_lib:libQt*XcbQpa.so\n"
        // The main loop below the toolkit's.
        "called_from_lib:libglib-2.0.so\n"
        // The buses' and the screen's messages, written by one thread and read by another.
        "called_from_lib:libdbus-1.so\n"
        "called_from_lib:libxcb.so\n"
        // The main loop of PulseAudio's library, on its own thread.
        "called_from_lib:libpulse.so\n"
        "called_from_lib:libpulsecommon-\n"
        // The sound plug-ins' data is initialised on the thread that loads them and destroyed by
        // exit() on the main thread.
        "race:snd_dlopen\n"
        // Locks of the screen's libraries, taken in one and released in another.
        "mutex:libX11.so\n"
        "mutex:libxcb.so\n"
        "mutex:libGLX_mesa.so\n"
        "deadlock:libGLdispatch.so\n"
        // The loader's own lists.
        "called_from_lib:ld-linux\n";
}

#endif
