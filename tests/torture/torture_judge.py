"""What a failing call may lead to, and whether a session kept to it."""

import collections
import dataclasses
import re
import signal

from torture_session import ENOUGH_PACKETS, QUERIES, VERSION_FOUND, run_session

BASELINES = 4
FATAL = 255
# Seconds from the signal to the end. The server waits 3 s for the sound and about 1 s for threads
# and lines; the rest is for a busy machine.
MAX_ENDING = 10.0

SOUND = ("Pa_Initialize", "Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo", "Pa_OpenStream",
         "Pa_StartStream")
HOST = ("malloc", "bind", "fcntl", "ioctl", "socket", "enet_host_create")
QUIET = ("fcntl", "open", "dup2")
WEB_CALLS = ("curl_easy_setopt", "curl_easy_perform", "realloc", "malloc")
LIBRARY = ("dlopen", "dlsym")
OPTION = ("setsockopt", "socket", "bind")
NETWORK = ("enet_host_service", "sendmsg", "recvmsg", "poll")


@dataclasses.dataclass(frozen=True)
class Report:
    """A line that follows from the failure of one of the functions, and its meaning."""

    functions: tuple
    line: str
    fatal: bool = False  # The server cannot start, and ends with status 255.
    silent: bool = False  # Nobody hears anything.
    unchecked: bool = False  # No version check.
    killed: bool = False  # A stop signal takes its default action.
    of_stream: bool = False  # Also from the calls of the running stream.
    of_connection: bool = False  # One client may have to connect once more.
    unanswered: int = 0  # Discovery queries without an answer.
    fewer: int = 0  # Descriptors that are not open for this reason.


REPORTS = (
    Report(("operator new",), r"^VelantrixServer: not enough memory\. Quitting\.$", fatal=True),
    Report(("operator new",), r"^Not enough memory to check for a new version$", unchecked=True),
    Report(("pthread_create",), r"^Could not create (audio|multicast receive) thread, err",
           fatal=True),
    Report(("pthread_create",), r"^Could not create version check thread, err", unchecked=True),
    Report(("pthread_create",), r"^Could not create (console|audio shutdown) thread, err"),
    Report(("pipe2",), r"^Stop signals will end the program at once: pipe2", killed=True,
           fewer=2),
    Report(("getifaddrs",), r"^getifaddrs: "),
    Report(("inet_ntop",), r"^\w+: inet_ntop failed!$"),
    Report(HOST, r"^An error occurred while creating network server host", fatal=True),
    Report(("enet_initialize_with_callbacks",),
           r"^An error occurred while initializing network communication$", fatal=True),
    Report(("enet_address_set_host", "getaddrinfo"),
           r"^Warning, could not bind server to address .* Using INADDR_ANY"),
    Report(("setsockopt",), r"^Warning, could not limit the length of datagrams, err = "),
    Report(("opus_encoder_create", "malloc"), r"^Warning, could not initialize Opus encoder"),
    Report(SOUND, r"^Error -?\d+ opening audio input device", silent=True),
    Report(SOUND, r"^Error: (No|Invalid) default input device"),
    Report((*SOUND, "Pa_CloseStream"), r"^An error occured while (opening|closing) the portaudio"),
    Report((*SOUND, "Pa_CloseStream"), r"^Error (message|number): "),
    Report(QUIET, r"^PortAudio Pa_Initialize call completed with return value 0$"),
    Report(OPTION, r"^multiHost: (Socket|Bind) .*failed: ", fewer=1, unanswered=len(QUERIES)),
    Report(("socket",), r"^multiHost: Response socket open failed: ", unanswered=1),
    Report(("sendto",), r"^multiHost: (Socket|Response socket) sendto failed: ", unanswered=1),
    Report(LIBRARY, r"^Error, could not dl(open|sym)", unchecked=True),
    Report(LIBRARY, r"^ (Velantrix Server will continue|versions\. Please visit|new versions of"
           r"|libcurl using|option try)"),
    Report(("curl_easy_init",), r"^WebIf::checkVersion: curl_easy_init\(\) failed",
           unchecked=True),
    Report(WEB_CALLS, r"^WebIf::checkVersion: curl_easy_perform\(\) failed: ", unchecked=True),
    Report(("realloc",), r"^not enough memory \(realloc returned NULL\)$"),
    Report(NETWORK, r"^Error returned from service call$", of_stream=True),
    Report(("malloc",), r"^Warning, not enough memory for network communication$",
           of_stream=True, of_connection=True),
)

# These never fail without one of their reports.
REPORTING = {"operator new", "pthread_create", "pipe2", "getifaddrs", "inet_ntop", "bind", "sendto",
             "enet_host_create", "enet_initialize_with_callbacks", "enet_address_set_host", "getaddrinfo",
             "opus_encoder_create", *SOUND, "Pa_CloseStream", *LIBRARY, "curl_easy_init",
             "curl_easy_setopt", "curl_easy_perform", "realloc", "enet_host_service"}


# On a busy machine a client may not run for half a second, with or without a failing call.
OF_A_STALLED_CLIENT = ("Outgoing/sent queue sizes: #/#",
                       "Clearing outgoing msg queue, outgoing/sent queue sizes: #/#",
                       "Removed # outgoing messages")


def normal(line):
    return re.sub(r"\d+", "#", line)


def matching(reports, lines):
    return [report for report in reports if any(re.search(report.line, line) for line in lines)]


