// What the sanitizers are to overlook in the libraries that come with the system. Linked into our
// programs when they are built with sanitizers; a run-time option adds to it.

#if defined(__SANITIZE_ADDRESS__)

// Kept by the libraries until the process ends.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libQt5Gui.so\n"
           "leak:libQt5XcbQpa.so\n"
           "leak:libQt5WaylandClient.so\n"
           "leak:libqoffscreen.so\n"
           "leak:libfontconfig.so\n"
           "leak:libpulse\n"
           "leak:libasound.so\n"
           "leak:libjack.so\n"
           "leak:libportaudio.so\n";
}

#elif defined(__SANITIZE_THREAD__)

// The libraries are not built with the thread sanitizer, so it cannot see how they synchronise;
// that goes for the arguments which the toolkit's event queue carries to a slot, too. Some of our
// threads end with the process, by design.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libQt5Core.so\n"
           "called_from_lib:libQt5Gui.so\n"
           "called_from_lib:libQt5Widgets.so\n"
           "called_from_lib:libQt5DBus.so\n"
           "called_from_lib:libQt5XcbQpa.so\n"
           "called_from_lib:libglib-2.0.so\n"
           "race:VelantrixServer::qt_static_metacall\n"
           "race:libdbus-1.so\n"
           "race:libpulse\n"
           "race:libjack.so\n"
           "race:ld-linux\n"
           "race:libdb-5\n"
           "mutex:libpulse\n"
           "mutex:libdbus-1.so\n"
           "mutex:libdb-5\n"
           "deadlock:libdb-5\n"
           "mutex:libxcb.so\n"
           "deadlock:libdbus-1.so\n"
           "deadlock:libportaudio.so\n"
           "deadlock:libasound\n"
           "thread:Thread::start\n";
}

#endif
