#pragma once

#include <string>
#include <vector>

namespace Nuvek {

/// \brief What an image description (OME-XML, ImageJ) says about a TIFF file's pages.
///
/// Counts are 0 and sizes 0.0 where the description does not say. Sizes are in nanometres.
struct FileMetadata
{
    /// Channels as the file's pages hold them: an RGB page is one channel of three samples.
    long long channels = 0;
    long long slices = 0;
    long long frames = 0;
    /// The page index of plane (c, z, t) at c + channels * (z + slices * t), -1 where no page holds
    /// it; empty when the pages are simply in order, channels fastest, then slices, then frames.
    std::vector<long long> pageOfPlane;
    std::vector<std::string> channelNames;
    double sizeX = 0.0;
    double sizeY = 0.0;
    double sizeZ = 0.0;
    /// The length of the unit in nanometres that the TIFF resolution tags count pixels per, when
    /// the description names one (ImageJ's unit=); 0.0 else.
    double resolutionUnit = 0.0;
    /// The value range the description states (ImageJ's min= and max=), when hasRange.
    bool hasRange = false;
    double min = 0.0;
    double max = 0.0;
};

/// Nanometres in one of the length units that OME and ImageJ write ("µm", "micron", "nm", "mm",
/// "cm", "m", "inch", "Å", "pm", ...); 0.0 for an unknown unit.
double nanometresPerUnit(std::string const& unit);

} // namespace Nuvek
