#include <nuvek/io/SlideImage.h>

#include "io/internal/DecodedTileCache.h"
#include "io/internal/TiffHandle.h"
#include <nuvek/io/TiffImage.h>

#include <openslide.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Nuvek {

namespace {

// Voxels per OpenSlide request: bounds the ARGB band a call holds.
constexpr long long bandVoxels = 1LL << 22;

long long nanometresFrom(char const* micronsPerPixel)
{
    if (micronsPerPixel == nullptr)
        return 1;
    char* end = nullptr;
    double const microns = std::strtod(micronsPerPixel, &end);
    if (end == micronsPerPixel || !(microns > 0.0) || !(microns < 1e9))
        return 1;
    return std::max(1LL, static_cast<long long>(std::llround(microns * 1000.0)));
}

// One ARGB voxel, premultiplied, to its colour channel `shift` (16 red, 8 green, 0 blue).
double channelOf(std::uint32_t argb, int shift)
{
    std::uint32_t const alpha = argb >> 24;
    std::uint32_t const value = (argb >> shift) & 0xff;
    if (alpha == 255)
        return static_cast<double>(value);
    if (alpha == 0)
        return 0.0;
    return static_cast<double>(std::min<std::uint32_t>(255, (value * 255 + alpha / 2) / alpha));
}

long long tileHeightOf(openslide_t* slide, int level)
{
    std::string const name = "openslide.level[" + std::to_string(level) + "].tile-height";
    char const* value = openslide_get_property_value(slide, name.c_str());
    return value == nullptr ? 0 : std::atoll(value);
}

// Nanometres per pixel from OpenSlide's copy of the TIFF resolution tags, 0 when they say nothing.
long long nanometresFromTiff(openslide_t* slide, char const* resolutionName)
{
    char const* unit = openslide_get_property_value(slide, "tiff.ResolutionUnit");
    char const* resolution = openslide_get_property_value(slide, resolutionName);
    if (unit == nullptr || resolution == nullptr)
        return 0;
    double const perUnit = std::string(unit) == "centimeter" ? 1e7 : (std::string(unit) == "inch" ? 2.54e7 : 0.0);
    double const pixels = std::strtod(resolution, nullptr);
    if (!(perUnit > 0.0) || !(pixels > 0.0) || !(perUnit / pixels < 1e15))
        return 0;
    return std::max(1LL, static_cast<long long>(std::llround(perUnit / pixels)));
}

// The compression of the tiled TIFF page of this size, or 0 when the file has none (not a TIFF).
std::uint16_t compressionOfPage(std::string const& path, std::int64_t width, std::int64_t height)
{
    try
    {
        TiffHandle handle(path, "r", "SlideImage");
        do
        {
            std::uint32_t pageWidth = 0;
            std::uint32_t pageHeight = 0;
            std::uint16_t compression = COMPRESSION_NONE;
            TIFFGetField(handle.get(), TIFFTAG_IMAGEWIDTH, &pageWidth);
            TIFFGetField(handle.get(), TIFFTAG_IMAGELENGTH, &pageHeight);
            TIFFGetFieldDefaulted(handle.get(), TIFFTAG_COMPRESSION, &compression);
            if (TIFFIsTiled(handle.get()) != 0 && pageWidth == width && pageHeight == height)
                return compression;
        } while (TIFFReadDirectory(handle.get()) == 1);
    }
    catch (std::runtime_error const&)
    {
    }
    return 0;
}

// OpenSlide 3 decodes TIFF tiles that are neither JPEG nor Aperio's JPEG 2000 through libtiff's
// RGBA interface, which since libtiff 4.4 places a tile taller than its level at the bottom of the
// raster instead of the top; OpenSlide 3 then returns the level's rows shifted and partly blank.
// Its own JPEG and JPEG 2000 decoders place such a tile correctly.
bool misreadsShortLevel(std::string const& path, openslide_t* slide, int level, std::int64_t width, std::int64_t height)
{
    if (std::string(openslide_get_version()).rfind("3.", 0) != 0 || height >= tileHeightOf(slide, level))
        return false;
    std::uint16_t const compression = compressionOfPage(path, width, height);
    return compression != 0 && compression != COMPRESSION_JPEG && compression != 33003 && compression != 33005;
}

} // namespace

struct SlideImage::Internals
{
    std::string path;
    openslide_t* slide = nullptr;
    // openslideLevel[L]: OpenSlide's level serving level L, or -1.
    std::vector<int> openslideLevel;
    std::vector<double> downsample;
    std::vector<Vector> extents;
    // Levels read through the file's TIFF pages rather than OpenSlide.
    std::vector<bool> throughTiff;
    std::unique_ptr<TiffImage> tiff;
    Vector levelZero;
    Vector voxelSize{1, 1, 1};
    bool voxelSizeGiven = false;
    Vector tileExtent{256, 256, 1};
    std::size_t cacheBytes = 0;
    // Null when the image keeps no decoded regions; else regions of the grid of each level's own
    // tile size, as three planes of 8-bit red, green and blue.
    std::unique_ptr<DecodedTileCache> cache;
    std::vector<Vector> grid;

