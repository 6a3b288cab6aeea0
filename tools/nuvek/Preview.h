#pragma once

#include <nuvek/core/Image.h>

#include <string>

namespace NuvekTool {

/// Writes a PNG preview of an image: the finest level that fits in maxSize x maxSize (first slice;
/// grey for one channel, RGB from the first three otherwise). Colour images map their value range
/// onto 0..255; grey ones are stretched linearly from the 0.5th to the 99.5th percentile of what is
/// shown. NaN shows black. Returns the level used. Throws
/// std::runtime_error naming the file when it cannot be written.
long long writePreview(Nuvek::Image& image, std::string const& path, long long maxSize = 512);

} // namespace NuvekTool
