#pragma once

#include <string>
#include <string_view>

/// The maker's web address: where the version file lies and where users are sent.
///
/// It is chosen when building and can be changed by the environment variable
/// VELANTRIX_WEB_ADDRESS.

/// The address, without a slash at its end. Never null, the same text for the life of the process.
/// The first call reads the environment and may print a line. Thread: any. Realtime-safe: no.
const char* webAddress();

/// `runTimeValue` (null: none was given) if it is a usable web address, else `builtIn`, each less
/// one slash at its end. Prints a line when a value is given that is not usable.
///
/// Usable is what begins with "http://" or "https://", goes on with a host (its first character is
/// a letter, a digit or '[') and otherwise holds nothing but letters, digits and
/// -._~:/?#[]@%+,= (ASCII).
std::string chooseWebAddress(const char* runTimeValue, const char* builtIn);

/// The shell command that opens `address` in the user's browser: "xdg-open " and the address.
/// Only the characters that a shell could take for a pattern, a comment or a home folder are
/// escaped, so that the address stays one word. `address` holds the characters named above only.
std::string browserCommand(std::string_view address);
