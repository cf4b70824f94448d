#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <ifaddrs.h>
#include <net/if.h>
#include <optional>
#include <string>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/command_line.h"
#include "app/base/console.h"
#include "tests/support/child_run.h"
#include "tests/support/net_namespace.h"

namespace {

/// The address that cannot be written as text; 0: none.
in_addr_t unwritable = 0;

/// While it is set, getifaddrs() returns this instead of the system's interfaces: a borrowed list,
/// null for an empty one.
std::optional<ifaddrs*> madeUpInterfaces;

}  // namespace

extern "C" {

const char* __real_inet_ntop(int family, const void* address, char* text, socklen_t room);

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t room) {
    if (family == AF_INET && unwritable != 0 &&
        static_cast<const in_addr*>(address)->s_addr == unwritable) {
        errno = ENOSPC;
        return nullptr;
    }
    return __real_inet_ntop(family, address, text, room);
}

int __real_getifaddrs(ifaddrs** list);
void __real_freeifaddrs(ifaddrs* list);

int __wrap_getifaddrs(ifaddrs** list) {
    if (!madeUpInterfaces) {
        return __real_getifaddrs(list);
    }
    *list = *madeUpInterfaces;
    return 0;
}

void __wrap_freeifaddrs(ifaddrs* list) {
    if (madeUpInterfaces) {
        EXPECT_EQ(list, *madeUpInterfaces);
    } else {
        __real_freeifaddrs(list);
    }
}
}

namespace {

const std::string NOTHING_FOUND = "Could not determine this server's IPv4 address\n=> (Unknown)\n";

void show() {
    consolePrintf("=> %s\n", VelantrixServerNoGUI::GetIPAddress());
}

/// What is printed by `body` in a namespace with one veth pair, "first" before "second" in the
/// system's order, both down and without addresses.
template <class Body>
std::string inFreshNetwork(Body body) {
    const ChildRun run = runChild([&body] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        const LoopbackNetwork network;
        ip("link add first index 10 type veth peer name second index 11");
        body();
    });
    return run.out;
}

void addAndRaise(const std::string& device, const std::string& address) {
    ip("addr add " + address + " dev " + device);
    ip("link set " + device + " up");
}

TEST(AddressDetection, LoopbackAloneYieldsUnknown) {
    EXPECT_EQ(inFreshNetwork(show), NOTHING_FOUND);
}

TEST(AddressDetection, OtherAddressesOfTheLoopbackNetYieldUnknown) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "127.5.6.7/24");
                  show();
              }),
              NOTHING_FOUND);
}

TEST(AddressDetection, NothingFoundIsPrintedAgainUntilAnAddressComes) {
    EXPECT_EQ(inFreshNetwork([] {
                  show();
                  show();
                  addAndRaise("first", "10.1.2.3/24");
                  show();
              }),
              NOTHING_FOUND + NOTHING_FOUND +
                  "This server's probable IPv4 address: 10.1.2.3\n=> 10.1.2.3\n");
}

TEST(AddressDetection, FirstOfSeveralAddressesWinsAndOthersAreAlternatesOnce) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("second", "192.168.7.7/24");
                  addAndRaise("first", "8.8.4.4/24");
                  ip("addr add 169.254.9.9/16 dev first");
                  show();
                  show();
              }),
              "This server's probable IPv4 address: 8.8.4.4\n"
              "Possible alternate IP address: 169.254.9.9\n"
              "Possible alternate IP address: 192.168.7.7\n"
              "=> 8.8.4.4\n"
              "=> 8.8.4.4\n");
}

TEST(AddressDetection, InterfaceThatIsDownIsIgnored) {
    EXPECT_EQ(inFreshNetwork([] {
                  ip("addr add 10.0.0.1/24 dev first");
                  addAndRaise("second", "10.0.1.1/24");
                  show();
              }),
              "This server's probable IPv4 address: 10.0.1.1\n=> 10.0.1.1\n");
}

TEST(AddressDetection, AddressOfIpVersionSixIsIgnored) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "2001:db8::1/64");
                  show();
              }),
              NOTHING_FOUND);
}

