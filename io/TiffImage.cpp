#include <nuvek/io/TiffImage.h>

#include "io/internal/TiffHandle.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

constexpr char const* context = "TiffImage";

// What one image directory holds, read once when the file is opened.
struct Page
{
    std::uint64_t offset = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint16_t samples = 1;
    std::uint16_t bits = 1;
    std::uint16_t format = SAMPLEFORMAT_UINT;
    std::uint16_t planar = PLANARCONFIG_CONTIG;
    std::uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    std::uint16_t compression = COMPRESSION_NONE;
    bool reduced = false;
    bool tiled = false;
    std::uint32_t tileWidth = 0;
    std::uint32_t tileHeight = 0;
    std::uint32_t rowsPerStrip = 0;
    std::string name;
    std::vector<std::uint64_t> subOffsets;
};

bool sameSamples(Page const& a, Page const& b)
{
    return a.samples == b.samples && a.bits == b.bits && a.format == b.format;
}

Page readPage(TiffHandle& handle)
{
    TIFF* tiff = handle.get();
    Page page;
    page.offset = TIFFCurrentDirOffset(tiff);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &page.samples);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &page.bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &page.format);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &page.planar);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &page.compression);
    if (TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &page.width) != 1 ||
        TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &page.height) != 1)
        handle.fail("a page has no image width or length");
    if (TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &page.photometric) != 1)
        page.photometric = page.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    std::uint32_t subfileType = 0;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SUBFILETYPE, &subfileType);
    page.reduced = (subfileType & FILETYPE_REDUCEDIMAGE) != 0;
    page.tiled = TIFFIsTiled(tiff) != 0;
    if (page.tiled)
    {
        TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &page.tileWidth);
        TIFFGetField(tiff, TIFFTAG_TILELENGTH, &page.tileHeight);
    }
    else
    {
        TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &page.rowsPerStrip);
        page.rowsPerStrip = std::min(page.rowsPerStrip, page.height);
    }
    char const* name = nullptr;
    if (TIFFGetField(tiff, TIFFTAG_PAGENAME, &name) == 1 && name != nullptr)
        page.name = name;
    std::uint16_t subCount = 0;
    std::uint64_t* subOffsets = nullptr;
    if (TIFFGetField(tiff, TIFFTAG_SUBIFD, &subCount, &subOffsets) == 1 && subOffsets != nullptr)
        page.subOffsets.assign(subOffsets, subOffsets + subCount);
    return page;
}

// Everything a page must satisfy before a voxel is read from it.
void checkPage(TiffHandle& handle, Page const& page)
{
    if (page.width == 0 || page.height == 0)
        handle.fail("the image is empty (width or length 0)");
    bool const integer = page.format == SAMPLEFORMAT_UINT && (page.bits == 8 || page.bits == 16);
    bool const floating = page.format == SAMPLEFORMAT_IEEEFP && page.bits == 32;
    if (!integer && !floating)
        handle.fail("unsupported sample format: " + std::to_string(page.bits) + "-bit " +
                    (page.format == SAMPLEFORMAT_UINT     ? "unsigned integer"
                     : page.format == SAMPLEFORMAT_INT    ? "signed integer"
                     : page.format == SAMPLEFORMAT_IEEEFP ? "floating point"
                                                          : "sample format " + std::to_string(page.format)) +
                    " (8 and 16-bit unsigned and 32-bit floating point are supported)");
    if (page.samples == 0)
        handle.fail("the image has no samples per pixel");
    if (TIFFIsCODECConfigured(page.compression) == 0)
        handle.fail("unsupported compression " + std::to_string(page.compression));
    if (page.photometric == PHOTOMETRIC_PALETTE)
        handle.fail("palette images are not supported");
    if (page.photometric == PHOTOMETRIC_YCBCR && page.compression != COMPRESSION_JPEG)
        handle.fail("YCbCr images are only supported with JPEG compression");
    if (page.planar != PLANARCONFIG_CONTIG && page.planar != PLANARCONFIG_SEPARATE)
        handle.fail("unsupported planar configuration " + std::to_string(page.planar));
    if (page.tiled && (page.tileWidth == 0 || page.tileHeight == 0))
        handle.fail("the tile size is missing or 0");
    if (!page.tiled && page.rowsPerStrip == 0)
        handle.fail("the rows per strip are 0");
}

