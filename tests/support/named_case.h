#pragma once

#include <ostream>
#include <string>

/// A case of a parameterised test, which names the test and itself in failures.
struct NamedCase {
    const char* name;
};

inline std::ostream& operator<<(std::ostream& out, const NamedCase& each) {
    return out << each.name;
}

/// The last argument of INSTANTIATE_TEST_SUITE_P for such cases.
inline constexpr auto CASE_NAME = [](const auto& each) { return std::string(each.param.name); };
