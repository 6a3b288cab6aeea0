#include <nuvek/io/OmeZarrWriter.h>

#include <nuvek/core/RowBandExactness.h>

#include "io/internal/CoarseLevels.h"
#include "io/internal/OrderedWork.h"
#include "io/internal/StripeOrder.h"
#include "io/internal/TileEncoder.h"
#include "io/internal/TileSamples.h"
#include "io/internal/ZarrCodec.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace Nuvek {

namespace {

using Json = nlohmann::ordered_json;

[[noreturn]] void fail(std::string const& problem)
{
    throw std::runtime_error("writeOmeZarr: " + problem);
}

struct Plan
{
    long long sourceLevel = 0;
    long long channels = 1;
    long long depth = 1;
    TileLayout layout;
    ZarrCompression compression = ZarrCompression::Zstd;
    int compressionLevel = 3;
    Vector voxelSize;
    std::vector<PyramidLevel> levels;

    long long tileSize() const { return layout.tileSize; }
    // Chunk positions (z, y, x) of one level; each holds one chunk per channel.
    long long positions(long long level) const
    {
        PyramidLevel const& shape = levels[static_cast<std::size_t>(level)];
        return depth * shape.tilesY * shape.tilesX;
    }
    std::string codecId() const
    {
        return compression == ZarrCompression::Zlib ? "zlib" : (compression == ZarrCompression::Zstd ? "zstd" : "");
    }
};

struct Worker
{
    explicit Worker(TileEncoder&& encoder) : encoder(std::move(encoder)) {}

    TileEncoder encoder;
    SampleStatistics statistics;
    std::vector<double> region;
    // The stored chunks of every channel at one position, back to back.
    std::vector<unsigned char> tiles;
    std::vector<unsigned char> chunk;
};

// A chunk's file: level/c/z/y/x inside the group.
std::filesystem::path chunkPath(std::filesystem::path const& group, long long level, long long c, long long z,
                                long long y, long long x)
{
    return group / std::to_string(level) / std::to_string(c) / std::to_string(z) / std::to_string(y) /
           std::to_string(x);
}

void appendChunk(std::vector<unsigned char>& encoded, std::vector<unsigned char> const& chunk)
{
    std::uint64_t const size = chunk.size();
    unsigned char header[8];
    std::memcpy(header, &size, 8);
    encoded.insert(encoded.end(), header, header + 8);
    encoded.insert(encoded.end(), chunk.begin(), chunk.end());
}

void writeBytes(std::filesystem::path const& path, unsigned char const* data, std::size_t size)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        fail("cannot write " + path.string() + " (" + std::strerror(errno) + ")");
    bool const written = std::fwrite(data, 1, size, file) == size;
    if (std::fclose(file) != 0 || !written)
        fail("cannot write " + path.string());
}

class ChunkComputer
{
public:
    ChunkComputer(Plan const& plan, Image& image, std::filesystem::path group)
        : plan(plan), image(image), group(std::move(group)), inBands(RowBandExactness::splitsExactly(&image))
    {
    }

    // Computes and compresses the chunks of every channel at position `index` of level 0 into
    // `encoded`, each as its 8-byte size followed by its bytes, and adds them to the coarser levels.
    void compute(Worker& worker, long long index, std::vector<unsigned char>& encoded)
    {
        PyramidLevel const& shape = plan.levels.front();
        long long const tileX = index % shape.tilesX;
        long long const tileY = index / shape.tilesX % shape.tilesY;
        long long const z = index / (shape.tilesX * shape.tilesY);
        long long const width = std::min(plan.tileSize(), shape.width - tileX * plan.tileSize());
        long long const height = std::min(plan.tileSize(), shape.height - tileY * plan.tileSize());
        long long const tileBytes = plan.layout.tileBytes();
        worker.tiles.resize(static_cast<std::size_t>(tileBytes * plan.channels));
        encoded.clear();
        Vector const min(tileX * plan.tileSize(), tileY * plan.tileSize(), z);
        // Over an image that gives the same bits in bands of rows, the position is asked for in bands.
        long long const rows = inBands ? rowsPerWriterBand(width, height, plan.channels) : height;
        for (long long y = 0; y < height; y += rows)
        {
            long long const bandHeight = std::min(rows, height - y);
            Box const band(min + Vector(0, y, 0), min + Vector(width - 1, y + bandHeight - 1, 0));
            worker.region.assign(static_cast<std::size_t>(band.getSize() * plan.channels), 0.0);
            image.openRegion(worker.region.data(), plan.sourceLevel, band);
            for (long long c = 0; c < plan.channels; ++c)
                storeRegion(plan.layout, worker.region.data(), c, width, bandHeight,
                            worker.tiles.data() + c * tileBytes, worker.statistics, false, y);
        }
        for (long long c = 0; c < plan.channels; ++c)
        {
            encode(worker, worker.tiles.data() + c * tileBytes);
            appendChunk(encoded, worker.chunk);
        }
        coarse.add(0, index, worker.tiles.data(), [&](long long level, long long position, unsigned char const* tiles) {
            writeCoarse(worker, level, position, tiles);
        });
    }

