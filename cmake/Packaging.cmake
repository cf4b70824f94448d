# Debian packages: `cpack` in a build folder that was configured with -DCMAKE_INSTALL_PREFIX=/usr
# (scripts/package does both).

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velantrix)
set(CPACK_PACKAGE_VENDOR "The Velantrix Server developers")
set(CPACK_PACKAGE_CONTACT "The Velantrix Server developers <packages@velantrix.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each component has its own first line; a summary would be put before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_COMPONENTS_ALL server listen web)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${VELANTRIX_WEB_ADDRESS})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VELANTRIX_DEBIAN_ARCHITECTURE})
endif()

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME velantrix-server)
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_SERVER_PACKAGE_RECOMMENDS
    "libasound2-plugins | pipewire-alsa, libcurl4 | libcurl4t64, pavucontrol, xdg-utils")
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS "velantrix-listen, velantrix-web")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/server/conffiles)
set(CPACK_COMPONENT_SERVER_DESCRIPTION "audio streaming server for the local network
Captures the default audio input of this computer, or what it plays, and
streams it over the local network to up to ten client apps at a time,
uncompressed or compressed with Opus.
.
It runs with a small window, or without one as a service of the user's
session, on desktops and on 64-bit ARM boards.")

set(CPACK_DEBIAN_LISTEN_PACKAGE_NAME velantrix-listen)
set(CPACK_DEBIAN_LISTEN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_LISTEN_PACKAGE_RECOMMENDS "libasound2-plugins | pipewire-alsa")
set(CPACK_DEBIAN_LISTEN_PACKAGE_SUGGESTS "velantrix-server")
set(CPACK_COMPONENT_LISTEN_DESCRIPTION "listening client for Velantrix Server
Finds a Velantrix Server on the local network and plays its stream, records
it to a file, or writes it to standard output for other programs.
.
It shows levels, delay and losses while it plays, and needs no window.")

set(CPACK_DEBIAN_WEB_PACKAGE_NAME velantrix-web)
set(CPACK_DEBIAN_WEB_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_WEB_PACKAGE_SUGGESTS "velantrix-server, icecast2")
set(CPACK_DEBIAN_WEB_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/web/conffiles)
set(CPACK_COMPONENT_WEB_DESCRIPTION "web gateway of Velantrix Server
Lets any browser, internet radio and media player hear a Velantrix Server:
with a page that plays at a touch, and as endless WAV, FLAC, MP3 and Ogg
streams, for hundreds of listeners at a time.
.
It can also send to Icecast servers, and runs as a service of the user's
session.")

include(CPack)