// The level whose extent is level 0's divided by 2^L, rounded either way; 0 when none fits.
long long levelOf(Page const& page, Page const& levelZero)
{
    for (long long level = 1; level < 32; ++level)
    {
        std::uint64_t const factor = 1ULL << level;
        auto fits = [factor](std::uint64_t size, std::uint64_t full) {
            return size == full / factor || size == (full + factor - 1) / factor;
        };
        if (fits(page.width, levelZero.width) && fits(page.height, levelZero.height))
            return level;
        if (levelZero.width / factor == 0 && levelZero.height / factor == 0)
            break;
    }
    return 0;
}

long long nanometresFrom(float resolution, std::uint16_t unit)
{
    double const perUnit = unit == RESUNIT_CENTIMETER ? 1e7 : 2.54e7;
    if (!(resolution > 0.0f) || !std::isfinite(resolution))
        return 1;
    double const size = std::round(perUnit / static_cast<double>(resolution));
    if (!(size < 1e15))
        return 1;
    return std::max(1LL, static_cast<long long>(size));
}

// Converts one row of samples to doubles: count samples, taken every `step` samples.
template <typename Sample>
void convertRow(unsigned char const* source, long long step, long long count, double* target)
{
    Sample const* samples = reinterpret_cast<Sample const*>(source);
    for (long long i = 0; i < count; ++i)
        target[i] = static_cast<double>(samples[i * step]);
}

void convertRowOf(Page const& page, unsigned char const* source, long long step, long long count, double* target)
{
    if (page.bits == 8)
        convertRow<std::uint8_t>(source, step, count, target);
    else if (page.bits == 16)
        convertRow<std::uint16_t>(source, step, count, target);
    else
        convertRow<float>(source, step, count, target);
}

// One libtiff handle with the page it currently reads and a decode buffer.
struct Reader
{
    // Not memory-mapped ("m"): every page read of a large file would stay in the process's
    // resident memory; reading tiles through ordinary reads keeps it bounded.
    explicit Reader(std::string const& path) : handle(path, "rm", context) {}

    void select(Page const& page)
    {
        if (selected == page.offset)
            return;
        selected = 0;
        handle.clearError();
        if (TIFFSetSubDirectory(handle.get(), page.offset) != 1)
            handle.fail("cannot read the image directory at offset " + std::to_string(page.offset));
        if (page.compression == COMPRESSION_JPEG && page.photometric == PHOTOMETRIC_YCBCR)
            TIFFSetField(handle.get(), TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        selected = page.offset;
    }

    unsigned char* scratchOf(tmsize_t size)
    {
        if (size <= 0 || size > TiffHandle::maxAllocation)
            handle.fail("a tile or strip is too large to decode (" + std::to_string(size) + " bytes)");
        if (scratch.size() < static_cast<std::size_t>(size))
            scratch.resize(static_cast<std::size_t>(size));
        return scratch.data();
    }

    TiffHandle handle;
    std::uint64_t selected = 0;
    std::vector<unsigned char> scratch;
};

// The part of `out` that one z slice of the request fills.
struct Target
{
    double* out;
    Box box;
    long long voxels;
    long long z;

