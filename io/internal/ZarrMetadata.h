#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Nuvek {

/// What a zarr v2 array's ".zarray" says, checked: a C-ordered array of little- or big-endian
/// unsigned, signed or floating-point numbers, without filters.
struct ZarrArrayMetadata
{
    std::vector<long long> shape;
    std::vector<long long> chunks;
    /// 'u', 'i' or 'f'.
    char kind = 'u';
    /// 1, 2, 4 or 8 bytes ('f': 4 or 8).
    int itemSize = 1;
    bool bigEndian = false;
    /// "" (none), "zlib", "gzip", "zstd" or "blosc".
    std::string compressor;
    /// The value of chunks that are not stored.
    double fillValue = 0.0;
    /// '.' or '/': what separates the chunk indices in a chunk's key.
    char separator = '.';

    long long chunkBytes() const;
};

/// Parses a ".zarray" document. Throws std::runtime_error saying what is missing or not
/// supported: 1 to 5 dimensions, positive chunks, shapes from 0 up to 2^40, at most 2^27 voxels per
/// chunk (1 GiB of 8-byte samples).
ZarrArrayMetadata parseZarrArray(std::string const& text);

/// The first multiscale image of an NGFF (0.4) group's ".zattrs", and what its "omero" block adds.
struct ZarrMultiscales
{
    /// The axes' names in array order ("t", "c", "z", "y", "x" or a subset) and their units ("" when
    /// not given).
    std::vector<std::string> axes;
    std::vector<std::string> units;
    /// Each level's array path, finest first, and its scale per axis (1 when not given).
    std::vector<std::string> paths;
    std::vector<std::vector<double>> scales;
    /// omero.channels[].label, when present.
    std::vector<std::string> channelNames;
    /// The smallest window "min" and largest window "max" over the omero channels, when every
    /// channel gives both.
    std::optional<std::pair<double, double>> valueRange;
};

/// Parses a ".zattrs" document with "multiscales"; an empty result (no paths) when it has none.
/// Throws std::runtime_error when the multiscales entry is malformed.
ZarrMultiscales parseMultiscales(std::string const& text);

} // namespace Nuvek
