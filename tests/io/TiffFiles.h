#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// TIFF files for the io tests, written with libtiff itself, and the values they hold.
namespace NuvekTest {

struct PageShape
{
    PageShape() = default;
    PageShape(std::uint32_t width, std::uint32_t height, bool reduced = false, std::string name = "",
              bool oddSamples = false)
        : width(width), height(height), reduced(reduced), name(std::move(name)), oddSamples(oddSamples)
    {
    }

    std::uint32_t width = 0;
    std::uint32_t height = 0;
    bool reduced = false;
    std::string name;
    /// Other 8-bit samples than the file's (a mask that readers should skip).
    bool oddSamples = false;
};

/// How a test file stores its samples, and which pages (image directories) it has.
struct TiffLayout
{
    std::uint16_t samples = 1;
    std::uint16_t bits = 8;
    bool floating = false;
    bool isSigned = false;
    /// Photometric palette with a colour map that is no identity.
    bool palette = false;
    /// The ImageDescription of the first page.
    std::string description;
    bool planar = false;
    bool rgb = false;
    /// Photometric YCbCr; with JPEG compression libtiff converts the RGB values written.
    bool ycbcr = false;
    std::uint16_t compression = 1;
    /// 0: strips of rowsPerStrip rows.
    std::uint32_t tileWidth = 0;
    std::uint32_t tileHeight = 0;
    std::uint32_t rowsPerStrip = 7;
    bool bigTiff = false;
    /// The main chain of pages, and the SubIFDs of the first page.
    std::vector<PageShape> pages;
    std::vector<PageShape> subPages;
    /// Resolution unit (1 none, 2 inch, 3 centimetre) and pixels per unit in x, twice that in y.
    std::uint16_t resolutionUnit = 0;
    float resolution = 0.0f;
    /// SMinSampleValue and SMaxSampleValue, written when min < max.
    double sampleMin = 0.0;
    double sampleMax = 0.0;
};

/// The value that page `page` (index into pages, then subPages) holds at (x, y) in sample c: exact
/// in the stored type, different between neighbouring voxels, channels and pages.
double storedValue(TiffLayout const& layout, long long page, long long x, long long y, long long c);

/// Deflate-compressed RGB in tiles of 64 x 64, which OpenSlide reads as a generic TIFF.
TiffLayout tiledRgb(std::vector<PageShape> pages);

/// Writes layout's file to path; throws std::runtime_error if libtiff refuses.
void writeTiff(std::string const& path, TiffLayout const& layout);

std::vector<unsigned char> readBytes(std::string const& path);
void writeBytes(std::string const& path, std::vector<unsigned char> const& bytes);

/// Every file below a folder, by relative path, with its bytes.
std::map<std::string, std::vector<unsigned char>> contentsOf(std::string const& folder);

/// A classic little-endian TIFF with one strip image directory of the given entries (tag, type,
/// count, value or offset) and `data` placed right after the header; StripOffsets should point at 8.
struct RawEntry
{
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::uint32_t value;
};
std::vector<unsigned char> rawTiff(std::vector<RawEntry> entries, std::vector<unsigned char> const& data);

/// A directory that removes itself and everything in it.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::string path(std::string const& name) const;
    std::vector<std::string> files() const;

private:
    std::string root;
};

} // namespace NuvekTest
