// The settings file is in a temporary folder; the cache is cleared before each test.

#include "gui/Settings.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <type_traits>

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#if QT_VERSION_MAJOR < 6
#include <QTextCodec>
#endif

namespace {

constexpr const char* FOLDER_VARIABLE = "VX_SETTINGS_TEST_FOLDER";

void useFolder(const QString& folder) {
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder);
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder + "/system");
}

/// Qt 6 knows UTF-8 only.
void useLocalEncoding([[maybe_unused]] const char* name) {
#if QT_VERSION_MAJOR < 6
    QTextCodec::setCodecForLocale(QTextCodec::codecForName(name));
#endif
}

class SettingsStore : public ::testing::Test {
  protected:
    void SetUp() override {
        useLocalEncoding("UTF-8");
        const QTemporaryDir scratch;
        useFolder(scratch.path());
        Settings::setWarn48kDone(false);
        Settings::setMinToTray(MinToTrayOption::Taskbar);
        Settings::setInputSelect("", "");
        Settings::setFileDialogEncOptMP3(2);
        Settings::setFileDialogTypeMP3(true);
        Settings::setEnableHotkeys(true);
        Settings::setVersionCheckTime(0);
        Settings::setVersionCheckResponse("");
        useFolder(folder.path());
    }

    [[nodiscard]] QString fileName() const { return folder.path() + "/Velantrix/Server.conf"; }

    void writeFile(const QByteArray& keys) const {
        ASSERT_TRUE(QDir().mkpath(folder.path() + "/Velantrix"));
        QFile file(fileName());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_GT(file.write("[General]\n" + keys), 0);
    }

