#include <nuvek/io/PyramidalTiffWriter.h>

#include <nuvek/core/RowBandExactness.h>

#include "io/internal/TiffHandle.h"
#include "io/internal/TileEncoder.h"

#include "io/internal/CoarseLevels.h"
#include "io/internal/OmeXml.h"
#include "io/internal/OrderedWork.h"
#include "io/internal/StripeOrder.h"
#include "io/internal/TileSamples.h"
#include "io/internal/TileSpool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

namespace Nuvek {

namespace {

constexpr char const* context = "writePyramidalTiff";

[[noreturn]] void fail(std::string const& problem)
{
    throw std::runtime_error(std::string(context) + ": " + problem);
}

using LevelShape = PyramidLevel;

// The tile of a level computed `order`-th.
long long tileInStripes(LevelShape const& shape, long long order)
{
    return positionInStripes(shape.tilesX, shape.tilesY, order);
}

// Everything fixed before the first tile: the geometry of every level and how samples are stored.
struct Plan
{
    long long sourceLevel = 0;
    // Samples per page, and the image's channels: they differ when every channel has its own pages.
    long long channels = 1;
    long long imageChannels = 1;
    long long pagesPerSlice = 1;
    bool ome = false;
    long long depth = 1;
    long long tileSize = 256;
    TiffSampleType type = TiffSampleType::UInt8;
    long long bytesPerSample = 1;
    TiffCompression compression = TiffCompression::Deflate;
    // The range of every channel; the first one for float samples.
    std::vector<ValueRange<double>> ranges;
    Vector voxelSize;
    std::vector<LevelShape> levels;
    // The same, as the tile functions take it.
    TileLayout layout;

    long long tileBytes() const { return tileSize * tileSize * channels * bytesPerSample; }
    long long pages() const { return depth * pagesPerSlice; }
    // The directory of full-resolution page p and level L in the main chain of a plain pyramid.
    long long directoryOf(long long page, long long level) const
    {
        return page * static_cast<long long>(levels.size()) + level;
    }
};

// One worker thread's buffers, kept from tile to tile.
struct Worker
{
    explicit Worker(TileEncoder&& encoder) : encoder(std::move(encoder)) {}

    TileEncoder encoder;
    SampleStatistics statistics;
    std::vector<double> region;
    std::vector<unsigned char> tile;
    std::vector<unsigned char> coarseTile;
    std::vector<unsigned char> encoded;
    std::vector<unsigned char> children[4];
    std::unique_ptr<TiffHandle> reader;
    long long readerDirectory = -1;
};

class TileComputer
{
public:
    TileComputer(Plan const& plan, Image& image, std::string const& temporaryPath)
        : plan(plan), image(image), temporaryPath(temporaryPath), inBands(RowBandExactness::splitsExactly(&image))
    {
    }

    // Computes and compresses tile `index` of full-resolution page `page` at level `level` into `encoded`.
    void compute(Worker& worker, long long page, long long level, long long index, std::vector<unsigned char>& encoded)
    {
        LevelShape const& shape = plan.levels[static_cast<std::size_t>(level)];
        long long const tileX = index % shape.tilesX;
        long long const tileY = index / shape.tilesX;
        long long const width = std::min(plan.tileSize, shape.width - tileX * plan.tileSize);
        long long const height = std::min(plan.tileSize, shape.height - tileY * plan.tileSize);
        worker.tile.resize(static_cast<std::size_t>(plan.tileBytes()));
        if (level == 0)
            computeFromImage(worker, page, tileX, tileY, width, height);
        else
            computeFromLevelAbove(worker, page, level, tileX, tileY, width, height);
        encode(worker, worker.tile.data(), encoded);
    }

