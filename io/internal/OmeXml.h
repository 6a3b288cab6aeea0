#pragma once

#include <string>
#include <vector>

namespace Nuvek {

/// What an OME-XML description of one image says: its axes, sample type, channels and physical
/// voxel size, and how its planes lie in the TIFF pages.
struct OmeDescription
{
    std::string name;
    long long sizeX = 0;
    long long sizeY = 0;
    long long sizeZ = 1;
    long long sizeC = 1;
    /// "uint8", "uint16" or "float".
    std::string pixelType = "uint8";
    /// All channels interleaved in one page per z slice (RGB); else one page per channel and slice,
    /// channels varying fastest.
    bool interleaved = false;
    std::vector<std::string> channelNames;
    /// In nanometres; a size below 1 is left out.
    long long voxelX = 0;
    long long voxelY = 0;
    long long voxelZ = 0;
};

/// The OME-XML (2016-06 schema) for a single image whose planes start at the file's first page, in
/// dimension order XYCZT. Names are escaped for XML attributes; sizes are written in micrometres.
std::string omeXml(OmeDescription const& description);

/// Text with &, <, >, " and ' replaced by their XML entities, and control characters other than
/// tab, line feed and carriage return (which XML 1.0 cannot hold) by spaces.
std::string escapeXml(std::string const& text);

} // namespace Nuvek
