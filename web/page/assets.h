#pragma once

#include <string_view>

namespace vxweb {

/// A file of the page. Its texts exist as long as the program.
struct Asset {
    std::string_view path;         ///< As in the request: "/" or below "/page/".
    std::string_view contentType;  ///< For the header of that name.
    std::string_view body;
};

/// The asset at the path of a request (without its query), or null. Thread: any.
[[nodiscard]] const Asset* findAsset(std::string_view path);

}  // namespace vxweb