    // Compresses one stored tile.
    void encode(Worker& worker, unsigned char const* tile, std::vector<unsigned char>& encoded)
    {
        try
        {
            // Through the worker's buffer, which grows to the bound of a compressed tile: the tiles
            // waiting to be written then hold only their own bytes.
            worker.encoder.encode(tile, static_cast<std::size_t>(plan.tileBytes()), worker.encoded);
            encoded.assign(worker.encoded.begin(), worker.encoded.end());
        }
        catch (std::runtime_error const& error)
        {
            fail(error.what());
        }
    }

private:
    void computeFromImage(Worker& worker, long long page, long long tileX, long long tileY, long long width,
                          long long height)
    {
        long long const z = page / plan.pagesPerSlice;
        long long const firstChannel = plan.pagesPerSlice > 1 ? page % plan.pagesPerSlice : 0;
        Vector const min(tileX * plan.tileSize, tileY * plan.tileSize, z);
        // Over an image that gives the same bits in bands of rows, the tile is asked for in bands.
        long long const rows = inBands ? rowsPerWriterBand(width, height, plan.imageChannels) : height;
        for (long long y = 0; y < height; y += rows)
        {
            long long const bandHeight = std::min(rows, height - y);
            Box const band(min + Vector(0, y, 0), min + Vector(width - 1, y + bandHeight - 1, 0));
            worker.region.assign(static_cast<std::size_t>(band.getSize() * plan.imageChannels), 0.0);
            image.openRegion(worker.region.data(), plan.sourceLevel, band);
            storeRegion(plan.layout, worker.region.data(), firstChannel, width, bandHeight, worker.tile.data(),
                        worker.statistics, false, y);
        }
    }

    // Reads back and decodes the four tiles of the level above: what a lossy compression stored
    // differs from the values it was given, and the coarser level is made of what was stored.
    void computeFromLevelAbove(Worker& worker, long long page, long long level, long long tileX, long long tileY,
                               long long width, long long height)
    {
        // Directories are told apart by page and level, whichever way the file chains them.
        long long const directory = page * static_cast<long long>(plan.levels.size()) + level - 1;
        // The level above was finished before this level started; a handle opened now sees it.
        if (worker.readerDirectory != directory)
        {
            worker.reader.reset();
            // Not memory-mapped ("m"): mapped pages of the file would count as the process's memory.
            worker.reader = std::make_unique<TiffHandle>(temporaryPath, "rm", context);
            openDirectory(*worker.reader, page, level - 1);
            if (plan.compression == TiffCompression::JPEG && plan.channels == 3)
                TIFFSetField(worker.reader->get(), TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
            worker.readerDirectory = directory;
        }
        LevelShape const& above = plan.levels[static_cast<std::size_t>(level - 1)];
        TIFF* tiff = worker.reader->get();
        for (long long j = 0; j < 2; ++j)
            for (long long i = 0; i < 2; ++i)
            {
                std::vector<unsigned char>& child = worker.children[j * 2 + i];
                long long const childX = 2 * tileX + i;
                long long const childY = 2 * tileY + j;
                if (childX >= above.tilesX || childY >= above.tilesY)
                {
                    child.clear();
                    continue;
                }
                child.resize(static_cast<std::size_t>(plan.tileBytes()));
                ttile_t const childIndex = static_cast<ttile_t>(childY * above.tilesX + childX);
                if (TIFFReadEncodedTile(tiff, childIndex, child.data(), static_cast<tmsize_t>(child.size())) !=
                    static_cast<tmsize_t>(child.size()))
                    worker.reader->fail("cannot read back tile " + std::to_string(childIndex));
            }
        averageChildren(plan.layout, worker.children, width, height, worker.tile.data());
    }

    // Makes level `level` of full-resolution page `page` the reader's current directory: a page of
    // the main chain in a plain pyramid, a page and then one of its SubIFDs in OME-TIFF.
    void openDirectory(TiffHandle& reader, long long page, long long level)
    {
        TIFF* tiff = reader.get();
        tdir_t const mainDirectory = static_cast<tdir_t>(plan.ome ? page : plan.directoryOf(page, level));
        if (TIFFSetDirectory(tiff, mainDirectory) != 1)
            reader.fail("cannot read back page " + std::to_string(mainDirectory));
        if (!plan.ome || level == 0)
            return;
        std::uint16_t count = 0;
        toff_t* offsets = nullptr;
        if (TIFFGetField(tiff, TIFFTAG_SUBIFD, &count, &offsets) != 1 || count < level)
            reader.fail("cannot find level " + std::to_string(level) + " of page " + std::to_string(page));
        if (TIFFSetSubDirectory(tiff, offsets[level - 1]) != 1)
            reader.fail("cannot read back level " + std::to_string(level) + " of page " + std::to_string(page));
    }

    Plan const& plan;
    Image& image;
    std::string temporaryPath;
    bool inBands;
};

// Removes the temporary file unless the write succeeded and renamed it.
struct TemporaryFile
{
    std::string path;
    bool renamed = false;