    double* at(long long channel, long long x, long long y) const
    {
        Vector const extent = box.getExtent();
        return out + channel * voxels + (z - box.min.z) * extent.x * extent.y + (y - box.min.y) * extent.x +
               (x - box.min.x);
    }
};

// Copies the part of one decoded block (a tile or a strip) that lies in `inside` into the target.
// The block starts at (blockX, blockY) and is blockWidth samples-per-pixel wide; with separate
// planes it holds only `channel`, else all channels interleaved.
void copyBlock(Page const& page, unsigned char const* block, long long blockX, long long blockY, long long blockWidth,
               Box const& inside, Target const& target, long long channel)
{
    long long const bytes = page.bits / 8;
    bool const separate = page.planar == PLANARCONFIG_SEPARATE;
    long long const step = separate ? 1 : page.samples;
    long long const count = inside.max.x - inside.min.x + 1;
    long long const firstChannel = separate ? channel : 0;
    long long const lastChannel = separate ? channel : page.samples - 1;
    for (long long y = inside.min.y; y <= inside.max.y; ++y)
        for (long long c = firstChannel; c <= lastChannel; ++c)
        {
            long long const sample = ((y - blockY) * blockWidth + (inside.min.x - blockX)) * step + (separate ? 0 : c);
            convertRowOf(page, block + sample * bytes, step, count, target.at(c, inside.min.x, y));
        }
}

void readTiles(Reader& reader, Page const& page, Box const& inside, Target const& target, std::uint64_t& decoded)
{
    TIFF* tiff = reader.handle.get();
    long long const tileWidth = page.tileWidth;
    long long const tileHeight = page.tileHeight;
    tmsize_t const tileSize = TIFFTileSize(tiff);
    unsigned char* tile = reader.scratchOf(tileSize);
    long long const planes = page.planar == PLANARCONFIG_SEPARATE ? page.samples : 1;
    for (long long tileY = inside.min.y / tileHeight * tileHeight; tileY <= inside.max.y; tileY += tileHeight)
        for (long long tileX = inside.min.x / tileWidth * tileWidth; tileX <= inside.max.x; tileX += tileWidth)
        {
            Box const tileBox(Vector(tileX, tileY, target.z),
                              Vector(tileX + tileWidth - 1, tileY + tileHeight - 1, target.z));
            Box const part = tileBox.intersected(inside);
            for (long long plane = 0; plane < planes; ++plane)
            {
                ttile_t const index = TIFFComputeTile(tiff, static_cast<std::uint32_t>(tileX),
                                                      static_cast<std::uint32_t>(tileY), 0,
                                                      static_cast<std::uint16_t>(plane));
                // A damaged block may decode short without an error; what it lacks then reads as 0
                // rather than as whatever the buffer held before.
                std::memset(tile, 0, static_cast<std::size_t>(tileSize));
                reader.handle.clearError();
                if (TIFFReadEncodedTile(tiff, index, tile, tileSize) < 0)
                    reader.handle.fail("cannot decode tile " + std::to_string(index));
                ++decoded;
                copyBlock(page, tile, tileX, tileY, tileWidth, part, target, plane);
            }
        }
}

void readStrips(Reader& reader, Page const& page, Box const& inside, Target const& target, std::uint64_t& decoded)
{
    TIFF* tiff = reader.handle.get();
    long long const rows = page.rowsPerStrip;
    tmsize_t const stripSize = TIFFStripSize(tiff);
    unsigned char* strip = reader.scratchOf(stripSize);
    long long const planes = page.planar == PLANARCONFIG_SEPARATE ? page.samples : 1;
    for (long long stripY = inside.min.y / rows * rows; stripY <= inside.max.y; stripY += rows)
    {
        Box const stripBox(Vector(0, stripY, target.z), Vector(page.width - 1LL, stripY + rows - 1, target.z));
        Box const part = stripBox.intersected(inside);
        for (long long plane = 0; plane < planes; ++plane)
        {
            tstrip_t const index =
                TIFFComputeStrip(tiff, static_cast<std::uint32_t>(stripY), static_cast<std::uint16_t>(plane));
            std::memset(strip, 0, static_cast<std::size_t>(stripSize));
            reader.handle.clearError();
            if (TIFFReadEncodedStrip(tiff, index, strip, stripSize) < 0)
                reader.handle.fail("cannot decode strip " + std::to_string(index));
            ++decoded;
            copyBlock(page, strip, 0, stripY, page.width, part, target, plane);
        }
    }
}

} // namespace

struct TiffImage::Internals
{
    std::string path;
    Page first;
    // slices[z][level]: the page of that slice and level, or null.
    std::vector<std::vector<Page const*>> slices;
    std::vector<Page> pages;
    long long numLevels = 1;
    std::vector<bool> present;
    ValueRange<double> valueRange;
    Vector voxelSize{1, 1, 1};

    std::atomic<std::uint64_t> blocksDecoded{0};
    std::mutex poolMutex;
    std::vector<std::unique_ptr<Reader>> idle;

    std::unique_ptr<Reader> borrow()
    {
        {
            std::lock_guard<std::mutex> lock(poolMutex);
            if (!idle.empty())
            {
                std::unique_ptr<Reader> reader = std::move(idle.back());
                idle.pop_back();
                return reader;
            }
        }
        return std::make_unique<Reader>(path);
    }

    void giveBack(std::unique_ptr<Reader> reader)
    {
        std::lock_guard<std::mutex> lock(poolMutex);
        idle.push_back(std::move(reader));
    }

    Page const& pageAt(long long z, long long level) const
    {
        return *slices[static_cast<std::size_t>(z)][static_cast<std::size_t>(level)];
    }
};

