#include "update/web_address.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

constexpr const char* BUILT_IN = "http://built.in";
constexpr const char* COMPLAINT =
    "Ignoring VELANTRIX_WEB_ADDRESS, which is not a usable web address; using http://built.in\n";

/// The choice for a run-time value, followed by what was printed.
std::string choose(const char* value) {
    ::testing::internal::CaptureStdout();
    const std::string chosen = chooseWebAddress(value, BUILT_IN);
    return chosen + "|" + ::testing::internal::GetCapturedStdout();
}

const std::string IGNORED = std::string(BUILT_IN) + "|" + COMPLAINT;

TEST(WebAddress, WithoutAVariableTheBuiltInOneIsUsedSilently) {
    EXPECT_EQ(choose(nullptr), "http://built.in|");
}

TEST(WebAddress, BothSchemesAreUsed) {
    EXPECT_EQ(choose("http://a"), "http://a|");
    EXPECT_EQ(choose("https://mirror.example:8080/x"), "https://mirror.example:8080/x|");
}

TEST(WebAddress, EveryAllowedCharacterIsKept) {
    const std::string address = "http://azAZ09-._~:/?#[]@%+,=";
    EXPECT_EQ(choose(address.c_str()), address + "|");
}

TEST(WebAddress, OneSlashAtTheEndIsDropped) {
    EXPECT_EQ(choose("http://a/"), "http://a|");
    EXPECT_EQ(choose("http://a/b//"), "http://a/b/|");
    EXPECT_EQ(chooseWebAddress(nullptr, "http://built.in/"), "http://built.in");
}

TEST(WebAddress, OtherSchemesAreIgnored) {
    for (const char* const value : {"", "a", "ftp://a", "file:///etc/passwd", "HTTP://a", "http:/a",
                                    " http://a", "javascript://http://a"}) {
        EXPECT_EQ(choose(value), IGNORED) << value;
    }
}

TEST(WebAddress, HostBeginsWithALetterADigitOrABracket) {
    for (const std::string value :
         {"http://a", "http://Z", "http://0", "http://9.8.7.6", "https://[::1]:80"}) {
        EXPECT_EQ(choose(value.c_str()), value + "|");
    }
}

TEST(WebAddress, AddressWithoutAHostIsIgnored) {
    for (const char* const value :
         {"http://", "https://", "http:///", "https:///x", "http://?x", "http://#x", "http://:80/",
          "http://@a", "http://.a", "http://-a", "http://]", "http://~a", "http://_a",
          "http://%61"}) {
        EXPECT_EQ(choose(value), IGNORED) << value;
    }
}

TEST(WebAddress, EveryOtherCharacterMakesTheValueIgnored) {
    const std::string allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~:/?#[]@%+,=";
    for (int code = 1; code < 256; ++code) {
        const char character = static_cast<char>(code);
        const std::string value = std::string("http://a/") + character + "b";
        const bool usable = allowed.find(character) != std::string::npos;
        EXPECT_EQ(choose(value.c_str()), usable ? value + "|" : IGNORED) << code;
    }
}

TEST(WebAddress, CommandIsTheAddressAfterTheProgram) {
    EXPECT_EQ(browserCommand("http://www.velantrix.example"),
              "xdg-open http://www.velantrix.example");
    EXPECT_EQ(browserCommand("https://u@h:1/a_b-c.d,e+f%20=g"),
              "xdg-open https://u@h:1/a_b-c.d,e+f%20=g");
}

/// Runs a command with a stand-in for xdg-open that keeps its arguments, one a line, in a folder
/// where the shell would find files for a pattern; returns them.
std::string argumentsAfterShell(const std::string& command) {
    const QTemporaryDir folder;
    const std::filesystem::path path = folder.path().toStdString();
    std::filesystem::create_directories(path / "http:" / "a");
    std::ofstream(path / "http:" / "a" / "xb") << "";
    std::ofstream(path / "xdg-open") << "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.arguments\"\n";
    std::filesystem::permissions(path / "xdg-open", std::filesystem::perms::owner_all);
    const std::string line = "cd " + path.string() + " && PATH=" + path.string() + ":$PATH && ";
    EXPECT_EQ(std::system((line + command).c_str()), 0);
    std::ostringstream arguments;
    arguments << std::ifstream(path / "xdg-open.arguments").rdbuf();
    return arguments.str();
}

TEST(WebAddress, ShellPassesTheAddressOnAsItIs) {
    for (const std::string address :
         {"http://www.velantrix.example", "http://a/?b", "http://a/[xy]b", "http://a/#b",
          "http://a:~/b=~", "http://azAZ09-._~:/?#[]@%+,=", "http://[::1]:80/~x?y=z#~"}) {
        EXPECT_EQ(argumentsAfterShell(browserCommand(address)), address + "\n");
    }
}

TEST(WebAddress, ShellWouldExpandTheAddressWithoutTheEscapes) {
    EXPECT_EQ(argumentsAfterShell("xdg-open http://a/?b"), "http://a/xb\n");
}

}  // namespace
