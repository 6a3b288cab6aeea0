#pragma once

#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <string>

namespace Nuvek {

/// \brief The names of the writer's sample types and compressions, as the nuvek tool's options and
/// the Python functions spell them: "uint8", "uint16", "float32"; "none", "deflate", "lzw", "jpeg",
/// "zstd".
class ImageFormats
{
public:
    /// The sample type named name. Throws std::runtime_error listing the names for any other.
    static TiffSampleType parseSampleType(std::string const& name);
    /// The compression named name. Throws std::runtime_error listing the names for any other.
    static TiffCompression parseCompression(std::string const& name);
    /// The OME-Zarr writer's compression named name, as zarr names its codecs: "none", "zlib",
    /// "zstd". Throws std::runtime_error listing the names for any other.
    static ZarrCompression parseZarrCompression(std::string const& name);

    static std::string toString(TiffSampleType type);
    static std::string toString(TiffCompression compression);
    static std::string toString(ZarrCompression compression);
};

} // namespace Nuvek
