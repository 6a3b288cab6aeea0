#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/io/TileCacheSize.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Nuvek {

/// \brief A source image read from a whole-slide file through OpenSlide.
///
/// Three channels "Red", "Green" and "Blue" with the value range (0, 255), one z slice. OpenSlide
/// delivers premultiplied ARGB; where a voxel is partly transparent its colour is divided by its
/// alpha again, and where it is fully transparent (outside the scanned area) it is 0.
///
/// Levels. Level L is the OpenSlide level whose downsample d is nearest 2^L, among those within
/// 1% of it; other OpenSlide levels are not used. Reading level L gives that level's stored pixels,
/// the same for every tile size and position:
/// - where d is 2^L exactly, OpenSlide reads it at level-0 coordinates (x << L, y << L);
/// - else (2.0005, say), OpenSlide would place the region at a fraction of a voxel and blend
///   neighbours, so the level is read from its own TIFF page through TiffImage instead, when the
///   file is a TIFF whose page of that size libtiff decodes as 8-bit RGB; where it cannot be (a
///   JPEG 2000 page, a format that is no TIFF) the level is not present.
/// OpenSlide 3 (as in Debian 12) misreads one kind of level: one shorter than its tile height
/// whose tiles are neither JPEG nor Aperio JPEG 2000 (those it decodes through libtiff's RGBA
/// interface, which since libtiff 4.4 places such a tile at the bottom of the raster, so rows come
/// out shifted and partly blank). Such a level, too, is read from its TIFF page, or not present;
/// the constructor throws only when that leaves no full-resolution level.
/// getNumLevels() is one more than the coarsest level found; a level in between that the slide
/// lacks is reported by hasLevel() and never made up: openRegion() on it throws. getExtent() of a
/// present level is OpenSlide's size of it; of any other level (x >> L, y >> L, 1).
///
/// Voxel size: the slide's microns per pixel (the "openslide.mpp-x" and "openslide.mpp-y"
/// properties) in nanometres, rounded, at least 1; else the TIFF resolution (the "tiff.XResolution",
/// "tiff.YResolution" and "tiff.ResolutionUnit" properties, centimetre or inch) in nanometres; 1
/// where the slide says neither (knowsVoxelSize() is then false); z is 1; level L
/// multiplies x and y by 2^L. The tile extent is OpenSlide's level-0 tile size when it reports
/// one, else (256, 256, 1). getHash() is constant: the file must not change while it is open.
///
/// openRegion asks OpenSlide (or TiffImage) only for the part of the box inside the extent and
/// writes 0.0 outside the extent. With a cache (cacheBytes above 0) it reads the regions of a fixed
/// grid of each level (OpenSlide's tile size of that level, else the tile extent) that the box
/// touches and keeps them, as 8-bit red, green and blue, in a cache of at most cacheBytes shared
/// by every thread, the least recently used leaving first, so that neighbouring requests read
/// each stored tile once; a thread that needs a region another thread is reading waits for it.
/// Levels read through TiffImage use a TiffImage cache of the same size. Without a cache it reads
/// the box in bands of bounded size. OpenSlide's readers and TiffImage are
/// thread-safe, so openRegion may run on several threads at once without a lock. Problems are std::runtime_errors whose message starts
/// with "SlideImage: <path>: ".
class SlideImage : public Image, public RowBandExactness
{
public:
    /// Stored values: the same whatever box asks for them.
    bool splitsExactlyInRowBands() const override { return true; }

    explicit SlideImage(std::string const& path, std::size_t cacheBytes = defaultTileCacheBytes);
    ~SlideImage() override;
    SlideImage(SlideImage const&) = delete;
    SlideImage& operator=(SlideImage const&) = delete;

    std::string getURL() const override;
    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// Whether the slide holds this level.
    bool hasLevel(long long level) const;
    /// Whether the slide gives its voxel size (else getVoxelSize() is the stand-in (1, 1, 1) nm).
    bool knowsVoxelSize() const;
    /// The value of one of OpenSlide's properties of the slide ("openslide.vendor", ...), or "".
    std::string getProperty(std::string const& name) const;

private:
    struct Internals;
    std::unique_ptr<Internals> internals;
};

} // namespace Nuvek