    [[nodiscard]] QByteArray readFile() const {
        QFile file(fileName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static void expectDefaults() {
        EXPECT_FALSE(Settings::getWarn48kDone());
        EXPECT_EQ(static_cast<int>(Settings::getMinToTray()), 0);
        EXPECT_EQ(Settings::getInputSelect(""), "");
        EXPECT_EQ(Settings::getFileDialogEncOptMP3(), 2);
        EXPECT_TRUE(Settings::getFileDialogTypeMP3());
        EXPECT_TRUE(Settings::getEnableHotkeys());
        EXPECT_EQ(Settings::getVersionCheckTime(), 0);
        EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
    }

    QTemporaryDir folder;
};

// Runs its statement in a new process, whose cache holds the initial values.
class FreshProcess : public SettingsStore {
  protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        if (::testing::internal::InDeathTestChild()) {
            useFolder(qEnvironmentVariable(FOLDER_VARIABLE));
        } else {
            useFolder(folder.path());
            qputenv(FOLDER_VARIABLE, folder.path().toLocal8Bit());
        }
    }

    [[noreturn]] static void leave() { std::exit(HasFailure() ? 1 : 0); }
};

using FreshProcessDeathTest = FreshProcess;

TEST_F(FreshProcessDeathTest, CacheHoldsTheDefaultsBeforeLoading) {
    EXPECT_EXIT(
        {
            expectDefaults();
            leave();
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(FreshProcessDeathTest, MissingFileLoadsTheDefaults) {
    EXPECT_EXIT(
        {
            Settings::loadSettings();
            expectDefaults();
            leave();
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_FALSE(QFile::exists(fileName()));
}

TEST_F(SettingsStore, SettersWriteEveryKeyUnderItsName) {
    Settings::setWarn48kDone(true);
    Settings::setMinToTray(MinToTrayOption::Tray);
    Settings::setInputSelect("line in", "");
    Settings::setFileDialogEncOptMP3(5);
    Settings::setFileDialogTypeMP3(false);
    Settings::setEnableHotkeys(false);
    Settings::setVersionCheckTime(123);
    Settings::setVersionCheckResponse("3.10");
    QByteArrayList lines = readFile().split('\n');
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines.join('|').toStdString(),
              "|EnableHotkeys=false|FileDialogEncOptMP3=5|FileDialogTypeMP3=false"
              "|InputSelect=line in|MinToTray=1|VersionCheckResponse=3.10|VersionCheckTime=123"
              "|Warn48kDone=true|[General]");
}

TEST_F(SettingsStore, GettersDoNotLookAtTheFile) {
    Settings::setVersionCheckTime(77);
    writeFile("VersionCheckTime=78\nVersionCheckResponse=9\nInputSelect=other\n");
    EXPECT_EQ(Settings::getVersionCheckTime(), 77);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
    EXPECT_EQ(Settings::getInputSelect(""), "");
}

TEST_F(SettingsStore, LoadingAgainReadsEveryKeyAgain) {
    writeFile(
        "Warn48kDone=true\nMinToTray=1\nInputSelect=a\nFileDialogEncOptMP3=9\n"
        "FileDialogTypeMP3=false\nEnableHotkeys=false\nVersionCheckTime=8\n"
        "VersionCheckResponse=b\n");
    Settings::loadSettings();
    EXPECT_TRUE(Settings::getWarn48kDone());
    EXPECT_EQ(Settings::getMinToTray(), MinToTrayOption::Tray);
    EXPECT_EQ(Settings::getInputSelect(""), "a");
    EXPECT_EQ(Settings::getFileDialogEncOptMP3(), 9);
    EXPECT_FALSE(Settings::getFileDialogTypeMP3());
    EXPECT_FALSE(Settings::getEnableHotkeys());
    EXPECT_EQ(Settings::getVersionCheckTime(), 8);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "b");
}

TEST_F(SettingsStore, MissingKeyKeepsTheCachedValue) {
    Settings::setVersionCheckTime(41);
    Settings::setInputSelect("kept", "");
    writeFile("Warn48kDone=true\n");
    Settings::loadSettings();
    EXPECT_EQ(Settings::getVersionCheckTime(), 41);
    EXPECT_EQ(Settings::getInputSelect(""), "kept");
    EXPECT_TRUE(Settings::getWarn48kDone());
}

TEST_F(SettingsStore, IntegerThatIsNoNumberLoadsAsZero) {
    Settings::setFileDialogEncOptMP3(3);
    writeFile("MinToTray=often\nFileDialogEncOptMP3=\nVersionCheckTime=12x\n");
    Settings::loadSettings();
    EXPECT_EQ(static_cast<int>(Settings::getMinToTray()), 0);
    EXPECT_EQ(Settings::getFileDialogEncOptMP3(), 0);
    EXPECT_EQ(Settings::getVersionCheckTime(), 0);
}

TEST_F(SettingsStore, UnnamedTrayOptionIsKeptAsItsNumber) {
    writeFile("MinToTray=-12\n");
    Settings::loadSettings();
    EXPECT_EQ(static_cast<int>(Settings::getMinToTray()), -12);
}

TEST_F(SettingsStore, BooleanIsFalseOnlyForZeroFalseAndNothing) {
    writeFile("Warn48kDone=yes\nFileDialogTypeMP3=0\nEnableHotkeys=\n");
    Settings::loadSettings();
    EXPECT_TRUE(Settings::getWarn48kDone());
    EXPECT_FALSE(Settings::getFileDialogTypeMP3());
    EXPECT_FALSE(Settings::getEnableHotkeys());
}

TEST_F(SettingsStore, NumberLoadsAsText) {
    writeFile("VersionCheckResponse=3.20\n");
    Settings::loadSettings();
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3.20");
}

TEST_F(SettingsStore, LoadingWritesNothing) {
    Settings::loadSettings();
    EXPECT_TRUE(QDir(folder.path()).isEmpty());

    const QByteArray untidy = "  Warn48kDone = true\n; remark\nMinToTray=x\nOther=1\n";
    writeFile(untidy);
    Settings::loadSettings();
    EXPECT_TRUE(Settings::getWarn48kDone());
    EXPECT_EQ(readFile(), "[General]\n" + untidy);
}

TEST_F(SettingsStore, UnknownKeysSurviveAWrite) {
    writeFile("Other=hello\n[Group]\nMore=7\n");
    Settings::setVersionCheckTime(5);
    const QSettings stored(fileName(), QSettings::IniFormat);
    EXPECT_EQ(stored.value("Other").toString(), "hello");
    EXPECT_EQ(stored.value("Group/More").toInt(), 7);
    EXPECT_EQ(stored.value("VersionCheckTime").toInt(), 5);
}

TEST_F(SettingsStore, UnwritableFileStillChangesTheCache) {
    // A file where the folder should be stops even the superuser.
    QFile obstacle(folder.path() + "/Velantrix");
    ASSERT_TRUE(obstacle.open(QIODevice::WriteOnly));
    Settings::setVersionCheckTime(99);
    Settings::setVersionCheckResponse("5.0");
    Settings::setInputSelect("in", "");
    EXPECT_EQ(Settings::getVersionCheckTime(), 99);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "5.0");
    EXPECT_EQ(Settings::getInputSelect(""), "in");
    EXPECT_FALSE(QFile::exists(fileName()));
    Settings::loadSettings();
    EXPECT_EQ(Settings::getVersionCheckTime(), 99);
}

TEST_F(SettingsStore, SuffixedInputHasItsOwnKeyAndNoCache) {
    Settings::setInputSelect("plain", "");
    Settings::setInputSelect("V", "A");
    EXPECT_EQ(Settings::getInputSelect(""), "plain");
    EXPECT_EQ(Settings::getInputSelect("A"), "V");
    EXPECT_TRUE(readFile().contains("\nInputSelectA=V\n"));

    writeFile("InputSelect=plain\nInputSelectA=longer\n");
    EXPECT_EQ(Settings::getInputSelect("A"), "longer");
}

TEST_F(SettingsStore, AbsentSuffixFallsBackToTheCachedText) {
    Settings::setInputSelect("plain", "");
    writeFile("InputSelect=newer\n");
    EXPECT_EQ(Settings::getInputSelect("B"), "plain");
}

TEST_F(SettingsStore, InputSelectIsReturnedByValue) {
    static_assert(std::is_same_v<decltype(Settings::getInputSelect("")), std::string>);
    Settings::setInputSelect("first", "A");
    const std::string first = Settings::getInputSelect("A");
    Settings::setInputSelect("second", "A");
    EXPECT_EQ(first, "first");
}

TEST_F(SettingsStore, SuffixIsUtf8) {
    Settings::setInputSelect("V", "\xC3\xBC");
    const QSettings stored(fileName(), QSettings::IniFormat);
    EXPECT_EQ(stored.value(QString(QChar(0xFC)).prepend("InputSelect")).toString(), "V");
    EXPECT_EQ(Settings::getInputSelect("\xC3\xBC"), "V");
}

#if QT_VERSION_MAJOR < 6
TEST_F(SettingsStore, TextIsWrittenAsUtf8AndReadInTheLocaleEncoding) {
    Settings::setInputSelect("Gr\xC3\xBC\xC3\x9F", "");
    EXPECT_EQ(Settings::getInputSelect(""), "Gr\xC3\xBC\xC3\x9F");
    useLocalEncoding("ISO-8859-1");
    Settings::loadSettings();
    EXPECT_EQ(Settings::getInputSelect(""), "Gr\xFC\xDF");
}

TEST_F(SettingsStore, MissingTextIsKeptByteForByteInAnyEncoding) {
    useLocalEncoding("ISO-8859-1");
    Settings::setInputSelect("Gr\xC3\xBC\xC3\x9F", "");
    Settings::setVersionCheckResponse("\xC3\xBC");
    Settings::loadSettings();
    ASSERT_EQ(Settings::getInputSelect(""), "Gr\xFC\xDF");
    writeFile("EnableHotkeys=false\n");
    for (int loads = 0; loads < 2; ++loads) {
        Settings::loadSettings();
        EXPECT_EQ(Settings::getInputSelect(""), "Gr\xFC\xDF");
        EXPECT_STREQ(Settings::getVersionCheckResponse(), "\xFC");
    }
    EXPECT_FALSE(Settings::getEnableHotkeys());
    EXPECT_EQ(Settings::getInputSelect("B"), "Gr\xFC\xDF");
}
#endif

TEST_F(SettingsStore, Utf8LocaleReadsBackWhatWasWritten) {
    Settings::setVersionCheckResponse("\xE2\x82\xAC, \"x\"; y=z");
    Settings::loadSettings();
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "\xE2\x82\xAC, \"x\"; y=z");
}

TEST_F(SettingsStore, StoredTextEndsAtItsFirstNul) {
    writeFile("VersionCheckResponse=\"3\\x0\\x32\"\nInputSelectA=\"a\\x0z\"\n");
    Settings::loadSettings();
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "3");
    EXPECT_EQ(Settings::getInputSelect("A"), "a");
}

TEST_F(SettingsStore, ResponseCanBeSetFromItsOwnCache) {
    Settings::setVersionCheckResponse("12.34");
    Settings::setVersionCheckResponse(Settings::getVersionCheckResponse() + 3);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "34");
    EXPECT_TRUE(readFile().contains("VersionCheckResponse=34\n"));
}

}  // namespace
