# Finds all dependencies.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(CLI11 REQUIRED)

set(qt ${VELANTRIX_QT})
if(NOT qt)
  find_package(Qt5 5.15 QUIET COMPONENTS Core Gui Widgets)
  if(Qt5_FOUND)
    set(qt 5)
  else()
    set(qt 6)
  endif()
endif()
find_package(Qt${qt} 5.15 REQUIRED COMPONENTS Core Gui Widgets)

pkg_check_modules(ENET REQUIRED IMPORTED_TARGET libenet>=1.3)
pkg_check_modules(PORTAUDIO REQUIRED IMPORTED_TARGET portaudio-2.0)
pkg_check_modules(OPUS REQUIRED IMPORTED_TARGET opus)
pkg_check_modules(OGG REQUIRED IMPORTED_TARGET ogg)
pkg_check_modules(LAME REQUIRED IMPORTED_TARGET lame)
pkg_check_modules(SHOUT REQUIRED IMPORTED_TARGET shout)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(SPEEXDSP REQUIRED IMPORTED_TARGET speexdsp)
pkg_check_modules(QRENCODE REQUIRED IMPORTED_TARGET libqrencode)

# velantrix-web: only headers of Boost; Asio uses OpenSSL for TLS.
find_package(Boost 1.74 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json REQUIRED)

# libcurl is loaded at run time and never linked: only its headers are needed.
if(VELANTRIX_VERSION_CHECK)
  pkg_check_modules(CURL_HEADERS REQUIRED libcurl)
endif()
