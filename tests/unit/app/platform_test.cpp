#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "app/base/command_line.h"
#include "tests/support/child_run.h"
#include "tests/support/named_case.h"

namespace {

const char* const WARNING =
    "Warning: This session may be using a Wayland variant. If you see any other Qt errors you "
    "should choose X11 by starting VelantrixServer with '-platform xcb' option.\n";
const char* const IGNORING =
    "Warning: Ignoring XDG_SESSION_TYPE=wayland. Start VelantrixServer with '-platform wayland' "
    "option or set environment variable QT_QPA_PLATFORM=wayland to run on Wayland anyway.\n";

/// A session, and what is printed and left in QT_QPA_PLATFORM (null: unset).
struct PlatformCase : NamedCase {
    ArgumentScan scan;
    const char* platform;
    const char* session;
    const char* display;
    const char* waylandDisplay;
    const char* output;
    const char* platformAfter;
};

class PlatformChoice : public testing::TestWithParam<PlatformCase> {};

TEST_P(PlatformChoice, PrintsAndSetsThis) {
    const PlatformCase& session = GetParam();
    const ChildRun run = runChild([&session] {
        const ScopedVariable platform("QT_QPA_PLATFORM", session.platform);
        const ScopedVariable type("XDG_SESSION_TYPE", session.session);
        const ScopedVariable display("DISPLAY", session.display);
        const ScopedVariable waylandDisplay("WAYLAND_DISPLAY", session.waylandDisplay);
        choosePlatform(session.scan);
        EXPECT_STREQ(std::getenv("QT_QPA_PLATFORM"), session.platformAfter);
    });
    EXPECT_EQ(run.out, session.output);
    EXPECT_EQ(run.err, "");
}

constexpr ArgumentScan WINDOW{};
constexpr ArgumentScan HEADLESS{true, false, false};
constexpr ArgumentScan PLATFORM_ARG{false, true, false};
constexpr ArgumentScan WAYLAND_ARG{false, true, true};
constexpr ArgumentScan HEADLESS_PLATFORM_ARG{true, true, false};

const PlatformCase PLATFORM_CASES[] = {
    {"PlainX11Session", WINDOW, nullptr, "x11", ":0", nullptr, "", nullptr},
    {"NoSessionType", WINDOW, nullptr, nullptr, ":0", nullptr, "", nullptr},
    {"WaylandSessionForcesX11", WINDOW, nullptr, "wayland", ":0", "w", IGNORING, "xcb"},
    {"WaylandSessionInAnyLetterCase", WINDOW, nullptr, "WayLand", ":0", "w", IGNORING, "xcb"},
    {"EmptyPlatformVariableIsUnset", WINDOW, "", "wayland", ":0", "w", IGNORING, "xcb"},
    {"SessionThatContainsWayland", WINDOW, nullptr, "wayland-egl", ":0", "w", WARNING, nullptr},
    {"SessionThatContainsWAYLAND", WINDOW, nullptr, "MY-WAYLAND", ":0", "w", WARNING, nullptr},
    {"PlatformVariableXcb", WINDOW, "xcb", "wayland", ":0", "w", "", "xcb"},
    {"PlatformVariableWayland", WINDOW, "wayland", "x11", ":0", "w", WARNING, "wayland"},
    {"PlatformVariableWaylandEgl", WINDOW, "Wayland-EGL", "wayland", ":0", "w", WARNING,
     "Wayland-EGL"},
    {"PlatformArgumentLeavesTheSession", PLATFORM_ARG, nullptr, "wayland", ":0", "w", "", nullptr},
    {"PlatformArgumentLeavesTheVariable", PLATFORM_ARG, "wayland", "wayland", ":0", "w", "",
     "wayland"},
    {"WaylandArgumentWarnsOnce", WAYLAND_ARG, "wayland", "wayland", ":0", "w", WARNING, "wayland"},
    {"WaylandArgumentSetsNothing", WAYLAND_ARG, nullptr, "wayland", ":0", "w", WARNING, nullptr},
    {"HeadlessWithoutDisplay", HEADLESS, nullptr, nullptr, nullptr, nullptr, "", "offscreen"},
    {"HeadlessWithEmptyDisplayVariables", HEADLESS, nullptr, nullptr, "", "", "", "offscreen"},
    {"HeadlessWithX11Display", HEADLESS, nullptr, nullptr, ":0", nullptr, "", nullptr},
    {"HeadlessWithWaylandDisplayOnly", HEADLESS, nullptr, nullptr, nullptr, "w", "", "offscreen"},
    {"HeadlessWithPlatformVariable", HEADLESS, "minimal", nullptr, nullptr, nullptr, "", "minimal"},
    {"HeadlessWithPlatformVariableXcb", HEADLESS, "xcb", nullptr, ":0", nullptr, "", "xcb"},
    {"HeadlessWithPlatformVariableXcbWithoutDisplay", HEADLESS, "xcb", nullptr, nullptr, "w", "",
     "offscreen"},
    {"HeadlessWithPlatformVariableWayland", HEADLESS, "wayland", nullptr, nullptr, "w", WARNING,
     "wayland"},
    {"HeadlessWithPlatformArgument", HEADLESS_PLATFORM_ARG, nullptr, nullptr, nullptr, nullptr, "",
     nullptr},
    {"HeadlessWaylandSessionWithoutDisplay", HEADLESS, nullptr, "wayland", nullptr, nullptr,
     IGNORING, "offscreen"},
    {"HeadlessWaylandSessionWithoutX11Display", HEADLESS, nullptr, "wayland", nullptr, "w",
     IGNORING, "offscreen"},
    {"HeadlessWaylandSessionWithDisplay", HEADLESS, nullptr, "wayland", ":0", "w", IGNORING, "xcb"},
    {"WindowWithoutDisplayStaysWithTheToolkit", WINDOW, nullptr, nullptr, nullptr, nullptr, "",
     nullptr},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, PlatformChoice, testing::ValuesIn(PLATFORM_CASES), CASE_NAME);

}  // namespace
