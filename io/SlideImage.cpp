#include <nuvek/io/SlideImage.h>

#include <openslide.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <string>
#include <stdexcept>
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

} // namespace

struct SlideImage::Internals
{
    std::string path;
    openslide_t* slide = nullptr;
    // openslideLevel[L]: OpenSlide's level serving level L, or -1.
    std::vector<int> openslideLevel;
    std::vector<double> downsample;
    std::vector<Vector> extents;
    Vector levelZero;
    Vector voxelSize{1, 1, 1};
    bool voxelSizeGiven = false;
    Vector tileExtent{256, 256, 1};

    [[noreturn]] void fail(std::string const& problem) const
    {
        throw std::runtime_error("SlideImage: " + path + ": " + problem);
    }

    ~Internals()
    {
        if (slide != nullptr)
            openslide_close(slide);
    }
};

SlideImage::SlideImage(std::string const& path) : internals(std::make_unique<Internals>())
{
    Internals& state = *internals;
    state.path = path;
    if (openslide_detect_vendor(path.c_str()) == nullptr)
        state.fail("not a slide that OpenSlide can read");
    state.slide = openslide_open(path.c_str());
    if (state.slide == nullptr)
        state.fail("not a slide that OpenSlide can read");
    if (char const* error = openslide_get_error(state.slide))
        state.fail(error);

    // OpenSlide 3 decodes tiles that are not JPEG through libtiff's RGBA interface, which since
    // libtiff 4.4 places a tile taller than its level at the bottom of the raster instead of the
    // top; OpenSlide 3 then returns the level's rows shifted and partly blank.
    bool const misreadsShortLevels = std::string(openslide_get_version()).rfind("3.", 0) == 0;
    int const count = openslide_get_level_count(state.slide);
    if (count < 1)
        state.fail("the slide has no levels");
    for (int k = 0; k < count; ++k)
    {
        std::int64_t width = 0;
        std::int64_t height = 0;
        openslide_get_level_dimensions(state.slide, k, &width, &height);
        double const factor = openslide_get_level_downsample(state.slide, k);
        if (width < 1 || height < 1 || !(factor >= 1.0))
            continue;
        if (misreadsShortLevels && height < tileHeightOf(state.slide, k))
        {
            if (k == 0)
                state.fail("the full-resolution level is shorter than one tile, which OpenSlide " +
                           std::string(openslide_get_version()) + " misreads");
            continue;
        }
        long long const level = std::llround(std::log2(factor));
        if (level > 40 || std::fabs(factor - std::ldexp(1.0, static_cast<int>(level))) > 0.01 * std::ldexp(1.0, static_cast<int>(level)))
            continue;
        if (static_cast<long long>(state.openslideLevel.size()) <= level)
        {
            state.openslideLevel.resize(static_cast<std::size_t>(level) + 1, -1);
            state.downsample.resize(static_cast<std::size_t>(level) + 1, 0.0);
            state.extents.resize(static_cast<std::size_t>(level) + 1);
        }
        std::size_t const index = static_cast<std::size_t>(level);
        if (state.openslideLevel[index] != -1)
            continue;
        state.openslideLevel[index] = k;
        state.downsample[index] = factor;
        state.extents[index] = Vector(width, height, 1);
    }
    if (state.openslideLevel.empty() || state.openslideLevel[0] == -1)
        state.fail("the slide has no full-resolution level");
    state.levelZero = state.extents[0];
    if (char const* error = openslide_get_error(state.slide))
        state.fail(error);

    char const* micronsX = openslide_get_property_value(state.slide, OPENSLIDE_PROPERTY_NAME_MPP_X);
    char const* micronsY = openslide_get_property_value(state.slide, OPENSLIDE_PROPERTY_NAME_MPP_Y);
    long long const tiffX = nanometresFromTiff(state.slide, "tiff.XResolution");
    long long const tiffY = nanometresFromTiff(state.slide, "tiff.YResolution");
    state.voxelSizeGiven = true;
    if (micronsX != nullptr && micronsY != nullptr)
        state.voxelSize = Vector(nanometresFrom(micronsX), nanometresFrom(micronsY), 1);
    else if (tiffX > 0 && tiffY > 0)
        state.voxelSize = Vector(tiffX, tiffY, 1);
    else
        state.voxelSizeGiven = false;
    char const* tileWidth = openslide_get_property_value(state.slide, "openslide.level[0].tile-width");
    char const* tileHeight = openslide_get_property_value(state.slide, "openslide.level[0].tile-height");
    if (tileWidth != nullptr && tileHeight != nullptr)
    {
        long long const width = std::atoll(tileWidth);
        long long const height = std::atoll(tileHeight);
        if (width > 0 && height > 0)
            state.tileExtent = Vector(width, height, 1);
    }
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

    std::size_t const index = static_cast<std::size_t>(level);
    int const openslideLevel = internals->openslideLevel[index];
    double const factor = internals->downsample[index];
    Vector const extent = box.getExtent();
    long long const width = inside.max.x - inside.min.x + 1;
    long long const bandRows = std::max(1LL, bandVoxels / width);
    std::vector<std::uint32_t> band;
    for (long long bandY = inside.min.y; bandY <= inside.max.y; bandY += bandRows)
    {
        long long const rows = std::min(bandRows, inside.max.y - bandY + 1);
        band.resize(static_cast<std::size_t>(width * rows));
        openslide_read_region(internals->slide, band.data(), std::llround(static_cast<double>(inside.min.x) * factor),
                              std::llround(static_cast<double>(bandY) * factor), openslideLevel, width, rows);
        if (char const* error = openslide_get_error(internals->slide))
            internals->fail(error);
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

} // namespace Nuvek