    ~TemporaryFile()
    {
        if (!renamed && !path.empty())
            std::remove(path.c_str());
    }
};

std::uint16_t compressionTag(TiffCompression compression)
{
    switch (compression)
    {
    case TiffCompression::Deflate:
        return COMPRESSION_ADOBE_DEFLATE;
    case TiffCompression::LZW:
        return COMPRESSION_LZW;
    case TiffCompression::JPEG:
        return COMPRESSION_JPEG;
    case TiffCompression::Zstd:
        return COMPRESSION_ZSTD;
    case TiffCompression::None:
        break;
    }
    return COMPRESSION_NONE;
}

TileEncoder makeEncoder(Plan const& plan, PyramidalTiffOptions const& options)
{
    switch (options.compression)
    {
    case TiffCompression::Deflate:
        return TileEncoder(TileEncoder::Method::Deflate, options.deflateLevel);
    case TiffCompression::LZW:
        return TileEncoder(TileEncoder::Method::LZW, 0);
    case TiffCompression::JPEG:
        return TileEncoder(TileEncoder::Method::JPEG, options.jpegQuality, plan.tileSize, plan.tileSize, plan.channels);
    case TiffCompression::Zstd:
        return TileEncoder(TileEncoder::Method::Zstd, options.zstdLevel);
    case TiffCompression::None:
        break;
    }
    return TileEncoder(TileEncoder::Method::None, 0);
}

void describePage(TIFF* tiff, Plan const& plan, long long z, long long level, std::string const& sliceName)
{
    LevelShape const& shape = plan.levels[static_cast<std::size_t>(level)];
    std::uint32_t const subfileType =
        level > 0 ? FILETYPE_REDUCEDIMAGE : (plan.depth > 1 && !plan.ome ? FILETYPE_PAGE : 0);
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, subfileType);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(shape.width));
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(shape.height));
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, static_cast<std::uint32_t>(plan.tileSize));
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, static_cast<std::uint32_t>(plan.tileSize));
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, static_cast<std::uint16_t>(plan.bytesPerSample * 8));
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT,
                 plan.type == TiffSampleType::Float32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<std::uint16_t>(plan.channels));
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    bool const rgb = plan.channels == 3;
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, compressionTag(plan.compression));
    if (rgb && plan.compression == TiffCompression::JPEG)
    {
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR);
        TIFFSetField(tiff, TIFFTAG_YCBCRSUBSAMPLING, static_cast<std::uint16_t>(2), static_cast<std::uint16_t>(2));
        float referenceBlackWhite[6] = {0.0f, 255.0f, 128.0f, 255.0f, 128.0f, 255.0f};
        TIFFSetField(tiff, TIFFTAG_REFERENCEBLACKWHITE, referenceBlackWhite);
    }
    else
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, rgb ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    if (!rgb && plan.channels > 1)
    {
        std::vector<std::uint16_t> extra(static_cast<std::size_t>(plan.channels - 1), EXTRASAMPLE_UNSPECIFIED);
        TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<std::uint16_t>(extra.size()), extra.data());
    }
    if (plan.voxelSize.x > 0 && plan.voxelSize.y > 0)
    {
        double const factor = std::ldexp(1.0, static_cast<int>(level));
        TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_CENTIMETER);
        TIFFSetField(tiff, TIFFTAG_XRESOLUTION, 1e7 / (static_cast<double>(plan.voxelSize.x) * factor));
        TIFFSetField(tiff, TIFFTAG_YRESOLUTION, 1e7 / (static_cast<double>(plan.voxelSize.y) * factor));
    }
    if (plan.type == TiffSampleType::Float32)
    {
        TIFFSetField(tiff, TIFFTAG_SMINSAMPLEVALUE, plan.ranges.front().min);
        TIFFSetField(tiff, TIFFTAG_SMAXSAMPLEVALUE, plan.ranges.front().max);
    }
    if (plan.ome && level == 0 && plan.levels.size() > 1)
    {
        // Placeholders: libtiff fills in the offsets of the next directories it writes.
        std::vector<toff_t> offsets(plan.levels.size() - 1, 0);
        TIFFSetField(tiff, TIFFTAG_SUBIFD, static_cast<std::uint16_t>(offsets.size()), offsets.data());
    }
    if (plan.ome)
        return;
    if (plan.depth > 1 && level == 0)
        TIFFSetField(tiff, TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(std::min<long long>(z, 65535)),
                     static_cast<std::uint16_t>(std::min<long long>(plan.depth, 65535)));
    if (level == 0 && !sliceName.empty())
        TIFFSetField(tiff, TIFFTAG_PAGENAME, sliceName.c_str());
}

