#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <optional>

namespace Nuvek {

/// \brief The sample type in which a file source stores its values, when it is one the writers
/// can store: a TiffImage's first page (8 or 16 bits unsigned, 32-bit float), a SlideImage (8
/// bits), a ZarrImage of unsigned 8 or 16-bit or 32-bit float numbers. Empty for any other image, a filter among them, and for other sample formats. Throws
/// std::runtime_error starting with "storedSampleType: " when the TIFF file can no longer be read.
std::optional<TiffSampleType> storedSampleType(Image& image);

} // namespace Nuvek
