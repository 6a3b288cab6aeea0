#pragma once

#include "io/internal/FileMetadata.h"

#include <string>

namespace Nuvek {

/// \brief Reads what an OME-XML description says about the first image of an OME-TIFF file.
///
/// From the first Image's Pixels: SizeC, SizeZ and SizeT, DimensionOrder, PhysicalSizeX/Y/Z with
/// their units (micrometres when no unit is given), the Channel names, and the TiffData elements
/// that place planes on pages (IFD, FirstC, FirstZ, FirstT, PlaneCount; without any TiffData the
/// pages hold the planes in dimension order). A TiffData whose UUID is not the OME element's own
/// UUID places planes in another file of a multi-file set: those planes stay unplaced, and the
/// file is then read as a plain TIFF. One Channel element with SamplesPerPixel 3 is one
/// channel of RGB pages. Text that is not well-formed OME-XML, or Pixels without sizes, gives
/// empty metadata (channels 0): the file is then read as a plain TIFF.
class OmeXmlParser
{
public:
    static FileMetadata parse(std::string const& xml);
};

} // namespace Nuvek