Plan planFor(Image& image, PyramidalTiffOptions const& options)
{
    if (options.tileSize < 16 || options.tileSize > 65536 || options.tileSize % 16 != 0)
        fail("the tile size must be a multiple of 16 from 16 to 65536, not " + std::to_string(options.tileSize));
    if (options.deflateLevel < 1 || options.deflateLevel > 12)
        fail("the Deflate level must be from 1 to 12, not " + std::to_string(options.deflateLevel));
    if (options.zstdLevel < 1 || options.zstdLevel > 22)
        fail("the zstd level must be from 1 to 22, not " + std::to_string(options.zstdLevel));
    if (options.jpegQuality < 1 || options.jpegQuality > 100)
        fail("the JPEG quality must be from 1 to 100, not " + std::to_string(options.jpegQuality));
    if (options.threads < 0)
        fail("the number of threads must not be negative");
    if (options.level < 0 || options.level >= image.getNumLevels())
        fail("the image has no level " + std::to_string(options.level));
    Vector const extent = image.getExtent(options.level);
    if (extent.x < 1 || extent.y < 1 || extent.z < 1)
        fail("the image is empty at level " + std::to_string(options.level));
    if (extent.x > 0xffffffffLL || extent.y > 0xffffffffLL)
        fail("the image is too large for TIFF (more than 4294967295 voxels along x or y)");
    long long const channels = image.getNumChannels();
    if (channels < 1 || channels > 65535)
        fail("TIFF needs 1 to 65535 channels, the image has " + std::to_string(channels));
    if (options.compression == TiffCompression::JPEG && options.sampleType != TiffSampleType::UInt8)
        fail("JPEG compression needs uint8 samples");
    if (options.compression == TiffCompression::JPEG && channels != 1 && channels != 3 && !options.omeTiff)
        fail("JPEG compression needs 1 (grey) or 3 (RGB) channels, the image has " + std::to_string(channels));
    if (TIFFIsCODECConfigured(compressionTag(options.compression)) != 1)
        fail("this libtiff cannot write the chosen compression");
    if (!options.channelRanges.empty() && static_cast<long long>(options.channelRanges.size()) != channels)
        fail("there are " + std::to_string(options.channelRanges.size()) + " channel ranges for " +
             std::to_string(channels) + " channels");

    Plan plan;
    plan.sourceLevel = options.level;
    plan.channels = channels;
    plan.imageChannels = channels;
    plan.ome = options.omeTiff;
    plan.depth = extent.z;
    if (plan.ome && !(channels == 3 && options.sampleType == TiffSampleType::UInt8))
    {
        plan.channels = 1;
        plan.pagesPerSlice = channels;
    }
    if (plan.pages() > 0xfffe)
        fail("TIFF holds at most 65534 pages, the image needs " + std::to_string(plan.pages()));
    plan.tileSize = options.tileSize;
    plan.type = options.sampleType;
    plan.bytesPerSample = plan.type == TiffSampleType::UInt8 ? 1 : (plan.type == TiffSampleType::UInt16 ? 2 : 4);
    plan.compression = options.compression;
    plan.ranges = options.channelRanges;
    if (plan.ranges.empty())
        plan.ranges.assign(static_cast<std::size_t>(channels),
                           options.valueRange ? *options.valueRange : image.getValueRange());
    for (ValueRange<double> const& range : plan.ranges)
        if (plan.type != TiffSampleType::Float32 &&
            !(std::isfinite(range.min) && std::isfinite(range.max) && range.max > range.min))
            fail("the value range must be finite with max > min to map onto integer samples");
    if (plan.tileBytes() > TiffHandle::maxAllocation)
        fail("a tile of " + std::to_string(plan.tileSize) + " x " + std::to_string(plan.tileSize) + " voxels and " +
             std::to_string(channels) + " channels is too large");
    plan.voxelSize = image.getVoxelSize(options.level);
    plan.levels = pyramidLevels(extent, plan.tileSize);
    plan.layout.type = plan.type;
    plan.layout.tileSize = plan.tileSize;
    plan.layout.samples = plan.channels;
    plan.layout.ranges = plan.ranges;
    return plan;
}