class Judge:
    """Knows what sessions without a failure look like, the server started with `arguments`."""

    def __init__(self, web, arguments):
        self.arguments = arguments
        self.lines = {"", *OF_A_STALLED_CLIENT}
        self.sites = {}
        self.live = collections.Counter()
        self.peak = collections.Counter()
        self.descriptors = None
        self.before_end = set()
        self.sessions = collections.Counter()  # In how many a site was called.
        for _ in range(BASELINES):
            outcome = run_session(web, arguments)
            if outcome.status != 0 or min(outcome.packets) < ENOUGH_PACKETS or \
                    outcome.answers < len(QUERIES):
                raise AssertionError(
                    f"a session without failure went wrong: {outcome.status}, {outcome.packets}, "
                    f"{outcome.answers} answers\n  " + "\n  ".join(outcome.lines))
            if not any(VERSION_FOUND in line for line in outcome.lines):
                raise AssertionError("no version check:\n  " + "\n  ".join(outcome.lines))
            self.learn(outcome)

    def learn(self, outcome):
        self.lines.update(map(normal, outcome.lines))
        if not outcome.descriptors:
            raise AssertionError("the descriptors of a session could not be listed")
        self.descriptors = min(self.descriptors or outcome.descriptors, outcome.descriptors,
                               key=len)
        self.before_end.update(outcome.sites_before_end)
        for number, site in outcome.sites.items():
            known = self.sites.setdefault(number, site)
            known.calls = min(known.calls, site.calls)
            known.stream |= site.stream
            self.sessions[number] += 1
            self.live[number] = max(self.live[number], site.live)
            self.peak[number] = max(self.peak[number], site.peak)

    def common_sites(self):
        """Those of all sessions, with the number of calls that each of them made."""
        return {number: site for number, site in self.sites.items()
                if self.sessions[number] == BASELINES}

    def other_sites(self):
        """Those that depend on time: only some sessions came by them."""
        return {number: site for number, site in self.sites.items()
                if self.sessions[number] < BASELINES}

    def new_lines(self, outcome):
        return [line for line in outcome.lines if normal(line) not in self.lines]

    def complaint(self, outcome, number):
        """What is wrong with a session whose call at the site `number` failed, or nothing."""
        site = self.sites[number]
        reports = [report for report in REPORTS if site.function in report.functions and
                   (report.of_stream or not site.stream)] if outcome.faults else []
        seen = matching(reports, outcome.lines)
        return (self._status(outcome, number, seen) or self._lines(outcome, site, reports, seen) or
                self._service(outcome, site, seen) or self._rest(outcome, seen))

    def _status(self, outcome, number, seen):
        """A stop signal whose own report to the main loop fails ends the server, too; that is the
        only write which nothing but the signal leads to."""
        site = self.sites[number]
        killed = site.function == "write" and number not in self.before_end and outcome.faults
        wanted = 0
        if any(report.fatal for report in seen):
            wanted = FATAL
        elif killed or any(report.killed for report in seen):
            wanted = -signal.SIGTERM
        if outcome.status is None:
            return "it hangs"
        if outcome.status != wanted:
            return f"it ends with status {outcome.status} instead of {int(wanted)}"
        if wanted == FATAL and any(outcome.packets) and number in self.before_end:
            return "it ends although clients are being served"
        return None

    def _lines(self, outcome, site, reports, seen):
        strange = [line for line in self.new_lines(outcome)
                   if not any(re.search(report.line, line) for report in reports)]
        if strange:
            return f"it prints {strange[0]!r}"
        if outcome.faults and site.function in REPORTING and not seen:
            return "the failure is not reported"
        return None

    @staticmethod
    def _service(outcome, site, seen):
        """Both clients hear, and the version check comes to its end, unless a report says why
        not. A console line that could not be written is lost."""
        if any(report.fatal for report in seen):
            return None
        if min(outcome.packets) < ENOUGH_PACKETS and not any(report.silent for report in seen):
            return f"the clients got only {outcome.packets} packets"
        if outcome.answers + sum(report.unanswered for report in seen) < len(QUERIES):
            return f"the queries got only {outcome.answers} answers"
        if outcome.reconnected > (1 if any(report.of_connection for report in seen) else 0):
            return f"the clients had to connect once more, {outcome.reconnected} of them"
        line_lost = site.function == "write" and outcome.asked
        if not (line_lost or any(VERSION_FOUND in line for line in outcome.lines) or
                any(report.unchecked for report in seen)):
            return "the version check has no outcome"
        return None

    def _rest(self, outcome, seen):
        if outcome.ending > MAX_ENDING:
            return f"it takes {outcome.ending:.1f} s to end"
        usual = len(self.descriptors) - sum(report.fewer for report in seen)
        if len(outcome.descriptors) > usual:
            more = collections.Counter(map(normal, outcome.descriptors))
            more.subtract(map(normal, self.descriptors))
            return (f"descriptors leak: {len(outcome.descriptors)}, else {usual}, "
                    + ", ".join(+more))
        leaks = self.leaks(outcome)
        return "blocks leak: " + "; ".join(leaks) if leaks else None

    def leaks(self, outcome):
        """Sites that hold more blocks than they may.

        After an orderly end, in which all was given back, that is what they hold without a failure,
        and nothing on a new way. An end in the middle, by the server or by a signal, leaves what
        was in use: no more than the most at a time without a failure, or one on a new way, the
        stand-in for the core. The same goes for the start record of a thread that could not be
        started, which is left alone on purpose, and for a connection that waits for its time-out.
        """
        middle = outcome.status != 0 or outcome.reconnected > 0 or any(
            re.search("^Could not create .* thread, err", line) for line in outcome.lines)
        most, on_new_way = (self.peak, 1) if middle else (self.live, 0)
        return [f"{site.function} {site.way}: {site.live} blocks, else {most[number]}"
                for number, site in outcome.sites.items()
                if site.live > (most[number] if number in self.sites else on_new_way)]