    [[noreturn]] void fail(std::string const& problem) const
    {
        throw std::runtime_error("SlideImage: " + path + ": " + problem);
    }

    ~Internals()
    {
        if (slide != nullptr)
            openslide_close(slide);
    }

    void open();
    void findLevels();
    bool readable(std::size_t level);
    void findVoxelSize();
    void findTileExtent();
    void findGrid();
    void readBand(double* out, Box const& box, Box const& inside, long long level);
    void readGrid(double* out, Box const& box, Box const& inside, long long level);
};

void SlideImage::Internals::open()
{
    if (openslide_detect_vendor(path.c_str()) == nullptr)
        fail("not a slide that OpenSlide can read");
    slide = openslide_open(path.c_str());
    if (slide == nullptr)
        fail("not a slide that OpenSlide can read");
    if (char const* error = openslide_get_error(slide))
        fail(error);
}

// Level L is OpenSlide's level whose downsample is nearest 2^L, within 1% of it.
void SlideImage::Internals::findLevels()
{
    int const count = openslide_get_level_count(slide);
    if (count < 1)
        fail("the slide has no levels");
    std::vector<double> distance;
    for (int k = 0; k < count; ++k)
    {
        std::int64_t width = 0;
        std::int64_t height = 0;
        openslide_get_level_dimensions(slide, k, &width, &height);
        double const factor = openslide_get_level_downsample(slide, k);
        if (width < 1 || height < 1 || !(factor >= 1.0))
            continue;
        long long const level = std::llround(std::log2(factor));
        double const off = level > 40 ? 1.0 : std::fabs(factor / std::ldexp(1.0, static_cast<int>(level)) - 1.0);
        if (off > 0.01)
            continue;
        std::size_t const index = static_cast<std::size_t>(level);
        if (openslideLevel.size() <= index)
        {
            openslideLevel.resize(index + 1, -1);
            downsample.resize(index + 1, 0.0);
            extents.resize(index + 1);
            distance.resize(index + 1, 2.0);
        }
        if (off >= distance[index])
            continue;
        distance[index] = off;
        openslideLevel[index] = k;
        downsample[index] = factor;
        extents[index] = Vector(width, height, 1);
    }
    if (openslideLevel.empty() || openslideLevel[0] == -1)
        fail("the slide has no full-resolution level");
    throughTiff.assign(openslideLevel.size(), false);
    for (std::size_t level = 0; level < openslideLevel.size(); ++level)
        if (openslideLevel[level] != -1 && !readable(level))
            openslideLevel[level] = -1;
    if (openslideLevel[0] == -1)
        fail("the full-resolution level is shorter than one tile, which OpenSlide " +
             std::string(openslide_get_version()) + " misreads, and its TIFF page cannot be read instead");
    while (openslideLevel.back() == -1)
        openslideLevel.pop_back();
    levelZero = extents[0];
    if (char const* error = openslide_get_error(slide))
        fail(error);
}

// Whether the level can be read exactly, deciding whether through OpenSlide or through the TIFF
// page. OpenSlide places a region of a level at level-0 coordinates; its pixels come out exactly
// only where the downsample is the power of two itself and OpenSlide does not misread the level.
// Else the level's own TIFF page is read, when the file is a TIFF whose page of that size libtiff
// decodes as 8-bit RGB.
bool SlideImage::Internals::readable(std::size_t level)
{
    Vector const extent = extents[level];
    bool const exact = downsample[level] == std::ldexp(1.0, static_cast<int>(level));
    if (exact && !misreadsShortLevel(path, slide, openslideLevel[level], extent.x, extent.y))
        return true;
    if (!tiff)
    {
        try
        {
            tiff = std::make_unique<TiffImage>(path, 0, cacheBytes);
        }
        catch (std::runtime_error const&)
        {
            return false;
        }
    }
    long long const index = static_cast<long long>(level);
    bool const usable = tiff->getNumChannels() == 3 && tiff->getValueRange().max == 255.0 && tiff->hasLevel(index) &&
                        tiff->getExtent(index) == extent;
    throughTiff[level] = usable;
    return usable;
}

