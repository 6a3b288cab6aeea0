#include <nuvek/io/TiffImage.h>

#include "io/internal/TiffHandle.h"

#include "io/internal/DecodedTileCache.h"
#include "io/internal/ImageJDescriptionParser.h"
#include "io/internal/Jpeg2000Decoder.h"
#include "io/internal/OmeXmlParser.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
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

    // JPEG 2000 (Aperio's two kinds included), which libtiff cannot decode: through libopenjp2.
    bool jpeg2000() const { return compression == 33003 || compression == 33005 || compression == 34712; }

    // Old-style JPEG and YCbCr that is not JPEG-compressed are decoded through libtiff's RGBA
    // interface, as 8-bit red, green and blue.
    bool throughRgba() const
    {
        return !jpeg2000() && (compression == COMPRESSION_OJPEG ||
                               (photometric == PHOTOMETRIC_YCBCR && compression != COMPRESSION_JPEG));
    }

    long long channels() const { return throughRgba() ? 3 : samples; }
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

std::string formatName(std::uint16_t format)
{
    switch (format)
    {
    case SAMPLEFORMAT_UINT:
        return "unsigned integer";
    case SAMPLEFORMAT_INT:
        return "signed integer";
    case SAMPLEFORMAT_IEEEFP:
        return "floating point";
    case SAMPLEFORMAT_COMPLEXINT:
        return "complex integer";
    case SAMPLEFORMAT_COMPLEXIEEEFP:
        return "complex floating point";
    default:
        return "sample format " + std::to_string(format);
    }
}

std::string compressionName(std::uint16_t compression)
{
    static std::pair<std::uint16_t, char const*> const names[] = {
        {2, "CCITT RLE"},
        {3, "CCITT Group 3 fax"},
        {4, "CCITT Group 4 fax"},
        {5, "LZW"},
        {6, "old-style JPEG"},
        {7, "JPEG"},
        {8, "Deflate"},
        {32773, "PackBits"},
        {32946, "Deflate"},
        {33003, "Aperio JPEG 2000 YCbCr"},
        {33005, "Aperio JPEG 2000 RGB"},
        {34712, "JPEG 2000"},
        {34887, "LERC"},
        {34892, "lossy JPEG"},
        {34925, "LZMA"},
        {50000, "Zstandard"},
        {50001, "WebP"},
        {50002, "JPEG XL"},
        {52546, "JPEG XL"},
    };
    for (auto const& entry : names)
        if (entry.first == compression)
            return std::to_string(compression) + " (" + entry.second + ")";
    return std::to_string(compression);
}

bool supportedSamples(Page const& page)
{
    if (page.format == SAMPLEFORMAT_UINT || page.format == SAMPLEFORMAT_INT)
        return page.bits == 8 || page.bits == 16 || page.bits == 32;
    return page.format == SAMPLEFORMAT_IEEEFP && (page.bits == 32 || page.bits == 64);
}