OmeDescription omeDescriptionOf(Image& image, Plan const& plan, std::string const& path)
{
    OmeDescription description;
    std::string const file = path.substr(path.find_last_of('/') + 1);
    description.name = file.substr(0, file.find('.'));
    description.sizeX = plan.levels.front().width;
    description.sizeY = plan.levels.front().height;
    description.sizeZ = plan.depth;
    description.sizeC = plan.imageChannels;
    description.pixelType =
        plan.type == TiffSampleType::UInt8 ? "uint8" : (plan.type == TiffSampleType::UInt16 ? "uint16" : "float");
    description.interleaved = plan.pagesPerSlice == 1 && plan.imageChannels > 1;
    for (long long c = 0; c < plan.imageChannels; ++c)
    {
        // Some filters cannot name a channel they made; such a channel is called by its number.
        try
        {
            std::string const name = image.getChannelName(c);
            description.channelNames.push_back(name.empty() ? "Channel " + std::to_string(c) : name);
        }
        catch (std::runtime_error const&)
        {
            description.channelNames.push_back("Channel " + std::to_string(c));
        }
    }
    description.voxelX = plan.voxelSize.x;
    description.voxelY = plan.voxelSize.y;
    description.voxelZ = plan.voxelSize.z;
    return description;
}

std::string makeTemporaryFile(std::string const& path)
{
    std::vector<char> name(path.begin(), path.end());
    std::string const suffix = ".partial-XXXXXX";
    name.insert(name.end(), suffix.begin(), suffix.end());
    name.push_back('\0');
    int const descriptor = ::mkstemp(name.data());
    if (descriptor < 0)
        fail(path + ": cannot create a file beside it (" + std::strerror(errno) + ")");
    ::fchmod(descriptor, 0644);
    ::close(descriptor);
    return std::string(name.data());
}

} // namespace