void SlideImage::Internals::findVoxelSize()
{
    char const* micronsX = openslide_get_property_value(slide, OPENSLIDE_PROPERTY_NAME_MPP_X);
    char const* micronsY = openslide_get_property_value(slide, OPENSLIDE_PROPERTY_NAME_MPP_Y);
    long long const tiffX = nanometresFromTiff(slide, "tiff.XResolution");
    long long const tiffY = nanometresFromTiff(slide, "tiff.YResolution");
    voxelSizeGiven = true;
    if (micronsX != nullptr && micronsY != nullptr)
        voxelSize = Vector(nanometresFrom(micronsX), nanometresFrom(micronsY), 1);
    else if (tiffX > 0 && tiffY > 0)
        voxelSize = Vector(tiffX, tiffY, 1);
    else
        voxelSizeGiven = false;
}

void SlideImage::Internals::findTileExtent()
{
    char const* tileWidth = openslide_get_property_value(slide, "openslide.level[0].tile-width");
    char const* tileHeight = openslide_get_property_value(slide, "openslide.level[0].tile-height");
    if (tileWidth != nullptr && tileHeight != nullptr)
    {
        long long const width = std::atoll(tileWidth);
        long long const height = std::atoll(tileHeight);
        if (width > 0 && height > 0)
            tileExtent = Vector(width, height, 1);
    }
}

// The cache's grid of each level: OpenSlide's tile size of that level, where it reports one, so
// that a cached region decodes the stored tiles it covers once; else the level-0 tile extent.
void SlideImage::Internals::findGrid()
{
    grid.assign(openslideLevel.size(), tileExtent);
    for (std::size_t level = 0; level < openslideLevel.size(); ++level)
    {
        if (openslideLevel[level] == -1)
            continue;
        std::string const prefix = "openslide.level[" + std::to_string(openslideLevel[level]) + "].tile-";
        char const* width = openslide_get_property_value(slide, (prefix + "width").c_str());
        char const* height = openslide_get_property_value(slide, (prefix + "height").c_str());
        long long const x = width == nullptr ? 0 : std::atoll(width);
        long long const y = height == nullptr ? 0 : std::atoll(height);
        if (x > 0 && y > 0 && x <= 8192 && y <= 8192)
            grid[level] = Vector(x, y, 1);
    }
}

// Reads `inside` in bands of rows straight from OpenSlide into the region buffer.
void SlideImage::Internals::readBand(double* out, Box const& box, Box const& inside, long long level)
{
    int const slideLevel = openslideLevel[static_cast<std::size_t>(level)];
    long long const voxels = box.getSize();
    Vector const extent = box.getExtent();
    long long const width = inside.max.x - inside.min.x + 1;
    long long const bandRows = std::max(1LL, bandVoxels / width);
    std::vector<std::uint32_t> band;
    for (long long bandY = inside.min.y; bandY <= inside.max.y; bandY += bandRows)
    {
        long long const rows = std::min(bandRows, inside.max.y - bandY + 1);
        band.resize(static_cast<std::size_t>(width * rows));
        // The downsample is 2^level exactly (else the level is read through its TIFF page).
        openslide_read_region(slide, band.data(), inside.min.x << level, bandY << level, slideLevel, width, rows);
        if (char const* error = openslide_get_error(slide))
            fail(error);
        // The single z slice of the box: every slice of the request beyond it stays 0.
        for (long long y = 0; y < rows; ++y)
            for (int c = 0; c < 3; ++c)
            {
                double* row = out + c * voxels + (0 - box.min.z) * extent.x * extent.y +
                              (bandY + y - box.min.y) * extent.x + (inside.min.x - box.min.x);
                std::uint32_t const* source = band.data() + y * width;
                int const shift = 16 - 8 * c;
                for (long long x = 0; x < width; ++x)
                    row[x] = channelOf(source[x], shift);
            }
    }
}

