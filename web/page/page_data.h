#pragma once

#include "web/page/assets.h"

namespace vxweb {

/// The assets that embed.cmake made of the files.
[[nodiscard]] const Asset* pageAssetsBegin();
[[nodiscard]] const Asset* pageAssetsEnd();

}  // namespace vxweb
