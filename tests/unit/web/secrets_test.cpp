#include "web/secrets.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::Not;

class PasswordFile : public testing::Test {
  protected:
    PasswordFile() {
        char folder[] = "/tmp/velantrix-login-XXXXXX";
        folder_ = mkdtemp(folder);
    }
    ~PasswordFile() override { std::filesystem::remove_all(folder_); }

    [[nodiscard]] std::string path() const { return folder_ / "login"; }

    std::string read(const std::string& content, unsigned mode = 0600) {
        std::ofstream(path(), std::ios::binary) << content;
        std::filesystem::permissions(path(), std::filesystem::perms(mode));
        return vxweb::readLogin(path(), login);
    }

    std::string login;

  private:
    std::filesystem::path folder_;
};

TEST_F(PasswordFile, OneLineIsTaken) {
    EXPECT_EQ(read("anna:secret\n"), "");
    EXPECT_EQ(login, "anna:secret");
    EXPECT_EQ(read("anna:with:colon"), "");
    EXPECT_EQ(login, "anna:with:colon");
}

TEST_F(PasswordFile, OneThatOthersMayReadIsRefused) {
    EXPECT_THAT(read("anna:secret\n", 0640), HasSubstr("is readable by others"));
    EXPECT_THAT(read("anna:secret\n", 0604), HasSubstr("is readable by others"));
    EXPECT_EQ(login, "");
}

TEST_F(PasswordFile, WhatIsNotUserAndPasswordIsRefusedWithoutBeingShown) {
    for (const std::string& content :
         {std::string(), std::string("secret"), std::string(":secret"), std::string("anna:"),
          std::string("anna:secret\nbert:secret\n"), std::string("anna:se\0cret", 12),
          "anna:" + std::string(2000, 's')}) {
        const std::string problem = read(content);
        EXPECT_THAT(problem, HasSubstr("must contain one line, user:password"));
        EXPECT_THAT(problem, Not(HasSubstr("secret")));
    }
    EXPECT_EQ(login, "");
}

TEST_F(PasswordFile, OneThatIsMissingOrNoFileIsRefused) {
    EXPECT_THAT(vxweb::readLogin(path(), login), HasSubstr("No such file"));
    EXPECT_NE(vxweb::readLogin("/", login), "");
}

TEST_F(PasswordFile, FilesThatAreNoCertificateAndKeyAreRefused) {
    read("anna:secret\n");
    std::unique_ptr<boost::asio::ssl::context> tls;
    EXPECT_THAT(vxweb::openTls(path(), path(), tls), HasSubstr("cannot use the certificate"));
    EXPECT_EQ(tls, nullptr);
}

TEST_F(PasswordFile, ACertificateThatIsMissingIsRefusedWithTheSystemsReason) {
    std::unique_ptr<boost::asio::ssl::context> tls;
    EXPECT_EQ(vxweb::openTls(path(), path(), tls),
              "cannot use the certificate " + path() + ": No such file or directory");
}

}  // namespace
