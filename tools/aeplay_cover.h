// Writing a cover picture as a PNG file.
#pragma once

#include <string>

#include "bitmap.h"

namespace aeplay {

// Encodes `bitmap` (RGB24 or grey) with FFmpeg's PNG encoder into `path`. False with `error`
// set on failure.
bool write_png(const qz_bitmap &bitmap, const std::string &path, std::string *error);

} // namespace aeplay