    long long coarseChunksWritten() const { return coarseWritten.load(); }

private:
    void encode(Worker& worker, unsigned char const* tile)
    {
        try
        {
            worker.encoder.encode(tile, static_cast<std::size_t>(plan.layout.tileBytes()), worker.chunk);
        }
        catch (std::runtime_error const& error)
        {
            fail(error.what());
        }
    }

    // Compresses and writes the chunks of a finished position of a coarser level; their folders
    // were made before the run.
    void writeCoarse(Worker& worker, long long level, long long index, unsigned char const* tiles)
    {
        PyramidLevel const& shape = plan.levels[static_cast<std::size_t>(level)];
        long long const tileX = index % shape.tilesX;
        long long const tileY = index / shape.tilesX % shape.tilesY;
        long long const z = index / (shape.tilesX * shape.tilesY);
        for (long long c = 0; c < plan.channels; ++c)
        {
            encode(worker, tiles + c * plan.layout.tileBytes());
            writeBytes(chunkPath(group, level, c, z, tileY, tileX), worker.chunk.data(), worker.chunk.size());
            ++coarseWritten;
        }
    }

private:
    Plan const& plan;
    Image& image;
    std::filesystem::path group;
    bool inBands;
    CoarseLevels coarse{plan.layout, plan.levels, plan.channels};
    std::atomic<long long> coarseWritten{0};
};

// Removes the temporary folder unless the write succeeded and renamed it.
struct TemporaryFolder
{
    std::string path;
    bool renamed = false;

