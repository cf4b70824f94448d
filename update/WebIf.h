#pragma once

/// Fetches and judges the version file.
class WebIf {
  public:
    static int init();
};
