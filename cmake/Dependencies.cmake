# Everything that is installed and called, found in one place.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Qt5 5.12 REQUIRED COMPONENTS Core Gui Widgets)
find_package(CLI11 REQUIRED)

pkg_check_modules(ENET REQUIRED IMPORTED_TARGET libenet>=1.3)
pkg_check_modules(PORTAUDIO REQUIRED IMPORTED_TARGET portaudio-2.0)
pkg_check_modules(OPUS REQUIRED IMPORTED_TARGET opus)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(SPEEXDSP REQUIRED IMPORTED_TARGET speexdsp)

# libcurl is loaded at run time and never linked: only its headers are needed.
if(VELANTRIX_VERSION_CHECK)
  pkg_check_modules(CURL_HEADERS REQUIRED libcurl)
endif()
