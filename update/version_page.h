#pragma once

#include <cstddef>
#include <string_view>

/// Reads the web server's answer to the request for the version file.
///
/// A page is `size` received bytes at `memory`; it may hold anything. Its text ends at the first
/// NUL byte, if there is one. The results point into the page. All functions are pure.
/// Thread: any. Realtime-safe: yes.

/// The address in a page that shows another one in a frame: the text between the first two double
/// quotes after "frame src". Empty when the page is no such page, has at most 15 bytes, or when the
/// address has at most 7 characters.
std::string_view frameAddress(const char* memory, std::size_t size);

/// The first line that is not empty; lines end with CR, LF or both. Empty when there is none.
std::string_view firstLine(const char* memory, std::size_t size);

/// True for a text of 3 to 10 characters that begins with a decimal digit.
bool isVersionText(std::string_view text);
