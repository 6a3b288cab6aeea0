#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/io/TileCacheSize.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Nuvek {

/// \brief A source image read from a TIFF or BigTIFF file: plain, OME-TIFF or ImageJ.
///
/// Samples: 8, 16 or 32-bit integers, unsigned or signed, and 32 or 64-bit floating point; one or
/// more samples per pixel, stored contiguously or in separate planes; strips or tiles; any
/// compression that libtiff decodes, and JPEG 2000 (34712, and Aperio's 33003 and 33005) through
/// libopenjp2 (8 or 16-bit unsigned, contiguous; Aperio's YCbCr kind is delivered as RGB, with the
/// JFIF equations, so a voxel may differ by one step from OpenSlide's own conversion). JPEG in
/// YCbCr is delivered as RGB; old-style JPEG and YCbCr
/// that is not JPEG-compressed (subsampled chroma included) are decoded through libtiff's RGBA
/// interface as three 8-bit channels red, green and blue (an alpha sample is not delivered). A
/// voxel's value is the stored sample, unscaled: 0 to 255 for 8 bits. A palette (indexed) image
/// delivers its indices, as microscopy readers do; its colour map is not applied.
///
/// Pages, levels and planes. The file's pages (its main chain of image directories, then each
/// page's SubIFDs) are sorted like this, in file order:
/// - The first page is level 0 of plane 0; it fixes the samples per pixel, bit depth and sample
///   format. Pages that differ from it in any of these are not used (masks, thumbnails).
/// - A later page of the first page's width and height that is not marked as reduced resolution
///   (NewSubfileType bit 0) starts the next plane.
/// - A page (or a SubIFD of the plane's first page) whose width and height are those of level 0
///   divided by 2^L, rounded either way, is level L of the current plane. A page that fits no such L
///   (a label, a macro image) is not used, nor is a second page for a level already seen.
/// The first page's description says what the planes are. OME-XML: the first Image's SizeC, SizeZ,
/// SizeT, DimensionOrder and TiffData place planes on pages; ImageJ: channels=, slices= and frames=,
/// planes in the order channel, slice, frame. The planes of one time point (timePoint, 0 the
/// first) then become channels and z slices: channel c of a page of s samples is channels c * s to
/// c * s + s - 1. When the file has no such description, or its counts do not fit the pages, every
/// plane is a z slice with one page of channels, as in a plain page stack.
/// A damaged page other than the first ends the main chain there, and a damaged SubIFD is skipped:
/// what they would have added is simply not present. A level is present when every plane has it
/// with the same extent. getNumLevels() is one more than the coarsest present level; a level
/// between present ones that the file lacks is reported by hasLevel() and never made up:
/// openRegion() on it throws. getExtent() of a present level is the page's own size; of any other
/// level (x >> L, y >> L, number of slices).
///
/// Channel names: OME's Channel Name where the file gives one (with " Red", " Green", " Blue"
/// after it for RGB pages); else "Red", "Green", "Blue" for the first three samples of RGB and
/// YCbCr pages and "Channel c" for every other channel.
///
/// Value range: the file's SMinSampleValue and SMaxSampleValue when both are present. Else, for
/// integers, ImageJ's min= and max= or else the sample type's range (0 to 255 for 8-bit unsigned,
/// -32768 to 32767 for 16-bit signed, ...). A floating-point file without the two tags gets the
/// range of the finite values of its coarsest present level over every slice and channel, computed
/// once when it is opened ((0, 1) when that level holds no finite value): ImageJ's min= and max=
/// of a float image are a display setting that often cuts its data off.
///
/// Voxel size in nanometres, rounded (at least 1), from the first source that gives it: OME's
/// PhysicalSizeX/Y/Z with their units; ImageJ's resolution tags in its unit= and its spacing= for
/// z; Aperio's MPP in the description; the resolution tags in inch or centimetre. Where none does,
/// the size is (1, 1, 1) and knowsVoxelSize() is false. z is 1 unless OME or ImageJ give it;
/// level L multiplies x and y by 2^L. getSliceName() returns the slice's PageName tag, or "".
/// getHash() is constant: the file must not change while it is open.
///
/// openRegion reads only the tiles or strips that the box touches at that level, decodes each at
/// most once per call and writes 0.0 outside the extent. Decoded tiles and strips are kept, in the
/// file's sample type, in a cache of at most cacheBytes shared by every thread, the least recently
/// used leaving first; a thread that needs a block another thread is decoding waits for it
/// instead of decoding it again. cacheBytes 0 keeps nothing. Pages decoded through the RGBA
/// interface (old-style JPEG, YCbCr that is not JPEG) are decoded per call, without the cache. A damaged block that libtiff decodes short
/// without reporting an error reads as 0.0 where its data ends. It may run on several threads at once:
/// each call borrows a libtiff handle from a pool of the image's own (a new one is opened when all
/// are busy) and decodes without holding a lock. Every problem with the file, when opening or
/// later while decoding, is a std::runtime_error whose message starts with "TiffImage: <path>: ",
/// naming an unsupported compression or sample format by name.
class TiffImage : public Image, public RowBandExactness
{
public:
    /// Stored values: the same whatever box asks for them.
    bool splitsExactlyInRowBands() const override { return true; }

    /// Opens the file, showing time point timePoint (0, the first, for files without several),
    /// keeping at most cacheBytes of decoded tiles or strips.
    explicit TiffImage(std::string const& path, long long timePoint = 0,
                       std::size_t cacheBytes = defaultTileCacheBytes);
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

    /// Whether the file holds this level (for every plane).
    bool hasLevel(long long level) const;
    /// Whether the file gives its voxel size (else getVoxelSize() is the stand-in (1, 1, 1) nm).
    bool knowsVoxelSize() const;
    /// How many tiles or strips (one per sample plane when planes are separate) openRegion has
    /// decoded since the image was opened, over all threads; a block served by the cache is not
    /// decoded again.
    std::uint64_t getBlocksDecoded() const;

private:
    struct Internals;
    std::unique_ptr<Internals> internals;
};

} // namespace Nuvek
