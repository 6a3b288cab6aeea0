#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/io/TileCacheSize.h>

#include <cstddef>
#include <memory>
#include <string>

namespace Nuvek {

/// \brief Opens an image file with the reader its content calls for, whatever its name.
///
/// A folder holding ".zarray", ".zgroup" or ".zattrs" opens as a ZarrImage (an OME-Zarr group or a
/// plain zarr array; only its first time point is read, so any other timePoint is refused). For a
/// file, OpenSlide is asked first whether it recognises a vendor format (openslide_detect_vendor). A
/// vendor format other than OpenSlide's plain "generic-tiff" opens as a SlideImage (an Aperio SVS or
/// a Hamamatsu NDPI named .tif included); everything else opens as a TiffImage (plain, OME and
/// ImageJ TIFF, a .tiff of a vendor that OpenSlide does not know). The tool, the Python package and
/// applications all open files through this one choice.
///
/// timePoint selects the time point of an OME or ImageJ file with several (a TiffImage shows one at
/// a time); slides have one, and any other timePoint than 0 is refused for them.
///
/// cacheBytes bounds the decoded tiles the reader keeps for its threads (0: none kept).
///
/// Throws std::runtime_error naming the file when it does not exist or its reader refuses it.
std::unique_ptr<Image> openImage(std::string const& path, long long timePoint = 0,
                                 std::size_t cacheBytes = defaultTileCacheBytes);

/// The reader behind an image that openImage returned: "TiffImage", "SlideImage (<vendor>)",
/// "ZarrImage", or "other" for an image of another class.
std::string describeReader(Image const& image);

/// Whether the file behind the image gives its voxel size (else the voxel size is the stand-in
/// (1, 1, 1) nm); true for images of other classes, a ZarrImage among them.
bool knowsVoxelSize(Image const& image);

} // namespace Nuvek