TEST(AddressDetection, AddressThatGoesYieldsUnknownSilently) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "10.1.2.3/24");
                  show();
                  ip("link set first down");
                  show();
                  ip("link set first up");
                  show();
                  ip("addr flush dev first");
                  show();
                  ip("addr add 10.9.9.9/24 dev first");
                  show();
              }),
              "This server's probable IPv4 address: 10.1.2.3\n=> 10.1.2.3\n"
              "=> (Unknown)\n=> 10.1.2.3\n=> (Unknown)\n=> 10.9.9.9\n");
}

TEST(AddressDetection, ChosenBindAddressIsTakenWithoutALook) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "10.1.2.3/24");
                  const char* const arguments[] = {"server", "-b", "192.168.1.50"};
                  scanArguments(3, arguments);
                  show();
                  scanArguments(1, arguments);
                  show();
              }),
              "=> 192.168.1.50\nThis server's probable IPv4 address: 10.1.2.3\n=> 10.1.2.3\n");
}

TEST(AddressDetection, BindAddressFromTheEnvironmentIsTakenWithoutALook) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "10.1.2.3/24");
                  setenv("VELANTRIX_SERVER_BINDADDR", "192.168.1.60", 1);
                  const char* const arguments[] = {"server"};
                  scanArguments(1, arguments);
                  readStartEnvironment();
                  show();
                  giveUpCmdBindAddr();
                  show();
              }),
              "Using bind address 192.168.1.60 from environment\n=> 192.168.1.60\n"
              "This server's probable IPv4 address: 10.1.2.3\n=> 10.1.2.3\n");
}

TEST(AddressDetection, AddressThatCannotBeWrittenIsReportedAndSkipped) {
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "10.1.2.3/24");
                  unwritable = inet_addr("10.1.2.3");
                  show();
                  addAndRaise("second", "10.9.9.9/24");
                  show();
              }),
              "first: inet_ntop failed!\n" + NOTHING_FOUND +
                  "first: inet_ntop failed!\n"
                  "This server's probable IPv4 address: 10.9.9.9\n=> 10.9.9.9\n");
}

/// An interface that is up, with this address or, null, without any.
ifaddrs interfaceThatIsUp(char* name, sockaddr_in* address, ifaddrs* next) {
    ifaddrs entry = {};
    entry.ifa_next = next;
    entry.ifa_name = name;
    entry.ifa_flags = IFF_UP;
    entry.ifa_addr = reinterpret_cast<sockaddr*>(address);
    return entry;
}

TEST(AddressDetection, InterfaceWithoutAnAddressIsIgnored) {
    EXPECT_EQ(inFreshNetwork([] {
                  char tunnel[] = "tunnel";
                  char card[] = "card";
                  sockaddr_in address = {};
                  address.sin_family = AF_INET;
                  address.sin_addr.s_addr = inet_addr("10.4.5.6");
                  ifaddrs last = interfaceThatIsUp(tunnel, nullptr, nullptr);
                  ifaddrs usable = interfaceThatIsUp(card, &address, &last);
                  ifaddrs first = interfaceThatIsUp(tunnel, nullptr, &usable);
                  madeUpInterfaces = &last;
                  show();
                  madeUpInterfaces = &first;
                  show();
              }),
              NOTHING_FOUND + "This server's probable IPv4 address: 10.4.5.6\n=> 10.4.5.6\n");
}

/// Runs `body` while no further file or socket can be opened.
template <class Body>
void withoutDescriptors(Body body) {
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    rlimit none = usual;
    none.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &none);
    body();
    setrlimit(RLIMIT_NOFILE, &usual);
}

TEST(AddressDetection, FailedInterfaceListIsReportedEveryTime) {
    const std::string refused = "getifaddrs: Too many open files\n";
    EXPECT_EQ(inFreshNetwork([] {
                  addAndRaise("first", "10.1.2.3/24");
                  withoutDescriptors(show);
                  show();
                  withoutDescriptors(show);
              }),
              refused + NOTHING_FOUND +
                  "This server's probable IPv4 address: 10.1.2.3\n=> 10.1.2.3\n" + refused +
                  "=> (Unknown)\n");
}

}  // namespace
