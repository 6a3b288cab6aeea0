#pragma once

#include <nuvek/core/Image.h>

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
/// Levels. OpenSlide level k with downsample d becomes level L = log2(d) when d lies within 1% of a
/// power of two (the first such OpenSlide level wins); other OpenSlide levels are not used. With
/// OpenSlide 3 (as in Debian 12), a level shorter than its tile height is not used either:
/// OpenSlide 3 with libtiff 4.4 or newer returns such a level's rows shifted down and partly blank
/// (for a full-resolution level that short the constructor throws).
/// getNumLevels() is one more than the coarsest level found; a level in between that the slide
/// lacks is reported by hasLevel() and never made up: openRegion() on it throws. getExtent() of a
/// present level is OpenSlide's size of it; of any other level (x >> L, y >> L, 1).
///
/// Voxel size: the slide's microns per pixel (the "openslide.mpp-x" and "openslide.mpp-y"
/// properties) in nanometres, rounded, at least 1; else the TIFF resolution (the "tiff.XResolution",
/// "tiff.YResolution" and "tiff.ResolutionUnit" properties, centimetre or inch) in nanometres; 1
/// where the slide says neither; z is 1; level L
/// multiplies x and y by 2^L. The tile extent is OpenSlide's level-0 tile size when it reports
/// one, else (256, 256, 1). getHash() is constant: the file must not change while it is open.
///
/// openRegion asks OpenSlide only for the part of the box inside the extent, in bands of bounded
/// size, and writes 0.0 outside the extent. A voxel of level L is read at the level-0 position
/// x * d, y * d; where d is not a whole number OpenSlide places the region at a fraction of a voxel
/// and blends neighbouring voxels. OpenSlide's readers are thread-safe, so openRegion may run on
/// several threads at once without a lock. Problems are std::runtime_errors whose message starts
/// with "SlideImage: <path>: ".
class SlideImage : public Image
{
public:
    explicit SlideImage(std::string const& path);
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
