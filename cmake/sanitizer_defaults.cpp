// What the sanitizers are to overlook, and why: only things in the libraries that come with the
// system, and that threads of ours are not joined. Linked into our programs when they are built
// with sanitizers; run-time options add to it.

#if defined(__SANITIZE_ADDRESS__)

// The toolkit's plug-ins and those of the sound libraries are unloaded before leaks are looked for,
// and the places that allocated could then not be named. So here nothing is unloaded.
extern "C" int dlclose(void* library);
extern "C" int dlclose(void* /*library*/) {
    return 0;
}

// Leaks are looked for in exit(): at every end but those by a signal and by _exit, which
// ExitProcess takes when the main thread does not answer it.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "detect_leaks=1:print_suppressions=0";
}

// A leak is overlooked when one of these names stands anywhere in the stack of its allocation. So
// none may be a library that calls us back (the toolkit's own, PortAudio): it would hide our leaks.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return
        // The platform without a display never frees its one screen.
        "leak:libqoffscreen.so\n"
        // The fonts' configuration, when exit() comes from below an event loop.
        "leak:libfontconfig.so\n"
        // The connections to the buses, which the toolkit leaves open to the end.
        "leak:libdbus-1.so\n"
        // What a connection to Icecast used is not freed when it is closed.
        "leak:libshout.so\n"
        // The compositor's objects, which the toolkit's plug-in leaves to the end.
        "leak:libwayland-client.so\n";
}

#elif defined(__SANITIZE_THREAD__)

extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
    return "history_size=4:print_suppressions=0";
}

// But for the first two, these are libraries. They are not built with the sanitizer, which so
// cannot see how they keep their own threads apart. called_from_lib leaves out what a library calls
// itself (memcpy, free and the like), not what our callbacks do below it; race_top looks at the
// innermost function only. Nothing wider: it would hide races of ours.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return
        // Our threads that nobody joins, by design: those of the core, of which the version check
        // comes to an end, and the one that closes the capture.
        "thread:VelantrixServerNoGUI::init\n"
        "thread:VelantrixServerNoGUI::closeAudioUnderWatchdog\n"
        // The toolkit's atomics and futexes, by which it hands events from thread to thread.
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
        // The sound server's main loop on a thread of its own.
        "called_from_lib:libpulse.so\n"
        "called_from_lib:libpulsecommon-\n"
        // What the sound plug-ins bring along is initialised on the thread that loads them, and
        // undone by exit() on the main thread.
        "race:snd_dlopen\n"
        // Locks of the screen's libraries, taken in one and released in another that is ignored
        // above.
        "mutex:libX11.so\n"
        "mutex:libxcb.so\n"
        "mutex:libGLX_mesa.so\n"
        "deadlock:libGLdispatch.so\n"
        // The loader's own lists.
        "called_from_lib:ld-linux\n";
}

#endif
