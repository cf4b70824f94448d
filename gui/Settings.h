#pragma once

/// The user's persistent settings.
class Settings {
  public:
    static void loadSettings();
};
