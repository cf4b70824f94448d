#pragma once

#include <string>
#include <string_view>

/// The maker's web address, with the version file.
///
/// It is set when building and can be changed by the environment variable VELANTRIX_WEB_ADDRESS.

/// The address, without a slash at its end. Never null, the same text for the life of the process.
/// The first call reads the environment and may print a line. Thread: any. Realtime-safe: no.
const char* webAddress();

/// `runTimeValue` (null: none was given) if it is a usable web address, else `builtIn`, each less
/// one slash at its end. Prints a line when a value is given that is not usable.
///
/// A usable address is "http://" or "https://", then a host (its first character is a letter, a
/// digit or '['), and contains only letters, digits and -._~:/?#[]@%+,= (ASCII).
std::string chooseWebAddress(const char* runTimeValue, const char* builtIn);

/// The shell command that opens `address` in the user's browser: "xdg-open " and the address.
/// Characters that a shell could read as a pattern, a comment or a home folder are escaped.
/// `address` contains only the characters named above.
std::string browserCommand(std::string_view address);
