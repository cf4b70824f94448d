#pragma once

#include <cstdint>
#include <string>

/// Where the window goes when it is minimised. Stored as an integer; unknown values of newer
/// releases are kept.
enum class MinToTrayOption : std::int32_t {
    Taskbar = 0,  ///< It stays in the task bar.
    Tray = 1,     ///< It goes to the system tray.
};

/// The user's persistent settings: a process-wide cache over Qt's settings file of the
/// organisation "Velantrix", application "Server", in the user's configuration folder.
///
/// Getters with a fixed key read only the cache, setters write cache and file. Failures are not
/// reported: when the file cannot be written, the value is lost at the end of the process. Texts
/// are written as UTF-8 and read in the locale's 8-bit encoding.
///
/// Nothing here locks. loadSettings() runs before the worker threads exist; after that each setting
/// belongs to one thread, the two of VersionCheck to the version check thread. Realtime-safe: no.
class Settings {
  public:
    /// Reads all keys; a missing one keeps its cached value. Writes nothing.
    static void loadSettings();

    /// True once the warning about a 48 kHz device has been given.
    static bool getWarn48kDone() { return Warn48kDone; }
    static void setWarn48kDone(bool done);

    static MinToTrayOption getMinToTray() { return MinToTray; }
    static void setMinToTray(MinToTrayOption option);

    /// The encoding option last chosen when saving MP3 files.
    static int getFileDialogEncOptMP3() { return FileDialogEncOptMP3; }
    static void setFileDialogEncOptMP3(int option);

    /// True when the file type last chosen was MP3.
    static bool getFileDialogTypeMP3() { return FileDialogTypeMP3; }
    static void setFileDialogTypeMP3(bool isMP3);

    static bool getEnableHotkeys() { return EnableHotkeys; }
    static void setEnableHotkeys(bool enable);

    /// Time of the last version check attempt, in minutes since the Unix epoch; 0: never.
    static int getVersionCheckTime() { return VersionCheckTime; }
    static void setVersionCheckTime(int minutes);

    /// The newest version that was announced to the user; empty: none. Never null; valid until the
    /// next setVersionCheckResponse() or loadSettings().
    static const char* getVersionCheckResponse() { return VersionCheckResponse.c_str(); }
    static void setVersionCheckResponse(const char* version);

    /// The selected input of the kind `suffix`. The empty suffix reads the cache; others read their
    /// key in the file, with the cached text as the default. Arguments may not be null.
    static std::string getInputSelect(const char* suffix);

    /// Stores the selected input of the kind `suffix`. Only the empty suffix has a cache.
    static void setInputSelect(const char* value, const char* suffix);

  private:
    // The texts are never destroyed: the version check thread may use them while the process ends.
    static bool Warn48kDone;
    static MinToTrayOption MinToTray;
    static std::string& InputSelect;
    static std::int32_t FileDialogEncOptMP3;
    static bool FileDialogTypeMP3;
    static bool EnableHotkeys;
    static std::int32_t VersionCheckTime;
    static std::string& VersionCheckResponse;
};
