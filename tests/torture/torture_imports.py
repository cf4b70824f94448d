"""Which functions the server, ENet and Opus take from libraries, and why some are never made to fail.

A new import that is neither made to fail by the torture library nor listed here is an error.
"""

import re
import subprocess

NEVER_MADE_TO_FAIL = {
    "they cannot fail, or only for arguments that are wrong":
        "abort __assert_fail _exit exit raise alarm getpid gettid getenv clock_gettime gettimeofday "
        "time signal sigaction setvbuf strcmp strlen strncpy strtol memchr memcmp memcpy memmove memset "
        "inet_pton pthread_self pthread_mutex_lock pthread_mutex_unlock sem_init sem_post",
    "on Linux they cannot fail for a thread that exists and is not joined twice":
        "pthread_attr_init pthread_attr_setdetachstate pthread_attr_destroy pthread_detach "
        "pthread_join",
    "they give back, and return nothing":
        "free freeifaddrs freeaddrinfo enet_free enet_packet_destroy enet_peer_reset "
        "enet_list_remove",
    "on Linux a descriptor is closed whatever close() returns, and only files keep data back: these "
    "are sockets, pipes and /dev/null":
        "close",
    "they return nothing, or a plain value":
        "enet_host_flush enet_host_check_events enet_peer_disconnect enet_peer_ping enet_list_clear "
        "enet_list_move enet_list_size enet_protocol_command_size "
        "enet_time_set enet_peer_receive opus_strerror Pa_GetErrorText dlerror",
    "it fails by the calls below it, which are made to fail":
        "enet_socket_set_option",
    "they write to the standard streams from within the C library, where nothing can be put in "
    "between; an output that is full or closed is in tests/unit/app/console_test.cpp":
        "fflush fwrite fprintf perror",
    "they format into room of our own; only an unknown multibyte sequence fails":
        "snprintf vsnprintf strerror_r",
    "it makes room for longer lines than a session has":
        "vasprintf",
    "no part of the server calls them: tests/unit/app/thread_test.cpp":
        "pthread_getschedparam pthread_setschedparam",
    "arithmetic":
        "cos exp log log10 pow sin sincos sqrt sqrtf",
    "the window's, which a session does not have: tests/unit/gui/no_child_test.cpp, "
    "tests/system/test_version_check.py":
        "vfork execl prctl system",
    "ENet's functions for what the server does not use: TCP, names, waiting for several sockets":
        "accept connect listen shutdown select getsockopt getnameinfo",
}

# The compiler's and the C++ library's own, and the toolkit's; ours calls operator new, which is
# made to fail.
RUNTIME = r"_Z|__cxa_|_Unwind_|__gxx_|__libc_start_main|__stack_chk_fail|__tls_get_addr|" \
          r"__errno_location|qt_|(stdout|stderr|stdin)$"


def symbols(path, which):
    """The names of the dynamic symbols of a program or library, without their versions."""
    listing = subprocess.run(["nm", "-D", which, path], check=True, capture_output=True, text=True)
    return {line.split()[-1].split("@")[0] for line in listing.stdout.splitlines()
            if line.split()[-2] != "w"}


def imports(path):
    """What of other libraries `path` calls; variants that check, or read numbers as C23 writes
    them, by their ordinary names."""
    return {re.sub(r"^__(?:(\w+)_chk|isoc23_(\w+))$", r"\1\2", name)
            for name in symbols(path, "--undefined-only") if not re.match(RUNTIME, name)}


def watched(program):
    """The program and those of its libraries whose calls are made to fail."""
    listing = subprocess.run(["ldd", program], check=True, capture_output=True, text=True)
    return [program, *re.findall(r"lib(?:enet|opus)\.\S* => (\S+)", listing.stdout)]


def forgotten(torture_library, program):
    """The imports of the program that are neither made to fail nor listed above."""
    known = symbols(torture_library, "--defined-only")
    for names in NEVER_MADE_TO_FAIL.values():
        known.update(names.split())
    return sorted(set().union(*map(imports, watched(program))) - known)