bool writePyramidalTiff(Image& image, std::string const& path, PyramidalTiffOptions const& options)
{
    Plan const plan = planFor(image, options);
    long long const threads = options.threads > 0 ? options.threads : std::max(1u, std::thread::hardware_concurrency());
    long long totalTiles = 0;
    for (LevelShape const& shape : plan.levels)
        totalTiles += shape.tilesX * shape.tilesY * plan.pages();

    TemporaryFile temporary{makeTemporaryFile(path)};
    auto output = std::make_unique<TiffHandle>(temporary.path, "w8", context);
    TIFF* tiff = output->get();
    std::vector<Worker> workers;
    workers.reserve(static_cast<std::size_t>(threads));
    for (long long i = 0; i < threads; ++i)
        workers.emplace_back(makeEncoder(plan, options));
    TileComputer computer(plan, image, temporary.path);

    // The coarser levels are made from the finer level's stored values as its tiles are computed,
    // and wait compressed in a spool file until their level is written. JPEG stores other values
    // than it was given, so with JPEG every level is made by decoding the level written before it.
    bool const fromMemory = plan.compression != TiffCompression::JPEG && plan.levels.size() > 1;
    std::unique_ptr<TileSpool> spool;
    if (fromMemory)
    {
        std::vector<long long> tiles;
        for (LevelShape const& shape : plan.levels)
            tiles.push_back(shape.tilesX * shape.tilesY);
        spool = std::make_unique<TileSpool>(path, tiles, context);
    }

    std::string const description = plan.ome ? omeXml(omeDescriptionOf(image, plan, path)) : std::string();
    long long done = 0;
    std::vector<unsigned char> spooled;
    for (long long page = 0; page < plan.pages(); ++page)
    {
        long long const z = page / plan.pagesPerSlice;
        std::string const sliceName = image.getSliceName(z);
        std::unique_ptr<CoarseLevels> coarse;
        if (fromMemory)
        {
            spool->clear();
            coarse = std::make_unique<CoarseLevels>(plan.layout, plan.levels, 1);
        }
        for (long long level = 0; level < static_cast<long long>(plan.levels.size()); ++level)
        {
            describePage(tiff, plan, z, level, sliceName);
            if (page == 0 && level == 0 && plan.ome)
                TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
            LevelShape const& shape = plan.levels[static_cast<std::size_t>(level)];
            // Computed tiles go into the file in the order computed, the coarser levels' in rows.
            auto consumeTile = [&](long long index, std::vector<unsigned char>& bytes) {
                if (TIFFWriteRawTile(tiff, static_cast<ttile_t>(index), bytes.data(),
                                     static_cast<tmsize_t>(bytes.size())) < 0)
                    output->fail("cannot write tile " + std::to_string(index));
                ++done;
                return !options.progress || options.progress(done, totalTiles);
            };
            if (fromMemory && level > 0)
            {
                for (long long index = 0; index < shape.tilesX * shape.tilesY; ++index)
                {
                    spool->get(level, index, spooled);
                    if (!consumeTile(index, spooled))
                        return false;
                }
            }
            else
            {
                auto compute = [&, page, level](Worker& worker, long long order, std::vector<unsigned char>& encoded) {
                    long long const index = tileInStripes(shape, order);
                    computer.compute(worker, page, level, index, encoded);
                    if (!coarse)
                        return;
                    coarse->add(level, index, worker.tile.data(),
                                [&](long long coarseLevel, long long coarseIndex, unsigned char const* tile) {
                                    computer.encode(worker, tile, worker.coarseTile);
                                    spool->put(coarseLevel, coarseIndex, worker.coarseTile);
                                });
                };
                auto consume = [&](long long order, std::vector<unsigned char>& bytes) {
                    return consumeTile(tileInStripes(shape, order), bytes);
                };
                if (!runInOrder(shape.tilesX * shape.tilesY, workers, 2 * threads, compute, consume))
                    return false;
            }
            if (TIFFWriteDirectory(tiff) != 1)
                output->fail("cannot write page " + std::to_string(page) + ", level " + std::to_string(level));
        }
    }
    if (options.statistics != nullptr)
    {
        *options.statistics = SampleStatistics();
        if (plan.type != TiffSampleType::Float32)
            for (Worker const& worker : workers)
                addStatistics(*options.statistics, worker.statistics);
    }
    // Readers of the temporary file close before it is renamed.
    workers.clear();
    output.reset();
    if (std::rename(temporary.path.c_str(), path.c_str()) != 0)
        fail(path + ": cannot rename the finished file to it (" + std::strerror(errno) + ")");
    temporary.renamed = true;
    return true;
}

} // namespace Nuvek
