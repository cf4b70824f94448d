#pragma once

// The options by which protocols are limited have newer names in newer libraries only.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>  // IWYU pragma: export

/// libcurl's functions as found in the library at run time; the program is not linked with it.
///
/// Null until loadCurlFunctions() has run. Written on the main thread before the version check
/// thread exists, only read afterwards.

extern decltype(&::curl_global_init) curl_global_init2;  ///< Null when libcurl is not usable.
extern decltype(&::curl_global_cleanup) curl_global_cleanup2;
extern decltype(&::curl_easy_init) curl_easy_init2;
extern decltype(&::curl_easy_setopt) curl_easy_setopt2;
extern decltype(&::curl_easy_perform) curl_easy_perform2;
extern decltype(&::curl_easy_cleanup) curl_easy_cleanup2;
extern decltype(&::curl_easy_strerror) curl_easy_strerror2;

/// Opens the library, for the life of the process, and looks the functions up. False, with a
/// printed line, when the library or one of the functions is missing. Thread: main.
[[nodiscard]] bool loadCurlFunctions();