    ~TemporaryFolder()
    {
        if (!renamed && !path.empty())
        {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    }
};

std::string makeTemporaryFolder(std::string const& path)
{
    std::string const pattern = path + ".partial-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr)
        fail(path + ": cannot create a folder beside it (" + std::strerror(errno) + ")");
    ::chmod(name.data(), 0755);
    return std::string(name.data());
}

void writeText(std::filesystem::path const& path, std::string const& text)
{
    std::ofstream stream(path, std::ios::binary);
    stream << text;
    stream.close();
    if (!stream)
        fail("cannot write " + path.string());
}

Plan planFor(Image& image, OmeZarrOptions const& options)
{
    if (options.chunkSize < 16 || options.chunkSize > 65536 || options.chunkSize % 16 != 0)
        fail("the chunk size must be a multiple of 16 from 16 to 65536, not " + std::to_string(options.chunkSize));
    int const maxLevel = options.compression == ZarrCompression::Zstd ? 22 : 9;
    if (options.compression != ZarrCompression::None && options.compressionLevel != 0 &&
        (options.compressionLevel < 1 || options.compressionLevel > maxLevel))
        fail(std::string("the ") + (options.compression == ZarrCompression::Zstd ? "zstd" : "zlib") +
             " level must be from 1 to " + std::to_string(maxLevel) + ", not " +
             std::to_string(options.compressionLevel));
    if (options.threads < 0)
        fail("the number of threads must not be negative");
    if (options.level < 0 || options.level >= image.getNumLevels())
        fail("the image has no level " + std::to_string(options.level));
    Vector const extent = image.getExtent(options.level);
    if (extent.x < 1 || extent.y < 1 || extent.z < 1)
        fail("the image is empty at level " + std::to_string(options.level));
    long long const channels = image.getNumChannels();
    if (channels < 1)
        fail("the image has no channels");
    if (!options.channelRanges.empty() && static_cast<long long>(options.channelRanges.size()) != channels)
        fail("there are " + std::to_string(options.channelRanges.size()) + " channel ranges for " +
             std::to_string(channels) + " channels");

    Plan plan;
    plan.sourceLevel = options.level;
    plan.channels = channels;
    plan.depth = extent.z;
    plan.layout.type = options.sampleType;
    plan.layout.tileSize = options.chunkSize;
    plan.layout.samples = 1;
    plan.layout.ranges = options.channelRanges;
    if (plan.layout.ranges.empty())
        plan.layout.ranges.assign(static_cast<std::size_t>(channels),
                                  options.valueRange ? *options.valueRange : image.getValueRange());
    for (ValueRange<double> const& range : plan.layout.ranges)
        if (options.sampleType != TiffSampleType::Float32 &&
            !(std::isfinite(range.min) && std::isfinite(range.max) && range.max > range.min))
            fail("the value range must be finite with max > min to map onto integer samples");
    if (plan.layout.tileBytes() > (1LL << 30))
        fail("a chunk of " + std::to_string(options.chunkSize) + " x " + std::to_string(options.chunkSize) +
             " voxels is too large");
    plan.compression = options.compression;
    plan.compressionLevel = options.compressionLevel != 0 ? options.compressionLevel
                                                          : (options.compression == ZarrCompression::Zlib ? 6 : 3);
    plan.voxelSize = image.getVoxelSize(options.level);
    plan.levels = pyramidLevels(extent, options.chunkSize);
    return plan;
}

TileEncoder makeEncoder(Plan const& plan)
{
    switch (plan.compression)
    {
    case ZarrCompression::Zlib:
        return TileEncoder(TileEncoder::Method::Deflate, plan.compressionLevel);
    case ZarrCompression::Zstd:
        return TileEncoder(TileEncoder::Method::Zstd, plan.compressionLevel);
    case ZarrCompression::None:
        break;
    }
    return TileEncoder(TileEncoder::Method::None, 0);
}

std::string arrayMetadata(Plan const& plan, long long level)
{
    PyramidLevel const& shape = plan.levels[static_cast<std::size_t>(level)];
    Json document;
    document["zarr_format"] = 2;
    document["shape"] = {plan.channels, plan.depth, shape.height, shape.width};
    document["chunks"] = {1, 1, plan.tileSize(), plan.tileSize()};
    document["dtype"] = plan.layout.type == TiffSampleType::UInt8    ? "|u1"
                        : plan.layout.type == TiffSampleType::UInt16 ? "<u2"
                                                                     : "<f4";
    if (plan.compression == ZarrCompression::None)
        document["compressor"] = nullptr;
    else
        document["compressor"] = {{"id", plan.codecId()}, {"level", plan.compressionLevel}};
    document["fill_value"] = 0;
    document["order"] = "C";
    document["filters"] = nullptr;
    document["dimension_separator"] = "/";
    return document.dump(4) + "\n";
}

std::string groupAttributes(Image& image, Plan const& plan, std::string const& name)
{
    double const micrometresX = static_cast<double>(plan.voxelSize.x) / 1000.0;
    double const micrometresY = static_cast<double>(plan.voxelSize.y) / 1000.0;
    double const micrometresZ = static_cast<double>(plan.voxelSize.z) / 1000.0;
    Json axes = Json::array();
    axes.push_back({{"name", "c"}, {"type", "channel"}});
    for (char const* axis : {"z", "y", "x"})
        axes.push_back({{"name", axis}, {"type", "space"}, {"unit", "micrometer"}});
    Json datasets = Json::array();
    for (std::size_t level = 0; level < plan.levels.size(); ++level)
    {
        double const factor = std::ldexp(1.0, static_cast<int>(level));
        Json scale = {{"type", "scale"}, {"scale", {1.0, micrometresZ, micrometresY * factor, micrometresX * factor}}};
        datasets.push_back({{"path", std::to_string(level)}, {"coordinateTransformations", Json::array({scale})}});
    }
    Json multiscale = {{"version", "0.4"}, {"name", name},
                       {"axes", axes},     {"datasets", datasets},
                       {"type", "mean"},   {"metadata", {{"description", "2 x 2 means of the stored level above"}}}};

    Json channels = Json::array();
    for (long long c = 0; c < plan.channels; ++c)
    {
        std::string label;
        // Some filters cannot name a channel they made; such a channel is called by its number.
        try
        {
            label = image.getChannelName(c);
            if (label.empty())
                label = "Channel " + std::to_string(c);
        }
        catch (std::runtime_error const&)
        {
            label = "Channel " + std::to_string(c);
        }
        ValueRange<double> window = plan.layout.ranges[static_cast<std::size_t>(c)];
        if (plan.layout.type != TiffSampleType::Float32)
            window = ValueRange<double>(0.0, plan.layout.type == TiffSampleType::UInt8 ? 255.0 : 65535.0);
        Json const limits = {{"min", window.min}, {"max", window.max}, {"start", window.min}, {"end", window.max}};
        channels.push_back({{"label", label}, {"active", true}, {"color", "FFFFFF"}, {"window", limits}});
    }
    Json document;
    document["multiscales"] = Json::array({multiscale});
    document["omero"] = {
        {"name", name}, {"version", "0.4"}, {"channels", channels}, {"rdefs", {{"model", "greyscale"}}}};
    // Infinite or NaN window limits (from a float range) are not JSON numbers; dump writes null.
    return document.dump(4, ' ', false, Json::error_handler_t::replace) + "\n";
}

// Puts the finished folder at path, replacing what is there only once the folder is in place.
void moveIntoPlace(std::string const& temporary, std::string const& path)
{
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, error)))
    {
        if (std::rename(temporary.c_str(), path.c_str()) != 0)
            fail(path + ": cannot rename the finished group to it (" + std::strerror(errno) + ")");
        return;
    }
    std::string const old = makeTemporaryFolder(path + ".old");
    ::rmdir(old.c_str());
    if (std::rename(path.c_str(), old.c_str()) != 0)
        fail(path + ": cannot move the existing one aside (" + std::strerror(errno) + ")");
    if (std::rename(temporary.c_str(), path.c_str()) != 0)
    {
        int const problem = errno;
        std::rename(old.c_str(), path.c_str());
        fail(path + ": cannot rename the finished group to it (" + std::strerror(problem) + ")");
    }
    std::filesystem::remove_all(old, error);
}

} // namespace

