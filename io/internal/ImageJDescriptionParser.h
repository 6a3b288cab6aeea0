#pragma once

#include "io/internal/FileMetadata.h"

#include <string>

namespace Nuvek {

/// \brief Reads an ImageJ image description: "ImageJ=..." followed by key=value lines.
///
/// channels=, slices= and frames= give the page counts (pages hold channels fastest, then slices,
/// then frames; a count not given is 1); unit= the length unit of the resolution tags (ImageJ
/// writes them as pixels per that unit), spacing= the z step in that unit, min= and max= the value
/// range. Unknown keys and malformed lines are ignored; a description that does not start with
/// "ImageJ=" gives empty metadata (channels 0).
class ImageJDescriptionParser
{
public:
    static FileMetadata parse(std::string const& description);
};

} // namespace Nuvek
