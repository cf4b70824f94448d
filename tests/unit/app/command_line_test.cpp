#include "app/base/command_line.h"

#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/child_run.h"
#include "tests/support/named_case.h"

namespace {

ArgumentScan scan(std::initializer_list<const char*> arguments) {
    std::vector<const char*> argv{"VelantrixServer"};
    argv.insert(argv.end(), arguments);
    return scanArguments(static_cast<int>(argv.size()), argv.data());
}

/// One command line and what is left of it.
struct ScanCase : NamedCase {
    std::vector<const char*> arguments;
    int port;
    const char* address;
    std::set<std::string> seen = {};  ///< Of "verbose", "nogui", "platform" and "wayland".
};

class ArgumentScanCases : public testing::TestWithParam<ScanCase> {};

TEST_P(ArgumentScanCases, LeavesTheseValues) {
    const ScanCase& expected = GetParam();
    std::vector<const char*> argv{"VelantrixServer"};
    argv.insert(argv.end(), expected.arguments.begin(), expected.arguments.end());
    const ArgumentScan found = scanArguments(static_cast<int>(argv.size()), argv.data());
    EXPECT_EQ(getCmdPortNum(), expected.port);
    EXPECT_STREQ(getCmdBindAddr(), expected.address);
    EXPECT_EQ(getVerbose(), expected.seen.count("verbose") > 0);
    EXPECT_EQ(found.nogui, expected.seen.count("nogui") > 0);
    EXPECT_EQ(found.platformSeen, expected.seen.count("platform") > 0);
    EXPECT_EQ(found.waylandArg, expected.seen.count("wayland") > 0);
}

const ScanCase SCAN_CASES[] = {
    {"NoArguments", {}, 0, ""},
    {"EveryOption",
     {"-nogui", "-verbose", "-p", "6000", "-b", "10.0.0.5", "-platform", "xcb"},
     6000,
     "10.0.0.5",
     {"verbose", "nogui", "platform"}},
    {"PortAndBind", {"-p", "7000", "-b", "host.example"}, 7000, "host.example"},
    {"PortZeroStaysUnset", {"-p", "0"}, 0, ""},
    {"PortThatIsNoNumber", {"-p", "abc"}, 0, ""},
    {"PortWithTrailingText", {"-p", "6000abc"}, 6000, ""},
    {"PortWithLeadingBlankAndSign", {"-p", " +6000"}, 6000, ""},
    {"NegativePort", {"-p", "-5"}, -5, ""},
    {"PortAboveSixteenBits", {"-p", "65536"}, 65536, ""},
    {"LastPortWins", {"-p", "6000", "-p", "6001"}, 6001, ""},
    {"PortValueMissingAtTheEnd", {"-p"}, 0, ""},
    {"BindValueMissingAtTheEnd", {"-b"}, 0, ""},
    {"BindForgetsThePendingPort", {"-p", "-b", "6000"}, 0, "6000"},
    {"PortForgetsThePendingBind", {"-b", "-p", "6000"}, 6000, ""},
    {"VerboseKeepsThePendingPort", {"-p", "-verbose", "6000"}, 6000, "", {"verbose"}},
    {"NoguiKeepsThePendingBind", {"-b", "-nogui", "h"}, 0, "h", {"nogui"}},
    {"PlatformKeepsThePendingPort", {"-p", "-platform", "6000"}, 6000, "", {"platform"}},
    {"BindValueThatBeginsWithDash", {"-b", "-x"}, 0, "-x"},
    {"UnknownWordsAreIgnored", {"--help", "6000", "-nogui2"}, 0, ""},
    {"WordsAreCaseSensitive", {"-NOGUI", "-Verbose", "-P", "6000"}, 0, ""},
    {"ValueIsTakenOnce", {"-p", "6000", "7000"}, 6000, ""},
    {"EmptyBindValueStaysUnset", {"-b", ""}, 0, ""},
    {"PlatformWaylandThenBind",
     {"-platform", "wayland", "-b", "10.0.0.5"},
     0,
     "10.0.0.5",
     {"platform", "wayland"}},
    {"WaylandInALaterValueIsConsumed",
     {"-platform", "xcb", "-b", "my-wayland-box"},
     0,
     "",
     {"platform", "wayland"}},
    {"ConsumedWaylandKeepsThePendingBind",
     {"-platform", "xcb", "-b", "my-wayland-box", "10.0.0.5"},
     0,
     "10.0.0.5",
     {"platform", "wayland"}},
    {"WaylandInAnyLetterCase", {"-platform", "WayLand-EGL"}, 0, "", {"platform", "wayland"}},
    {"WaylandWithoutPlatformIsOnlyAWord", {"wayland"}, 0, ""},
    {"WaylandBeforePlatformIsAValue",
     {"-b", "wayland", "-platform", "xcb"},
     0,
     "wayland",
     {"platform"}},
    {"OptionWordsBeforeTheWaylandRule",
     {"-platform", "-nogui", "-platform"},
     0,
     "",
     {"nogui", "platform"}},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, ArgumentScanCases, testing::ValuesIn(SCAN_CASES), CASE_NAME);

TEST(CommandLine, BindAddressOf255CharactersIsKeptWhole) {
    const std::string address(255, 'a');
    scan({"-b", address.c_str()});
    EXPECT_EQ(getCmdBindAddr(), address);
}

TEST(CommandLine, BindAddressOf256CharactersAndMoreIsCutTo255) {
    for (const std::size_t length : {256U, 257U, 5000U}) {
        scan({"-b", std::string(length, 'a').c_str()});
        EXPECT_EQ(getCmdBindAddr(), std::string(255, 'a'));
    }
}

TEST(CommandLine, ScanStartsFromUnsetValues) {
    scan({"-verbose", "-p", "6000", "-b", "h"});
    scan({});
    EXPECT_EQ(getCmdPortNum(), 0);
    EXPECT_STREQ(getCmdBindAddr(), "");
    EXPECT_FALSE(getVerbose());
}

/// The two variables and what the start prints and takes.
struct EnvironmentCase : NamedCase {
    std::vector<const char*> arguments;
    const char* portVariable;
    const char* addressVariable;
    int port;
    const char* address;
    const char* output;
};

class StartEnvironmentCases : public testing::TestWithParam<EnvironmentCase> {};

TEST_P(StartEnvironmentCases, GiveTheseValuesAndLines) {
    const EnvironmentCase& expected = GetParam();
    const ChildRun run = runChild([&expected] {
        const ScopedVariable port("VELANTRIX_SERVER_PORT", expected.portVariable);
        const ScopedVariable address("VELANTRIX_SERVER_BINDADDR", expected.addressVariable);
        std::vector<const char*> argv{"VelantrixServer"};
        argv.insert(argv.end(), expected.arguments.begin(), expected.arguments.end());
        scanArguments(static_cast<int>(argv.size()), argv.data());
        readStartEnvironment();
        EXPECT_EQ(getCmdPortNum(), expected.port);
        EXPECT_STREQ(getCmdBindAddr(), expected.address);
    });
    EXPECT_EQ(run.out, expected.output);
}

#define PORT_LINE "Using port number 9000 from environment\n"
#define ADDRESS_LINE "Using bind address 10.0.0.6 from environment\n"

const EnvironmentCase ENVIRONMENT_CASES[] = {
    {"NothingSet", {}, nullptr, nullptr, 0, "", ""},
    {"PortTaken", {}, "9000", nullptr, 9000, "", PORT_LINE},
    {"PortWithTrailingText", {}, "9000x", nullptr, 9000, "", PORT_LINE},
    {"PortZeroSaysNothing", {}, "0", nullptr, 0, "", ""},
    {"PortEmpty", {}, "", nullptr, 0, "", ""},
    {"PortWithLeadingBlank", {}, " 9000", nullptr, 0, "", ""},
    {"PortWithPlusSign", {}, "+9000", nullptr, 0, "", ""},
    {"PortWithMinusSign", {}, "-9000", nullptr, 0, "", ""},
    {"CommandLinePortWins", {"-p", "6000"}, "9000", nullptr, 6000, "", ""},
    {"CommandLinePortZeroAsksTheEnvironment", {"-p", "0"}, "9000", nullptr, 9000, "", PORT_LINE},
    {"AddressTaken", {}, nullptr, "10.0.0.6", 0, "10.0.0.6", ADDRESS_LINE},
    {"AddressOfOneCharacter", {}, nullptr, "h", 0, "h", "Using bind address h from environment\n"},
    {"AddressEmpty", {}, nullptr, "", 0, "", ""},
    {"CommandLineAddressWins", {"-b", "10.0.0.5"}, nullptr, "10.0.0.6", 0, "10.0.0.5", ""},
    {"BothAfterAPlatformArgument",
     {"-platform", "wayland"},
     "9000",
     "10.0.0.6",
     9000,
     "10.0.0.6",
     PORT_LINE ADDRESS_LINE},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, StartEnvironmentCases, testing::ValuesIn(ENVIRONMENT_CASES),
                         CASE_NAME);

TEST(CommandLine, LongBindAddressFromTheEnvironmentIsCutAndNamedAsCopied) {
    const ChildRun run = runChild([] {
        const ScopedVariable port("VELANTRIX_SERVER_PORT", nullptr);
        const ScopedVariable address("VELANTRIX_SERVER_BINDADDR", std::string(300, 'b').c_str());
        scan({});
        readStartEnvironment();
        EXPECT_EQ(getCmdBindAddr(), std::string(255, 'b'));
    });
    EXPECT_EQ(run.out, "Using bind address " + std::string(255, 'b') + " from environment\n");
}

}  // namespace