// Reads `inside` through the cache, one region of the level's grid at a time. A voxel's colour does
// not depend on the region OpenSlide reads it in (the downsample is a power of two exactly), so
// the values are those of readBand.
void SlideImage::Internals::readGrid(double* out, Box const& box, Box const& inside, long long level)
{
    std::size_t const index = static_cast<std::size_t>(level);
    int const slideLevel = openslideLevel[index];
    Vector const cell = grid[index];
    Vector const levelExtent = extents[index];
    long long const cellsX = (levelExtent.x + cell.x - 1) / cell.x;
    long long const voxels = box.getSize();
    Vector const extent = box.getExtent();
    std::vector<std::uint32_t> argb;
    DecodedTileCache::Block held;
    for (long long cellY = inside.min.y / cell.y; cellY <= inside.max.y / cell.y; ++cellY)
        for (long long cellX = inside.min.x / cell.x; cellX <= inside.max.x / cell.x; ++cellX)
        {
            long long const x0 = cellX * cell.x;
            long long const y0 = cellY * cell.y;
            long long const width = std::min(cell.x, levelExtent.x - x0);
            long long const height = std::min(cell.y, levelExtent.y - y0);
            held = cache->get(
                static_cast<std::uint64_t>(level), static_cast<std::uint64_t>(cellY * cellsX + cellX),
                [&](std::vector<unsigned char>& bytes) {
                    argb.resize(static_cast<std::size_t>(width * height));
                    openslide_read_region(slide, argb.data(), x0 << level, y0 << level, slideLevel, width, height);
                    if (char const* error = openslide_get_error(slide))
                        fail(error);
                    bytes.resize(static_cast<std::size_t>(3 * width * height));
                    for (int c = 0; c < 3; ++c)
                        for (long long i = 0; i < width * height; ++i)
                            bytes[static_cast<std::size_t>(c * width * height + i)] =
                                static_cast<unsigned char>(channelOf(argb[static_cast<std::size_t>(i)], 16 - 8 * c));
                });
            long long const partX0 = std::max(inside.min.x, x0);
            long long const partX1 = std::min(inside.max.x, x0 + width - 1);
            long long const partY0 = std::max(inside.min.y, y0);
            long long const partY1 = std::min(inside.max.y, y0 + height - 1);
            for (int c = 0; c < 3; ++c)
                for (long long y = partY0; y <= partY1; ++y)
                {
                    double* row = out + c * voxels + (0 - box.min.z) * extent.x * extent.y +
                                  (y - box.min.y) * extent.x + (partX0 - box.min.x);
                    unsigned char const* source = held->data() + c * width * height + (y - y0) * width + (partX0 - x0);
                    for (long long x = 0; x <= partX1 - partX0; ++x)
                        row[x] = static_cast<double>(source[x]);
                }
        }
}

SlideImage::SlideImage(std::string const& path, std::size_t cacheBytes) : internals(std::make_unique<Internals>())
{
    internals->path = path;
    internals->cacheBytes = cacheBytes;
    internals->open();
    internals->findLevels();
    internals->findVoxelSize();
    internals->findTileExtent();
    internals->findGrid();
    if (cacheBytes > 0)
        internals->cache = std::make_unique<DecodedTileCache>(cacheBytes);
}

SlideImage::~SlideImage() = default;

std::string SlideImage::getURL() const
{
    return internals->path;
}

Vector SlideImage::getExtent(long long level) const
{
    if (level < 0)
        throw std::runtime_error("SlideImage: " + internals->path + ": the level must not be negative");
    if (hasLevel(level))
        return internals->extents[static_cast<std::size_t>(level)];
    if (level > 62)
        return Vector(0, 0, 1);
    return Vector(internals->levelZero.x >> level, internals->levelZero.y >> level, 1);
}

long long SlideImage::getNumChannels() const
{
    return 3;
}

long long SlideImage::getNumLevels() const
{
    return static_cast<long long>(internals->openslideLevel.size());
}

ValueRange<double> SlideImage::getValueRange() const
{
    return ValueRange<double>(0.0, 255.0);
}

Vector SlideImage::getVoxelSize(long long level) const
{
    if (level < 0 || level > 40)
        throw std::runtime_error("SlideImage: " + internals->path + ": the level " + std::to_string(level) +
                                 " has no voxel size");
    Vector const size = internals->voxelSize;
    return Vector(size.x << level, size.y << level, size.z);
}

Vector SlideImage::getTileExtent() const
{
    return internals->tileExtent;
}

std::string SlideImage::getChannelName(long long index)
{
    static char const* const names[] = {"Red", "Green", "Blue"};
    if (index < 0 || index >= 3)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return names[index];
}

std::uint64_t SlideImage::getHash()
{
    return std::hash<std::string>()(internals->path);
}

bool SlideImage::hasLevel(long long level) const
{
    return level >= 0 && level < getNumLevels() && internals->openslideLevel[static_cast<std::size_t>(level)] != -1;
}

bool SlideImage::knowsVoxelSize() const
{
    return internals->voxelSizeGiven;
}

std::string SlideImage::getProperty(std::string const& name) const
{
    char const* value = openslide_get_property_value(internals->slide, name.c_str());
    return value == nullptr ? std::string() : std::string(value);
}

void SlideImage::openRegion(double* out, long long level, Box const& box)
{
    long long const voxels = box.getSize();
    if (voxels == 0)
        return;
    if (!hasLevel(level))
        throw std::runtime_error("SlideImage: " + internals->path + ": level " + std::to_string(level) +
                                 " is not present in the slide");
    Box const inside = box.intersected(Box(getExtent(level)));
    if (inside != box)
        std::fill(out, out + voxels * 3, 0.0);
    if (inside.isEmpty())
        return;

    if (internals->throughTiff[static_cast<std::size_t>(level)])
        return internals->tiff->openRegion(out, level, box);
    if (internals->cache)
        internals->readGrid(out, box, inside, level);
    else
        internals->readBand(out, box, inside, level);
}

} // namespace Nuvek
