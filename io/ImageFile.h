#pragma once

#include <nuvek/core/Image.h>

#include <memory>
#include <string>

namespace Nuvek {

/// \brief Opens an image file with the reader its name calls for.
class ImageFile
{
public:
    /// Whole-slide formats (.svs, .ndpi, .mrxs, .scn, .vms, .vmu, .bif, .svslide) as a SlideImage,
    /// everything else as a TiffImage. Throws std::runtime_error for a missing or unreadable file.
    static std::unique_ptr<Image> open(std::string const& path);
};

} // namespace Nuvek