bool writeOmeZarr(Image& image, std::string const& path, OmeZarrOptions const& options)
{
    Plan const plan = planFor(image, options);
    long long const threads = options.threads > 0 ? options.threads : std::max(1u, std::thread::hardware_concurrency());
    long long totalChunks = 0;
    for (long long level = 0; level < static_cast<long long>(plan.levels.size()); ++level)
        totalChunks += plan.positions(level) * plan.channels;

    TemporaryFolder temporary{makeTemporaryFolder(path)};
    std::filesystem::path const group(temporary.path);
    std::string const file = path.substr(path.find_last_of('/') + 1);
    std::string const name = file.substr(0, file.find('.'));
    writeText(group / ".zgroup", "{\n    \"zarr_format\": 2\n}\n");
    writeText(group / ".zattrs", groupAttributes(image, plan, name));
    std::vector<Worker> workers;
    workers.reserve(static_cast<std::size_t>(threads));
    for (long long i = 0; i < threads; ++i)
        workers.emplace_back(makeEncoder(plan));
    ChunkComputer computer(plan, image, group);

    // The chunks of the coarser levels are written as soon as the level-0 chunks they are made of
    // are stored, so every level's folders are made first.
    for (long long level = 0; level < static_cast<long long>(plan.levels.size()); ++level)
    {
        std::filesystem::create_directories(group / std::to_string(level));
        writeText(group / std::to_string(level) / ".zarray", arrayMetadata(plan, level));
        PyramidLevel const& shape = plan.levels[static_cast<std::size_t>(level)];
        for (long long c = 0; c < plan.channels; ++c)
            for (long long z = 0; z < plan.depth; ++z)
                for (long long y = 0; y < shape.tilesY; ++y)
                {
                    std::filesystem::path const folder = chunkPath(group, level, c, z, y, 0).parent_path();
                    std::error_code error;
                    std::filesystem::create_directories(folder, error);
                    if (error)
                        fail("cannot create " + folder.string() + " (" + error.message() + ")");
                }
    }

    long long done = 0;
    long long reported = 0;
    PyramidLevel const& shape = plan.levels.front();
    // Positions in column stripes, so that what the workers hold does not grow with the width.
    auto compute = [&](Worker& worker, long long order, std::vector<unsigned char>& encoded) {
        computer.compute(worker, positionInStripes(shape.tilesX, shape.tilesY, order), encoded);
    };
    auto consume = [&](long long order, std::vector<unsigned char>& bytes) {
        long long const index = positionInStripes(shape.tilesX, shape.tilesY, order);
        long long const tileX = index % shape.tilesX;
        long long const tileY = index / shape.tilesX % shape.tilesY;
        long long const z = index / (shape.tilesX * shape.tilesY);
        std::size_t offset = 0;
        for (long long c = 0; c < plan.channels; ++c)
        {
            std::uint64_t size = 0;
            std::memcpy(&size, bytes.data() + offset, 8);
            writeBytes(chunkPath(group, 0, c, z, tileY, tileX), bytes.data() + offset + 8,
                       static_cast<std::size_t>(size));
            offset += 8 + static_cast<std::size_t>(size);
        }
        done += plan.channels;
        // One call per chunk, level 0's and the coarser ones its tiles completed, in order.
        long long const target = done + computer.coarseChunksWritten();
        while (reported < target)
        {
            ++reported;
            if (options.progress && !options.progress(reported, totalChunks))
                return false;
        }
        return true;
    };
    if (!runInOrder(plan.positions(0), workers, 2 * threads, compute, consume))
        return false;
    if (options.statistics != nullptr)
    {
        *options.statistics = SampleStatistics();
        if (plan.layout.type != TiffSampleType::Float32)
            for (Worker const& worker : workers)
                addStatistics(*options.statistics, worker.statistics);
    }
    workers.clear();
    moveIntoPlace(temporary.path, path);
    temporary.renamed = true;
    return true;
}

} // namespace Nuvek