TiffImage::TiffImage(std::string const& path) : internals(std::make_unique<Internals>())
{
    Internals& state = *internals;
    state.path = path;
    auto reader = std::make_unique<Reader>(path);
    TiffHandle& handle = reader->handle;

    // Pass 1: every page of the main chain, then the SubIFDs of each.
    std::vector<Page> mainPages;
    do
    {
        mainPages.push_back(readPage(handle));
        if (mainPages.size() > 100000)
            handle.fail("too many pages");
    } while (TIFFReadDirectory(handle.get()) == 1);
    std::vector<std::vector<Page>> subPages(mainPages.size());
    for (std::size_t p = 0; p < mainPages.size(); ++p)
        for (std::uint64_t offset : mainPages[p].subOffsets)
        {
            // Like a damaged page of the main chain, a damaged SubIFD is not used.
            handle.clearError();
            if (TIFFSetSubDirectory(handle.get(), offset) == 1)
                subPages[p].push_back(readPage(handle));
        }

    // Pass 2: sort the pages into slices and levels.
    Page const& first = mainPages.front();
    checkPage(handle, first);
    std::vector<std::vector<std::size_t>> slices;
    auto addLevel = [&](Page const& page) {
        long long const level = levelOf(page, first);
        if (level == 0 || !sameSamples(page, first))
            return;
        std::vector<std::size_t>& slice = slices.back();
        if (slice.size() <= static_cast<std::size_t>(level))
            slice.resize(static_cast<std::size_t>(level) + 1, SIZE_MAX);
        if (slice[static_cast<std::size_t>(level)] != SIZE_MAX)
            return;
        checkPage(handle, page);
        slice[static_cast<std::size_t>(level)] = state.pages.size();
        state.pages.push_back(page);
    };
    for (std::size_t p = 0; p < mainPages.size(); ++p)
    {
        Page const& page = mainPages[p];
        bool const levelZero = p == 0 || (page.width == first.width && page.height == first.height && !page.reduced);
        if (levelZero && sameSamples(page, first))
        {
            checkPage(handle, page);
            slices.push_back({state.pages.size()});
            state.pages.push_back(page);
            for (Page const& sub : subPages[p])
                addLevel(sub);
        }
        else
            addLevel(page);
    }

    // A level is present when every slice has it, with one extent.
    std::size_t levels = SIZE_MAX;
    for (auto const& slice : slices)
        levels = std::min(levels, slice.size());
    state.present.assign(levels, false);
    for (std::size_t level = 0; level < levels; ++level)
    {
        bool present = true;
        for (auto const& slice : slices)
        {
            std::size_t const index = slice[level];
            present = present && index != SIZE_MAX && state.pages[index].width == state.pages[slices[0][level]].width &&
                      state.pages[index].height == state.pages[slices[0][level]].height;
        }
        state.present[level] = present;
    }
    while (!state.present.back())
        state.present.pop_back();
    state.numLevels = static_cast<long long>(state.present.size());
    for (auto const& slice : slices)
    {
        std::vector<Page const*> pointers;
        for (std::size_t level = 0; level < state.present.size(); ++level)
            pointers.push_back(state.present[level] ? &state.pages[slice[level]] : nullptr);
        state.slices.push_back(pointers);
    }
    state.first = state.pages[slices[0][0]];

    // Pass 3: metadata from the first page.
    handle.clearError();
    if (TIFFSetSubDirectory(handle.get(), state.first.offset) != 1)
        handle.fail("cannot read the first image directory again");
    if (first.format == SAMPLEFORMAT_IEEEFP)
    {
        double low = 0.0;
        double high = 0.0;
        if (TIFFGetField(handle.get(), TIFFTAG_SMINSAMPLEVALUE, &low) == 1 &&
            TIFFGetField(handle.get(), TIFFTAG_SMAXSAMPLEVALUE, &high) == 1)
            state.valueRange = ValueRange<double>(low, high);
        else
            state.valueRange = ValueRange<double>(0.0, 1.0);
    }
    else
        state.valueRange = ValueRange<double>(0.0, first.bits == 8 ? 255.0 : 65535.0);
    std::uint16_t unit = RESUNIT_NONE;
    float resolutionX = 0.0f;
    float resolutionY = 0.0f;
    TIFFGetFieldDefaulted(handle.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
    if ((unit == RESUNIT_INCH || unit == RESUNIT_CENTIMETER) &&
        TIFFGetField(handle.get(), TIFFTAG_XRESOLUTION, &resolutionX) == 1 &&
        TIFFGetField(handle.get(), TIFFTAG_YRESOLUTION, &resolutionY) == 1)
        state.voxelSize = Vector(nanometresFrom(resolutionX, unit), nanometresFrom(resolutionY, unit), 1);
    reader->selected = 0;
    state.giveBack(std::move(reader));
}

TiffImage::~TiffImage() = default;

std::string TiffImage::getURL() const
{
    return internals->path;
}

Vector TiffImage::getExtent(long long level) const
{
    if (level < 0)
        throw std::runtime_error("TiffImage: " + internals->path + ": the level must not be negative");
    long long const depth = static_cast<long long>(internals->slices.size());
    if (hasLevel(level))
    {
        Page const& page = internals->pageAt(0, level);
        return Vector(page.width, page.height, depth);
    }
    if (level > 62)
        return Vector(0, 0, depth);
    return Vector(static_cast<long long>(internals->first.width) >> level,
                  static_cast<long long>(internals->first.height) >> level, depth);
}

long long TiffImage::getNumChannels() const
{
    return internals->first.samples;
}

long long TiffImage::getNumLevels() const
{
    return internals->numLevels;
}

ValueRange<double> TiffImage::getValueRange() const
{
    return internals->valueRange;
}

Vector TiffImage::getVoxelSize(long long level) const
{
    if (level < 0 || level > 40)
        throw std::runtime_error("TiffImage: " + internals->path + ": the level " + std::to_string(level) +
                                 " has no voxel size");
    Vector const size = internals->voxelSize;
    return Vector(size.x << level, size.y << level, size.z);
}

Vector TiffImage::getTileExtent() const
{
    Page const& first = internals->first;
    if (first.tiled)
        return Vector(first.tileWidth, first.tileHeight, 1);
    return Vector(first.width, first.rowsPerStrip, 1);
}

std::string TiffImage::getSliceName(long long index)
{
    if (index < 0 || index >= static_cast<long long>(internals->slices.size()))
        throw std::runtime_error("TiffImage: " + internals->path + ": there is no slice " + std::to_string(index));
    return internals->pageAt(index, 0).name;
}

std::string TiffImage::getChannelName(long long index)
{
    if (index < 0 || index >= getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    std::uint16_t const photometric = internals->first.photometric;
    bool const rgb = photometric == PHOTOMETRIC_RGB || photometric == PHOTOMETRIC_YCBCR;
    if (rgb && index < 3)
    {
        static char const* const names[] = {"Red", "Green", "Blue"};
        return names[index];
    }
    return "Channel " + std::to_string(index);
}

std::uint64_t TiffImage::getHash()
{
    return std::hash<std::string>()(internals->path);
}

bool TiffImage::hasLevel(long long level) const
{
    return level >= 0 && level < internals->numLevels && internals->present[static_cast<std::size_t>(level)];
}

std::uint64_t TiffImage::getBlocksDecoded() const
{
    return internals->blocksDecoded.load();
}

void TiffImage::openRegion(double* out, long long level, Box const& box)
{
    long long const voxels = box.getSize();
    if (voxels == 0)
        return;
    if (!hasLevel(level))
        throw std::runtime_error("TiffImage: " + internals->path + ": level " + std::to_string(level) +
                                 " is not present in the file");
    Box const inside = box.intersected(Box(getExtent(level)));
    // Only voxels outside the extent need zeros: everything inside is overwritten.
    if (inside != box)
        std::fill(out, out + voxels * getNumChannels(), 0.0);
    if (inside.isEmpty())
        return;

    std::unique_ptr<Reader> reader = internals->borrow();
    std::uint64_t decoded = 0;
    for (long long z = inside.min.z; z <= inside.max.z; ++z)
    {
        Page const& page = internals->pageAt(z, level);
        reader->select(page);
        Target const target{out, box, voxels, z};
        Box const slice(Vector(inside.min.x, inside.min.y, z), Vector(inside.max.x, inside.max.y, z));
        if (page.tiled)
            readTiles(*reader, page, slice, target, decoded);
        else
            readStrips(*reader, page, slice, target, decoded);
    }
    internals->blocksDecoded += decoded;
    internals->giveBack(std::move(reader));
}

} // namespace Nuvek
