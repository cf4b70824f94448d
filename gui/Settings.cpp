#include "gui/Settings.h"

#include <cassert>

#include <QSettings>
#include <QString>
#include <QVariant>

namespace {

/// A text that is never destroyed, and that needs no memory before main(), where no failure could
/// be reported.
union KeptText {
    KeptText() noexcept : text() {}
    ~KeptText() {}
    KeptText(const KeptText&) = delete;
    KeptText& operator=(const KeptText&) = delete;

    std::string text;
};

KeptText inputSelect;
KeptText versionCheckResponse;

}  // namespace

bool Settings::Warn48kDone = false;
MinToTrayOption Settings::MinToTray = MinToTrayOption::Taskbar;
std::string& Settings::InputSelect = inputSelect.text;
std::int32_t Settings::FileDialogEncOptMP3 = 2;
bool Settings::FileDialogTypeMP3 = true;
bool Settings::EnableHotkeys = true;
std::int32_t Settings::VersionCheckTime = 0;
std::string& Settings::VersionCheckResponse = versionCheckResponse.text;

namespace {

/// The settings file, opened for one operation; its destruction commits what was written.
class Store {
  public:
    [[nodiscard]] QVariant read(const QString& key, const QVariant& fallback) const {
        return file_.value(key, fallback);
    }

    /// In the locale's encoding, up to the first NUL. When the key is missing, `fallback`, not
    /// converted: it may already be in that encoding.
    [[nodiscard]] std::string readText(const QString& key, const std::string& fallback) const {
        if (!file_.contains(key)) {
            return fallback;
        }
        return read(key, {}).toString().toLocal8Bit().constData();
    }

    void write(const QString& key, const QVariant& value) { file_.setValue(key, value); }

  private:
    QSettings file_{QStringLiteral("Velantrix"), QStringLiteral("Server")};
};

/// Stores a new value in the cache and the file.
template <class Value>
void keep(Value& cached, Value value, const char* key) {
    Store store;
    cached = value;
    store.write(key, value);
}

QString inputSelectKey(const char* suffix) {
    return QStringLiteral("InputSelect") + QString::fromUtf8(suffix);
}

}  // namespace

void Settings::loadSettings() {
    const Store store;
    Warn48kDone = store.read("Warn48kDone", Warn48kDone).toBool();
    MinToTray =
        static_cast<MinToTrayOption>(store.read("MinToTray", static_cast<int>(MinToTray)).toInt());
    InputSelect = store.readText("InputSelect", InputSelect);
    FileDialogEncOptMP3 = store.read("FileDialogEncOptMP3", FileDialogEncOptMP3).toInt();
    FileDialogTypeMP3 = store.read("FileDialogTypeMP3", FileDialogTypeMP3).toBool();
    EnableHotkeys = store.read("EnableHotkeys", EnableHotkeys).toBool();
    VersionCheckTime = store.read("VersionCheckTime", VersionCheckTime).toInt();
    VersionCheckResponse = store.readText("VersionCheckResponse", VersionCheckResponse);
}

void Settings::setWarn48kDone(bool done) {
    keep(Warn48kDone, done, "Warn48kDone");
}

void Settings::setMinToTray(MinToTrayOption option) {
    Store store;
    MinToTray = option;
    store.write("MinToTray", static_cast<int>(option));
}

void Settings::setFileDialogEncOptMP3(int option) {
    keep(FileDialogEncOptMP3, option, "FileDialogEncOptMP3");
}

void Settings::setFileDialogTypeMP3(bool isMP3) {
    keep(FileDialogTypeMP3, isMP3, "FileDialogTypeMP3");
}

void Settings::setEnableHotkeys(bool enable) {
    keep(EnableHotkeys, enable, "EnableHotkeys");
}

void Settings::setVersionCheckTime(int minutes) {
    keep(VersionCheckTime, minutes, "VersionCheckTime");
}

void Settings::setVersionCheckResponse(const char* version) {
    Store store;
    VersionCheckResponse = version;
    store.write("VersionCheckResponse", VersionCheckResponse.c_str());
}

std::string Settings::getInputSelect(const char* suffix) {
    assert(suffix != nullptr);
    if (suffix[0] == '\0') {
        return InputSelect;
    }
    return Store().readText(inputSelectKey(suffix), InputSelect);
}

void Settings::setInputSelect(const char* value, const char* suffix) {
    assert(value != nullptr && suffix != nullptr);
    Store store;
    if (suffix[0] == '\0') {
        InputSelect = value;
    }
    store.write(inputSelectKey(suffix), value);
}
