#pragma once

#include <nuvek/core/Image.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Nuvek {

/// \brief A source image read from a TIFF or BigTIFF file.
///
/// Samples of 8 or 16 bits (unsigned) or 32-bit floating point; one or more samples per pixel,
/// stored contiguously or in separate planes; strips or tiles; any compression that libtiff decodes
/// (JPEG in YCbCr is delivered as RGB). A voxel's value is the stored sample, unscaled: 0 to 255
/// for 8 bits. Channel c is sample c; after "Red", "Green", "Blue" for an RGB file the channels are
/// named "Channel 3", "Channel 4", ..., and every channel of any other file "Channel c".
///
/// Pages, levels and slices. The file's pages (its main chain of image directories, then each
/// page's SubIFDs) are sorted like this, in file order:
/// - The first page is level 0 of slice 0; it fixes the samples per pixel, bit depth and sample
///   format. Pages that differ from it in any of these are not used (masks, thumbnails).
/// - A later page of the first page's width and height that is not marked as reduced resolution
///   (NewSubfileType bit 0) starts the next z slice: a page stack is a volume.
/// - A page (or a SubIFD of the slice's first page) whose width and height are those of level 0
///   divided by 2^L, rounded either way, is level L of the current slice. A page that fits no such L
///   (a label, a macro image) is not used, nor is a second page for a level already seen.
/// A damaged page other than the first ends the main chain there, and a damaged SubIFD is skipped:
/// what they would have added is simply not present. A level is present when every slice has it
/// with the same extent. getNumLevels() is one more
/// than the coarsest present level; a level between present ones that the file lacks is reported
/// by hasLevel() and never made up: openRegion() on it throws. getExtent() of a present level is
/// the page's own size; of any other level (x >> L, y >> L, number of slices).
///
/// Value range: (0, 255) for 8 bits, (0, 65535) for 16 bits; for floating point the file's
/// SMinSampleValue and SMaxSampleValue when both are present, else (0, 1). Voxel size: from the
/// first page's resolution tags in nanometres, rounded (at least 1), when the unit is inch or
/// centimetre, else 1; z is 1; level L multiplies x and y by 2^L. getSliceName() returns the
/// slice's PageName tag, or "". getHash() is constant: the file must not change while it is open.
///
/// openRegion reads only the tiles or strips that the box touches at that level, decodes each at
/// most once per call and writes 0.0 outside the extent. A damaged block that libtiff decodes short
/// without reporting an error reads as 0.0 where its data ends. It may run on several threads at once:
/// each call borrows a libtiff handle from a pool of the image's own (a new one is opened when all
/// are busy) and decodes without holding a lock. Every problem with the file, when opening or
/// later while decoding, is a std::runtime_error whose message starts with "TiffImage: <path>: ".
class TiffImage : public Image
{
public:
    explicit TiffImage(std::string const& path);
    ~TiffImage() override;
    TiffImage(TiffImage const&) = delete;
    TiffImage& operator=(TiffImage const&) = delete;

    std::string getURL() const override;
    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getSliceName(long long index) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// Whether the file holds this level (for every slice).
    bool hasLevel(long long level) const;
    /// How many tiles or strips (one per sample plane when planes are separate) openRegion has
    /// decoded since the image was opened, over all threads.
    std::uint64_t getBlocksDecoded() const;

private:
    struct Internals;
    std::unique_ptr<Internals> internals;
};

} // namespace Nuvek