// Everything a page must satisfy before a voxel is read from it.
void checkPage(TiffHandle& handle, Page const& page)
{
    if (page.width == 0 || page.height == 0)
        handle.fail("the image is empty (width or length 0)");
    if (!supportedSamples(page))
        handle.fail("unsupported sample format: " + std::to_string(page.bits) + "-bit " + formatName(page.format) +
                    " (8, 16 and 32-bit integers and 32 and 64-bit floating point are supported)");
    if (page.samples == 0)
        handle.fail("the image has no samples per pixel");
    if (!page.jpeg2000() && TIFFIsCODECConfigured(page.compression) == 0)
        handle.fail("unsupported compression " + compressionName(page.compression));
    if (page.jpeg2000() && (page.format != SAMPLEFORMAT_UINT || page.bits > 16 || page.planar != PLANARCONFIG_CONTIG ||
                            (page.compression == 33003 && (page.samples != 3 || page.bits != 8))))
        handle.fail("JPEG 2000 is supported with contiguous 8 or 16-bit unsigned samples (33003: three of 8 bits)");
    if (page.throughRgba() && (page.bits != 8 || page.format != SAMPLEFORMAT_UINT || page.samples < 3))
        handle.fail("YCbCr and old-style JPEG are supported with three 8-bit samples only");
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

// Nanometres per pixel from a resolution in pixels per unit of `unitNanometres`; 0.0 when unusable.
double nanometresFrom(float resolution, double unitNanometres)
{
    if (!(resolution > 0.0f) || !std::isfinite(resolution) || !(unitNanometres > 0.0))
        return 0.0;
    double const size = unitNanometres / static_cast<double>(resolution);
    return size < 1e15 ? size : 0.0;
}

// A voxel size in whole nanometres, at least 1.
long long roundedSize(double nanometres)
{
    return std::max(1LL, static_cast<long long>(std::llround(nanometres)));
}

// The microns per pixel of an Aperio description ("... |MPP = 0.4990|..."), 0.0 when it has none.
double aperioMicrons(std::string const& description)
{
    if (description.rfind("Aperio", 0) != 0)
        return 0.0;
    std::size_t const key = description.find("|MPP = ");
    if (key == std::string::npos)
        return 0.0;
    char const* text = description.c_str() + key + 7;
    char* end = nullptr;
    double const microns = std::strtod(text, &end);
    return end != text && microns > 0.0 && microns < 1e9 ? microns : 0.0;
}

// Converts one row of samples to doubles: count samples, taken every `step` samples.
template <typename Sample>
void convertRow(unsigned char const* source, long long step, long long count, double* target)
{
    for (long long i = 0; i < count; ++i)
    {
        Sample sample;
        std::memcpy(&sample, source + i * step * static_cast<long long>(sizeof(Sample)), sizeof(Sample));
        target[i] = static_cast<double>(sample);
    }
}

void convertRowOf(Page const& page, unsigned char const* source, long long step, long long count, double* target)
{
    bool const isSigned = page.format == SAMPLEFORMAT_INT;
    if (page.format == SAMPLEFORMAT_IEEEFP)
        page.bits == 32 ? convertRow<float>(source, step, count, target)
                        : convertRow<double>(source, step, count, target);
    else if (page.bits == 8)
        isSigned ? convertRow<std::int8_t>(source, step, count, target)
                 : convertRow<std::uint8_t>(source, step, count, target);
    else if (page.bits == 16)
        isSigned ? convertRow<std::int16_t>(source, step, count, target)
                 : convertRow<std::uint16_t>(source, step, count, target);
    else
        isSigned ? convertRow<std::int32_t>(source, step, count, target)
                 : convertRow<std::uint32_t>(source, step, count, target);
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
    std::vector<unsigned char> raw;
};

// The bytes one decoded tile or strip takes.
tmsize_t blockSize(Reader& reader, Page const& page)
{
    if (!page.jpeg2000())
        return page.tiled ? TIFFTileSize(reader.handle.get()) : TIFFStripSize(reader.handle.get());
    long long const width = page.tiled ? page.tileWidth : page.width;
    long long const height = page.tiled ? page.tileHeight : page.rowsPerStrip;
    long long const size = width * height * page.samples * (page.bits / 8);
    return size > TiffHandle::maxAllocation ? 0 : static_cast<tmsize_t>(size);
}

// Decodes one JPEG 2000 tile or strip, which libtiff hands over as it is stored.
void decodeJpeg2000(Reader& reader, Page const& page, std::uint32_t index, unsigned char* block)
{
    TIFF* tiff = reader.handle.get();
    std::uint64_t const bytes = TIFFGetStrileByteCount(tiff, index);
    if (bytes == 0 || bytes > static_cast<std::uint64_t>(TiffHandle::maxAllocation))
        reader.handle.fail("block " + std::to_string(index) + " has no data or too much (" + std::to_string(bytes) +
                           " bytes)");
    reader.raw.resize(static_cast<std::size_t>(bytes));
    tmsize_t const read = page.tiled ? TIFFReadRawTile(tiff, index, reader.raw.data(), static_cast<tmsize_t>(bytes))
                                     : TIFFReadRawStrip(tiff, index, reader.raw.data(), static_cast<tmsize_t>(bytes));
    if (read <= 0)
        reader.handle.fail("cannot read block " + std::to_string(index));
    try
    {
        Jpeg2000Decoder::decode(reader.raw.data(), static_cast<std::size_t>(read),
                                page.tiled ? page.tileWidth : page.width,
                                page.tiled ? page.tileHeight : page.rowsPerStrip, page.samples, page.bits / 8,
                                page.compression == 33003, block);
    }
    catch (std::runtime_error const& error)
    {
        reader.handle.fail("cannot decode block " + std::to_string(index) + ": " + error.what());
    }
}

// Decodes tile or strip `index` into `block` (size bytes, zeroed first: a damaged block may decode
// short without an error, and what it lacks then reads as 0 rather than as what the buffer held).
void decodeBlock(Reader& reader, Page const& page, std::uint32_t index, unsigned char* block, tmsize_t size)
{
    std::memset(block, 0, static_cast<std::size_t>(size));
    reader.handle.clearError();
    if (page.jpeg2000())
        decodeJpeg2000(reader, page, index, block);
    else if (page.tiled && TIFFReadEncodedTile(reader.handle.get(), index, block, size) < 0)
        reader.handle.fail("cannot decode tile " + std::to_string(index));
    else if (!page.tiled && TIFFReadEncodedStrip(reader.handle.get(), index, block, size) < 0)
        reader.handle.fail("cannot decode strip " + std::to_string(index));
}

// The part of `out` that one page of the request fills: slice z, channels from firstChannel on.
struct Target
{
    double* out;
    Box box;
    long long voxels;
    long long z;
    long long firstChannel;

    double* at(long long channel, long long x, long long y) const
    {
        Vector const extent = box.getExtent();
        return out + (firstChannel + channel) * voxels + (z - box.min.z) * extent.x * extent.y +
               (y - box.min.y) * extent.x + (x - box.min.x);
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
// The decoded bytes of tile or strip `index` of the page: from the cache, decoded into it by this
// thread when absent (`held` keeps them alive while they are copied), or without a cache decoded
// into the reader's scratch buffer.
unsigned char const* blockOf(Reader& reader, Page const& page, std::uint32_t index, tmsize_t size,
                             DecodedTileCache* cache, DecodedTileCache::Block& held, std::uint64_t& decoded)
{
    if (cache == nullptr)
    {
        unsigned char* block = reader.scratchOf(size);
        decodeBlock(reader, page, index, block, size);
        ++decoded;
        return block;
    }
    held = cache->get(page.offset, index, [&](std::vector<unsigned char>& bytes) {
        bytes.resize(static_cast<std::size_t>(size));
        decodeBlock(reader, page, index, bytes.data(), size);
        ++decoded;
    });
    return held->data();
}

void readTiles(Reader& reader, Page const& page, Box const& inside, Target const& target, DecodedTileCache* cache,
               std::uint64_t& decoded)
{
    TIFF* tiff = reader.handle.get();
    long long const tileWidth = page.tileWidth;
    long long const tileHeight = page.tileHeight;
    tmsize_t const tileSize = blockSize(reader, page);
    if (tileSize <= 0 || tileSize > TiffHandle::maxAllocation)
        reader.handle.fail("a tile or strip is too large to decode (" + std::to_string(tileSize) + " bytes)");
    long long const planes = page.planar == PLANARCONFIG_SEPARATE ? page.samples : 1;
    DecodedTileCache::Block held;
    for (long long tileY = inside.min.y / tileHeight * tileHeight; tileY <= inside.max.y; tileY += tileHeight)
        for (long long tileX = inside.min.x / tileWidth * tileWidth; tileX <= inside.max.x; tileX += tileWidth)
        {
            Box const tileBox(Vector(tileX, tileY, target.z),
                              Vector(tileX + tileWidth - 1, tileY + tileHeight - 1, target.z));
            Box const part = tileBox.intersected(inside);
            for (long long plane = 0; plane < planes; ++plane)
            {
                ttile_t const index =
                    TIFFComputeTile(tiff, static_cast<std::uint32_t>(tileX), static_cast<std::uint32_t>(tileY), 0,
                                    static_cast<std::uint16_t>(plane));
                unsigned char const* tile = blockOf(reader, page, index, tileSize, cache, held, decoded);
                copyBlock(page, tile, tileX, tileY, tileWidth, part, target, plane);
            }
        }
}

void readStrips(Reader& reader, Page const& page, Box const& inside, Target const& target, DecodedTileCache* cache,
                std::uint64_t& decoded)
{
    TIFF* tiff = reader.handle.get();
    long long const rows = page.rowsPerStrip;
    tmsize_t const stripSize = blockSize(reader, page);
    if (stripSize <= 0 || stripSize > TiffHandle::maxAllocation)
        reader.handle.fail("a tile or strip is too large to decode (" + std::to_string(stripSize) + " bytes)");
    long long const planes = page.planar == PLANARCONFIG_SEPARATE ? page.samples : 1;
    DecodedTileCache::Block held;
    for (long long stripY = inside.min.y / rows * rows; stripY <= inside.max.y; stripY += rows)
    {
        Box const stripBox(Vector(0, stripY, target.z), Vector(page.width - 1LL, stripY + rows - 1, target.z));
        Box const part = stripBox.intersected(inside);
        for (long long plane = 0; plane < planes; ++plane)
        {
            tstrip_t const index =
                TIFFComputeStrip(tiff, static_cast<std::uint32_t>(stripY), static_cast<std::uint16_t>(plane));
            unsigned char const* strip = blockOf(reader, page, index, stripSize, cache, held, decoded);
            copyBlock(page, strip, 0, stripY, page.width, part, target, plane);
        }
    }
}

// The tiles or strips that cover `inside`: the RGBA interface decodes subsampled blocks correctly
// only from their first row and column.
Box alignedToBlocks(Page const& page, Box const& inside)
{
    long long const blockWidth = page.tiled ? page.tileWidth : page.width;
    long long const blockHeight = page.tiled ? page.tileHeight : page.rowsPerStrip;
    Vector const min(inside.min.x / blockWidth * blockWidth, inside.min.y / blockHeight * blockHeight, inside.min.z);
    Vector const max(std::min<long long>(page.width, (inside.max.x / blockWidth + 1) * blockWidth) - 1,
                     std::min<long long>(page.height, (inside.max.y / blockHeight + 1) * blockHeight) - 1,
                     inside.max.z);
    return Box(min, max);
}

// Decodes the part `inside` of a page through libtiff's RGBA interface, top row first, as red,
// green and blue 0 to 255 (alpha, when the page has it, is not delivered).
void readRgba(Reader& reader, Page const& page, Box const& inside, Target const& target, std::uint64_t& decoded)
{
    TIFF* tiff = reader.handle.get();
    char message[1024] = "";
    TIFFRGBAImage image;
    reader.handle.clearError();
    if (TIFFRGBAImageOK(tiff, message) != 1 || TIFFRGBAImageBegin(&image, tiff, 0, message) != 1)
        reader.handle.fail(std::string("cannot decode the page through the RGBA interface: ") + message);
    Box const region = alignedToBlocks(page, inside);
    long long const width = region.max.x - region.min.x + 1;
    long long const height = region.max.y - region.min.y + 1;
    image.req_orientation = ORIENTATION_TOPLEFT;
    image.col_offset = static_cast<int>(region.min.x);
    image.row_offset = static_cast<int>(region.min.y);
    std::uint32_t* raster =
        reinterpret_cast<std::uint32_t*>(reader.scratchOf(static_cast<tmsize_t>(width * height * 4)));
    std::fill(raster, raster + width * height, 0u);
    int const done =
        TIFFRGBAImageGet(&image, raster, static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height));
    TIFFRGBAImageEnd(&image);
    if (done != 1)
        reader.handle.fail("cannot decode the page through the RGBA interface");
    ++decoded;
    for (long long y = inside.min.y; y <= inside.max.y; ++y)
        for (long long c = 0; c < 3; ++c)
        {
            double* row = target.at(c, inside.min.x, y);
            std::uint32_t const* source = raster + (y - region.min.y) * width + (inside.min.x - region.min.x);
            for (long long x = 0; x <= inside.max.x - inside.min.x; ++x)
                row[x] = static_cast<double>((source[x] >> (8 * c)) & 0xff);
        }
}

// The pages of a file as read in pass 1: the main chain, and the SubIFDs of each of its pages.
struct Directories
{
    std::vector<Page> main;
    std::vector<std::vector<Page>> sub;
};

// A page of level 0 with its levels (indices into the image's pages, SIZE_MAX where absent), and
// its index in the main chain.
struct Stack
{
    std::size_t mainIndex;
    std::vector<std::size_t> levels;
};

Directories readDirectories(TiffHandle& handle)
{
    Directories directories;
    do
    {
        directories.main.push_back(readPage(handle));
        if (directories.main.size() > 100000)
            handle.fail("too many pages");
    } while (TIFFReadDirectory(handle.get()) == 1);
    directories.sub.resize(directories.main.size());
    for (std::size_t p = 0; p < directories.main.size(); ++p)
        for (std::uint64_t offset : directories.main[p].subOffsets)
        {
            // Like a damaged page of the main chain, a damaged SubIFD is not used.
            handle.clearError();
            if (TIFFSetSubDirectory(handle.get(), offset) == 1)
                directories.sub[p].push_back(readPage(handle));
        }
    return directories;
}

// Sorts the pages into stacks of levels; every page used is checked and copied into `pages`.
std::vector<Stack> sortPages(TiffHandle& handle, Directories const& directories, std::vector<Page>& pages)
{
    Page const& first = directories.main.front();
    checkPage(handle, first);
    std::vector<Stack> stacks;
    auto addLevel = [&](Page const& page) {
        long long const level = levelOf(page, first);
        if (level == 0 || !sameSamples(page, first) || stacks.empty())
            return;
        std::vector<std::size_t>& levels = stacks.back().levels;
        if (levels.size() <= static_cast<std::size_t>(level))
            levels.resize(static_cast<std::size_t>(level) + 1, SIZE_MAX);
        if (levels[static_cast<std::size_t>(level)] != SIZE_MAX)
            return;
        checkPage(handle, page);
        levels[static_cast<std::size_t>(level)] = pages.size();
        pages.push_back(page);
    };
    for (std::size_t p = 0; p < directories.main.size(); ++p)
    {
        Page const& page = directories.main[p];
        bool const levelZero = p == 0 || (page.width == first.width && page.height == first.height && !page.reduced);
        if (levelZero && sameSamples(page, first))
        {
            checkPage(handle, page);
            stacks.push_back({p, {pages.size()}});
            pages.push_back(page);
            for (Page const& sub : directories.sub[p])
                addLevel(sub);
        }
        else
            addLevel(page);
    }
    return stacks;
}

// Which stack holds each plane (c, z) of one time point, at c + channels * z; the channels and
// slices are the description's when its counts and pages agree with the file, else one channel
// and one slice per stack.
struct Arrangement
{
    long long channels = 1;
    long long slices = 1;
    long long frames = 1;
    std::vector<std::size_t> stackOfPlane;
};

Arrangement arrangeAsSlices(std::vector<Stack> const& stacks)
{
    Arrangement arrangement;
    arrangement.slices = static_cast<long long>(stacks.size());
    for (std::size_t s = 0; s < stacks.size(); ++s)
        arrangement.stackOfPlane.push_back(s);
    return arrangement;
}

// The stack that holds page `page`, or SIZE_MAX. Pages in order (ImageJ, OME without TiffData)
// count the stacks; OME's TiffData numbers count the pages of the main chain.
std::size_t stackOfPage(long long page, bool mainChainNumbers, std::vector<std::size_t> const& stackOfMain,
                        std::size_t stacks)
{
    if (page < 0)
        return SIZE_MAX;
    std::size_t const index = static_cast<std::size_t>(page);
    if (mainChainNumbers)
        return index < stackOfMain.size() ? stackOfMain[index] : SIZE_MAX;
    return index < stacks ? index : SIZE_MAX;
}

// The stack of each plane of time point `time` as the description places them; empty when a plane
// has no stack.
std::vector<std::size_t> stacksOfPlanes(FileMetadata const& metadata, std::vector<Stack> const& stacks, long long time)
{
    std::vector<std::size_t> stackOfMain(stacks.empty() ? 0 : stacks.back().mainIndex + 1, SIZE_MAX);
    for (std::size_t s = 0; s < stacks.size(); ++s)
        stackOfMain[stacks[s].mainIndex] = s;
    bool const placed = !metadata.pageOfPlane.empty();
    long long const planes = metadata.channels * metadata.slices;
    std::vector<std::size_t> result;
    for (long long plane = 0; plane < planes; ++plane)
    {
        long long const index = plane + planes * time;
        long long const page = placed ? metadata.pageOfPlane[static_cast<std::size_t>(index)] : index;
        std::size_t const stack = stackOfPage(page, placed, stackOfMain, stacks.size());
        if (stack == SIZE_MAX)
            return {};
        result.push_back(stack);
    }
    return result;
}

Arrangement arrangePlanes(FileMetadata const& metadata, std::vector<Stack> const& stacks, long long time,
                          TiffHandle& handle)
{
    long long const frames = std::max(1LL, metadata.frames);
    if (time < 0 || time >= frames)
        handle.fail("there is no time point " + std::to_string(time) + " (the file has " + std::to_string(frames) +
                    ")");
    if (metadata.channels < 1)
        return arrangeAsSlices(stacks);
    Arrangement arrangement;
    arrangement.channels = metadata.channels;
    arrangement.slices = metadata.slices;
    arrangement.frames = metadata.frames;
    arrangement.stackOfPlane = stacksOfPlanes(metadata, stacks, time);
    if (!arrangement.stackOfPlane.empty())
        return arrangement;
    if (time != 0)
        handle.fail("the pages do not hold time point " + std::to_string(time) + " as the description says");
    return arrangeAsSlices(stacks);
}

std::string descriptionOf(TiffHandle& handle)
{
    char const* text = nullptr;
    if (TIFFGetField(handle.get(), TIFFTAG_IMAGEDESCRIPTION, &text) == 1 && text != nullptr)
        return text;
    return "";
}

// The description of the first page as OME-XML or as ImageJ's, whichever it is.
FileMetadata metadataOf(std::string const& description)
{
    FileMetadata metadata = OmeXmlParser::parse(description);
    if (metadata.channels > 0)
        return metadata;
    return ImageJDescriptionParser::parse(description);
}

} // namespace

struct TiffImage::Internals
{
    std::string path;
    Page first;
    // planes[c + pageChannels * z][level]: the page of that plane and level, or null.
    std::vector<std::vector<Page const*>> planes;
    std::vector<Page> pages;
    long long pageChannels = 1;
    long long depth = 1;
    long long numLevels = 1;
    std::vector<bool> present;
    std::vector<std::string> channelNames;
    ValueRange<double> valueRange;
    bool rangeGiven = false;
    Vector voxelSize{1, 1, 1};
    bool voxelSizeGiven = false;

    std::atomic<std::uint64_t> blocksDecoded{0};
    // Null when the image keeps no decoded blocks.
    std::unique_ptr<DecodedTileCache> cache;
    std::mutex poolMutex;
    std::vector<std::unique_ptr<Reader>> idle;

    [[noreturn]] void fail(std::string const& problem) const
    {
        throw std::runtime_error("TiffImage: " + path + ": " + problem);
    }

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

    Page const& pageAt(long long z, long long pageChannel, long long level) const
    {
        return *planes[static_cast<std::size_t>(pageChannel + pageChannels * z)][static_cast<std::size_t>(level)];
    }

    void readMetadata(TiffHandle& handle, Page const& firstPage, std::vector<Stack> const& stacks, long long time);
    void findLevels(std::vector<Stack> const& stacks, Arrangement const& arrangement);
    void findVoxelSize(TiffHandle& handle, FileMetadata const& metadata, std::string const& description);
    void findValueRange(TiffHandle& handle, FileMetadata const& metadata);
    void nameChannels(std::vector<std::string> const& givenNames);
    void measureValueRange();
    void readPlanes(Reader& reader, double* out, long long level, Box const& box, Box const& inside);
};

// Pass 3: what the first page's tags and description say: which pages are which planes, the
// channel names, the voxel size and the value range.
void TiffImage::Internals::readMetadata(TiffHandle& handle, Page const& firstPage, std::vector<Stack> const& stacks,
                                        long long time)
{
    handle.clearError();
    if (TIFFSetSubDirectory(handle.get(), firstPage.offset) != 1)
        handle.fail("cannot read the first image directory again");
    std::string const description = descriptionOf(handle);
    FileMetadata const metadata = metadataOf(description);
    Arrangement const arrangement = arrangePlanes(metadata, stacks, time, handle);
    pageChannels = arrangement.channels;
    depth = arrangement.slices;
    findLevels(stacks, arrangement);
    nameChannels(arrangement.channels == metadata.channels ? metadata.channelNames : std::vector<std::string>());
    findVoxelSize(handle, metadata, description);
    findValueRange(handle, metadata);
}

// A level is present when every plane used has it, with one extent.
void TiffImage::Internals::findLevels(std::vector<Stack> const& stacks, Arrangement const& arrangement)
{
    std::vector<Stack const*> used;
    for (std::size_t stack : arrangement.stackOfPlane)
        used.push_back(&stacks[stack]);
    std::size_t levels = SIZE_MAX;
    for (Stack const* stack : used)
        levels = std::min(levels, stack->levels.size());
    present.assign(levels, false);
    for (std::size_t level = 0; level < levels; ++level)
    {
        bool all = true;
        for (Stack const* stack : used)
        {
            std::size_t const index = stack->levels[level];
            std::size_t const reference = used[0]->levels[level];
            all = all && index != SIZE_MAX && reference != SIZE_MAX && pages[index].width == pages[reference].width &&
                  pages[index].height == pages[reference].height;
        }
        present[level] = all;
    }
    while (!present.back())
        present.pop_back();
    numLevels = static_cast<long long>(present.size());
    for (Stack const* stack : used)
    {
        std::vector<Page const*> pointers;
        for (std::size_t level = 0; level < present.size(); ++level)
            pointers.push_back(present[level] ? &pages[stack->levels[level]] : nullptr);
        planes.push_back(pointers);
    }
    first = *planes[0][0];
}

// The voxel size from the first source that gives it: OME, ImageJ (its unit with the resolution
// tags, its spacing), Aperio's MPP, the resolution tags in inch or centimetre.
void TiffImage::Internals::findVoxelSize(TiffHandle& handle, FileMetadata const& metadata,
                                         std::string const& description)
{
    std::uint16_t unit = RESUNIT_NONE;
    float resolutionX = 0.0f;
    float resolutionY = 0.0f;
    TIFFGetFieldDefaulted(handle.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
    bool const tags = TIFFGetField(handle.get(), TIFFTAG_XRESOLUTION, &resolutionX) == 1 &&
                      TIFFGetField(handle.get(), TIFFTAG_YRESOLUTION, &resolutionY) == 1;
    double const tagUnit = unit == RESUNIT_CENTIMETER ? 1e7 : (unit == RESUNIT_INCH ? 2.54e7 : 0.0);
    double const aperio = aperioMicrons(description) * 1000.0;
    double x = 0.0;
    double y = 0.0;
    if (metadata.sizeX > 0.0 && metadata.sizeY > 0.0)
        x = metadata.sizeX, y = metadata.sizeY;
    else if (tags && metadata.resolutionUnit > 0.0 && unit == RESUNIT_NONE)
        x = nanometresFrom(resolutionX, metadata.resolutionUnit),
        y = nanometresFrom(resolutionY, metadata.resolutionUnit);
    else if (aperio > 0.0)
        x = aperio, y = aperio;
    else if (tags)
        x = nanometresFrom(resolutionX, tagUnit), y = nanometresFrom(resolutionY, tagUnit);
    voxelSizeGiven = x > 0.0 && y > 0.0;
    if (voxelSizeGiven)
        voxelSize = Vector(roundedSize(x), roundedSize(y), metadata.sizeZ > 0.0 ? roundedSize(metadata.sizeZ) : 1);
}

void TiffImage::Internals::findValueRange(TiffHandle& handle, FileMetadata const& metadata)
{
    double low = 0.0;
    double high = 0.0;
    rangeGiven = true;
    if (TIFFGetField(handle.get(), TIFFTAG_SMINSAMPLEVALUE, &low) == 1 &&
        TIFFGetField(handle.get(), TIFFTAG_SMAXSAMPLEVALUE, &high) == 1 && low < high)
        valueRange = ValueRange<double>(low, high);
    else if (metadata.hasRange && first.format != SAMPLEFORMAT_IEEEFP)
        valueRange = ValueRange<double>(metadata.min, metadata.max);
    else if (first.throughRgba())
        valueRange = ValueRange<double>(0.0, 255.0);
    else if (first.format == SAMPLEFORMAT_UINT)
        valueRange = ValueRange<double>(0.0, std::ldexp(1.0, first.bits) - 1.0);
    else if (first.format == SAMPLEFORMAT_INT)
        valueRange = ValueRange<double>(-std::ldexp(1.0, first.bits - 1), std::ldexp(1.0, first.bits - 1) - 1.0);
    else
        rangeGiven = false;
}

void TiffImage::Internals::nameChannels(std::vector<std::string> const& givenNames)
{
    long long const samples = first.channels();
    bool const rgb = first.photometric == PHOTOMETRIC_RGB || first.photometric == PHOTOMETRIC_YCBCR;
    for (long long pageChannel = 0; pageChannel < pageChannels; ++pageChannel)
        for (long long sample = 0; sample < samples; ++sample)
        {
            long long const index = pageChannel * samples + sample;
            std::string const given = static_cast<std::size_t>(pageChannel) < givenNames.size()
                                          ? givenNames[static_cast<std::size_t>(pageChannel)]
                                          : "";
            static char const* const colours[] = {"Red", "Green", "Blue"};
            std::string name = rgb && sample < 3 ? colours[sample] : "Channel " + std::to_string(index);
            if (!given.empty())
                name = samples == 1 ? given : given + " " + name;
            channelNames.push_back(name);
        }
}

// The range of the finite values of the coarsest level, read in bands of rows; (0, 1) when it
// holds none.
void TiffImage::Internals::measureValueRange()
{
    long long const level = numLevels - 1;
    Page const& page = pageAt(0, 0, level);
    long long const channels = pageChannels * first.channels();
    long long const rows = std::max(1LL, (1LL << 20) / (static_cast<long long>(page.width) * channels));
    double low = std::numeric_limits<double>::infinity();
    double high = -low;
    std::vector<double> band;
    std::unique_ptr<Reader> reader = borrow();
    for (long long z = 0; z < depth; ++z)
        for (long long y = 0; y < page.height; y += rows)
        {
            Box const box(Vector(0, y, z), Vector(page.width - 1LL, std::min<long long>(y + rows, page.height) - 1, z));
            band.assign(static_cast<std::size_t>(box.getSize() * channels), 0.0);
            readPlanes(*reader, band.data(), level, box, box);
            for (double value : band)
                if (std::isfinite(value))
                    low = std::min(low, value), high = std::max(high, value);
        }
    giveBack(std::move(reader));
    valueRange = low <= high ? ValueRange<double>(low, high) : ValueRange<double>(0.0, 1.0);
}

// Reads the part `inside` of the box (within the extent) of every plane into the region buffer.
void TiffImage::Internals::readPlanes(Reader& reader, double* out, long long level, Box const& box, Box const& inside)
{
    long long const voxels = box.getSize();
    std::uint64_t decoded = 0;
    for (long long z = inside.min.z; z <= inside.max.z; ++z)
        for (long long pageChannel = 0; pageChannel < pageChannels; ++pageChannel)
        {
            Page const& page = pageAt(z, pageChannel, level);
            reader.select(page);
            Target const target{out, box, voxels, z, pageChannel * first.channels()};
            Box const slice(Vector(inside.min.x, inside.min.y, z), Vector(inside.max.x, inside.max.y, z));
            if (page.throughRgba())
                readRgba(reader, page, slice, target, decoded);
            else if (page.tiled)
                readTiles(reader, page, slice, target, cache.get(), decoded);
            else
                readStrips(reader, page, slice, target, cache.get(), decoded);
        }
    blocksDecoded += decoded;
}

TiffImage::TiffImage(std::string const& path, long long timePoint, std::size_t cacheBytes)
    : internals(std::make_unique<Internals>())
{
    Internals& state = *internals;
    state.path = path;
    if (cacheBytes > 0)
        state.cache = std::make_unique<DecodedTileCache>(cacheBytes);
    auto reader = std::make_unique<Reader>(path);
    TiffHandle& handle = reader->handle;
    Directories const directories = readDirectories(handle);
    std::vector<Stack> const stacks = sortPages(handle, directories, state.pages);

    state.readMetadata(handle, directories.main.front(), stacks, timePoint);
    reader->selected = 0;
    state.giveBack(std::move(reader));
    if (!state.rangeGiven)
        state.measureValueRange();
}

TiffImage::~TiffImage() = default;

std::string TiffImage::getURL() const
{
    return internals->path;
}

Vector TiffImage::getExtent(long long level) const
{
    if (level < 0)
        internals->fail("the level must not be negative");
    long long const depth = internals->depth;
    if (hasLevel(level))
    {
        Page const& page = internals->pageAt(0, 0, level);
        return Vector(page.width, page.height, depth);
    }
    if (level > 62)
        return Vector(0, 0, depth);
    return Vector(static_cast<long long>(internals->first.width) >> level,
                  static_cast<long long>(internals->first.height) >> level, depth);
}

long long TiffImage::getNumChannels() const
{
    return internals->pageChannels * internals->first.channels();
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
        internals->fail("the level " + std::to_string(level) + " has no voxel size");
    Vector const size = internals->voxelSize;
    return Vector(size.x << level, size.y << level, size.z);
}

bool TiffImage::knowsVoxelSize() const
{
    return internals->voxelSizeGiven;
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
    if (index < 0 || index >= internals->depth)
        internals->fail("there is no slice " + std::to_string(index));
    return internals->pageAt(index, 0, 0).name;
}

std::string TiffImage::getChannelName(long long index)
{
    if (index < 0 || index >= getNumChannels())
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return internals->channelNames[static_cast<std::size_t>(index)];
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
        internals->fail("level " + std::to_string(level) + " is not present in the file");
    Box const inside = box.intersected(Box(getExtent(level)));
    // Only voxels outside the extent need zeros: everything inside is overwritten.
    if (inside != box)
        std::fill(out, out + voxels * getNumChannels(), 0.0);
    if (inside.isEmpty())
        return;
    std::unique_ptr<Reader> reader = internals->borrow();
    internals->readPlanes(*reader, out, level, box, inside);
    internals->giveBack(std::move(reader));
}

} // namespace Nuvek
