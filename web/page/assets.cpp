#include "web/page/assets.h"

#include <algorithm>

#include "web/page/page_data.h"

namespace vxweb {

const Asset* findAsset(std::string_view path) {
    const Asset* const end = pageAssetsEnd();
    const Asset* const found = std::find_if(
        pageAssetsBegin(), end, [path](const Asset& asset) { return asset.path == path; });
    return found == end ? nullptr : found;
}

}  // namespace vxweb
