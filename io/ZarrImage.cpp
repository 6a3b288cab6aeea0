#include <nuvek/io/ZarrImage.h>

#include "io/internal/DecodedTileCache.h"
#include "io/internal/ZarrCodec.h"
#include "io/internal/ZarrMetadata.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace Nuvek {

namespace {

// Positions of the named axes in an array's dimensions; -1 when absent.
struct AxisPositions
{
    int t = -1;
    int c = -1;
    int z = -1;
    int y = -1;
    int x = -1;
};

struct Level
{
    std::string folder;
    ZarrArrayMetadata array;
    Vector extent;
    Vector voxelSize;
};

std::string readText(std::filesystem::path const& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw std::runtime_error("cannot read " + path.filename().string());
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

bool readBytes(std::filesystem::path const& path, std::vector<unsigned char>& bytes)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    return true;
}

double nanometresPer(std::string const& unit)
{
    if (unit == "nanometer")
        return 1.0;
    if (unit == "micrometer")
        return 1e3;
    if (unit == "millimeter")
        return 1e6;
    if (unit == "centimeter")
        return 1e7;
    if (unit == "meter")
        return 1e9;
    if (unit == "angstrom")
        return 0.1;
    if (unit == "picometer")
        return 1e-3;
    return 0.0;
}

long long voxelLength(double scale, std::string const& unit)
{
    double const factor = nanometresPer(unit);
    if (factor == 0.0)
        return 1;
    double const length = std::round(scale * factor);
    return length < 1.0 ? 1 : (length > 1e15 ? 1000000000000000LL : static_cast<long long>(length));
}

// One stored sample as a double, whatever its type and byte order.
double sampleAt(unsigned char const* data, ZarrArrayMetadata const& array)
{
    unsigned char bytes[8];
    std::memcpy(bytes, data, static_cast<std::size_t>(array.itemSize));
    if (array.bigEndian)
        std::reverse(bytes, bytes + array.itemSize);
    switch (array.kind)
    {
    case 'f':
        if (array.itemSize == 4)
        {
            float value;
            std::memcpy(&value, bytes, 4);
            return static_cast<double>(value);
        }
        else
        {
            double value;
            std::memcpy(&value, bytes, 8);
            return value;
        }
    case 'i':
        switch (array.itemSize)
        {
        case 1:
            return static_cast<double>(static_cast<std::int8_t>(bytes[0]));
        case 2:
        {
            std::int16_t value;
            std::memcpy(&value, bytes, 2);
            return static_cast<double>(value);
        }
        case 4:
        {
            std::int32_t value;
            std::memcpy(&value, bytes, 4);
            return static_cast<double>(value);
        }
        default:
        {
            std::int64_t value;
            std::memcpy(&value, bytes, 8);
            return static_cast<double>(value);
        }
        }
    default:
        switch (array.itemSize)
        {
        case 1:
            return static_cast<double>(bytes[0]);
        case 2:
        {
            std::uint16_t value;
            std::memcpy(&value, bytes, 2);
            return static_cast<double>(value);
        }
        case 4:
        {
            std::uint32_t value;
            std::memcpy(&value, bytes, 4);
            return static_cast<double>(value);
        }
        default:
        {
            std::uint64_t value;
            std::memcpy(&value, bytes, 8);
            return static_cast<double>(value);
        }
        }
    }
}

} // namespace

struct ZarrImage::Internals
{
    std::string path;
    AxisPositions axes;
    std::vector<Level> levels;
    long long channels = 1;
    ValueRange<double> range;
    std::vector<std::string> channelNames;
    // Null when the image keeps no decoded chunks.
    std::unique_ptr<DecodedTileCache> cache;

    [[noreturn]] void fail(std::string const& problem) const
    {
        throw std::runtime_error("ZarrImage: " + path + ": " + problem);
    }

    long long size(ZarrArrayMetadata const& array, int position) const
    {
        return position < 0 ? 1 : array.shape[static_cast<std::size_t>(position)];
    }
};

bool ZarrImage::isZarr(std::string const& path)
{
    std::filesystem::path const folder(path);
    std::error_code error;
    return std::filesystem::is_directory(folder, error) &&
           (std::filesystem::exists(folder / ".zarray", error) || std::filesystem::exists(folder / ".zgroup", error) ||
            std::filesystem::exists(folder / ".zattrs", error));
}

ZarrImage::ZarrImage(std::string const& path, std::size_t cacheBytes) : internals(std::make_unique<Internals>())
{
    Internals& self = *internals;
    self.path = path;
    if (cacheBytes > 0)
        self.cache = std::make_unique<DecodedTileCache>(cacheBytes);
    std::filesystem::path const folder(path);
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error))
        self.fail("not a zarr folder");
    ZarrMultiscales multiscales;
    std::vector<std::string> axisNames;
    std::vector<std::string> units;
    try
    {
        if (std::filesystem::exists(folder / ".zattrs", error))
            multiscales = parseMultiscales(readText(folder / ".zattrs"));
        if (!multiscales.paths.empty())
        {
            axisNames = multiscales.axes;
            units = multiscales.units;
            for (std::string const& levelPath : multiscales.paths)
                self.levels.push_back({(folder / levelPath).string(),
                                       parseZarrArray(readText(folder / levelPath / ".zarray")), Vector(), Vector()});
        }
        else if (std::filesystem::exists(folder / ".zarray", error))
        {
            self.levels.push_back({folder.string(), parseZarrArray(readText(folder / ".zarray")), Vector(), Vector()});
            std::size_t const dimensions = self.levels.front().array.shape.size();
            if (dimensions < 2)
                self.fail("a plain array needs 2 to 5 dimensions, not 1");
            char const* const names[] = {"t", "c", "z", "y", "x"};
            for (std::size_t i = 5 - dimensions; i < 5; ++i)
                axisNames.push_back(names[i]);
            units.assign(dimensions, "");
        }
        else
            self.fail("neither a multiscale group nor an array (no \"multiscales\" in .zattrs, no .zarray)");
    }
    catch (std::runtime_error const& problem)
    {
        if (std::string(problem.what()).rfind("ZarrImage: ", 0) == 0)
            throw;
        self.fail(problem.what());
    }
    catch (std::exception const& problem)
    {
        self.fail(std::string("bad metadata: ") + problem.what());
    }

    for (std::size_t i = 0; i < axisNames.size(); ++i)
    {
        std::string const& name = axisNames[i];
        int* const position = name == "t"   ? &self.axes.t
                              : name == "c" ? &self.axes.c
                              : name == "z" ? &self.axes.z
                              : name == "y" ? &self.axes.y
                              : name == "x" ? &self.axes.x
                                            : nullptr;
        if (position == nullptr)
            self.fail("the axis \"" + name + "\" is not one of t, c, z, y, x");
        if (*position >= 0)
            self.fail("the axis \"" + name + "\" appears twice");
        *position = static_cast<int>(i);
    }
    if (self.axes.x < 0 || self.axes.y < 0)
        self.fail("the axes must include y and x");

    Level const& first = self.levels.front();
    self.channels = self.size(first.array, self.axes.c);
    long long const depth = self.size(first.array, self.axes.z);
    for (std::size_t index = 0; index < self.levels.size(); ++index)
    {
        Level& level = self.levels[index];
        if (level.array.shape.size() != axisNames.size())
            self.fail("level " + std::to_string(index) + " has " + std::to_string(level.array.shape.size()) +
                      " dimensions for " + std::to_string(axisNames.size()) + " axes");
        if (index > 0 &&
            (self.size(level.array, self.axes.c) != self.channels || self.size(level.array, self.axes.z) != depth))
        {
            self.levels.resize(index);
            break;
        }
        level.extent = Vector(self.size(level.array, self.axes.x), self.size(level.array, self.axes.y), depth);
        std::vector<double> const scale =
            index < multiscales.scales.size() ? multiscales.scales[index] : std::vector<double>(axisNames.size(), 1.0);
        auto lengthOf = [&](int position) {
            return position < 0 ? 1
                                : voxelLength(scale[static_cast<std::size_t>(position)],
                                              units[static_cast<std::size_t>(position)]);
        };
        level.voxelSize = Vector(lengthOf(self.axes.x), lengthOf(self.axes.y), lengthOf(self.axes.z));
    }
    if (self.channels < 1 || depth < 1)
        self.fail("the image has no channels or no z slices");

    ZarrArrayMetadata const& array = first.array;
    if (array.kind == 'f')
        self.range = multiscales.valueRange
                         ? ValueRange<double>(multiscales.valueRange->first, multiscales.valueRange->second)
                         : ValueRange<double>(0.0, 1.0);
    else if (array.kind == 'u')
        self.range = ValueRange<double>(0.0, std::ldexp(1.0, 8 * array.itemSize) - 1.0);
    else
        self.range =
            ValueRange<double>(-std::ldexp(1.0, 8 * array.itemSize - 1), std::ldexp(1.0, 8 * array.itemSize - 1) - 1.0);
    for (long long c = 0; c < self.channels; ++c)
        self.channelNames.push_back(static_cast<long long>(multiscales.channelNames.size()) == self.channels &&
                                            !multiscales.channelNames[static_cast<std::size_t>(c)].empty()
                                        ? multiscales.channelNames[static_cast<std::size_t>(c)]
                                        : "Channel " + std::to_string(c));
}

ZarrImage::~ZarrImage() = default;

std::string ZarrImage::getURL() const
{
    return internals->path;
}

Vector ZarrImage::getExtent(long long level) const
{
    if (level >= 0 && level < getNumLevels())
        return internals->levels[static_cast<std::size_t>(level)].extent;
    Vector const extent = internals->levels.front().extent;
    int const shift = static_cast<int>(std::clamp(level, 0LL, 62LL));
    return Vector(extent.x >> shift, extent.y >> shift, extent.z);
}

long long ZarrImage::getNumChannels() const
{
    return internals->channels;
}

long long ZarrImage::getNumLevels() const
{
    return static_cast<long long>(internals->levels.size());
}

ValueRange<double> ZarrImage::getValueRange() const
{
    return internals->range;
}

Vector ZarrImage::getVoxelSize(long long level) const
{
    if (level >= 0 && level < getNumLevels())
        return internals->levels[static_cast<std::size_t>(level)].voxelSize;
    Vector const size = internals->levels.front().voxelSize;
    long long const factor = 1LL << std::clamp(level, 0LL, 40LL);
    return Vector(size.x * factor, size.y * factor, size.z);
}

Vector ZarrImage::getTileExtent() const
{
    Internals const& self = *internals;
    ZarrArrayMetadata const& array = self.levels.front().array;
    auto chunkOf = [&](int position) { return position < 0 ? 1 : array.chunks[static_cast<std::size_t>(position)]; };
    return Vector(chunkOf(self.axes.x), chunkOf(self.axes.y), chunkOf(self.axes.z));
}

std::string ZarrImage::getChannelName(long long index)
{
    if (index < 0 || index >= internals->channels)
        return "";
    return internals->channelNames[static_cast<std::size_t>(index)];
}

std::string ZarrImage::getDataType() const
{
    ZarrArrayMetadata const& array = internals->levels.front().array;
    char const order = array.itemSize == 1 ? '|' : (array.bigEndian ? '>' : '<');
    return std::string(1, order) + array.kind + std::to_string(array.itemSize);
}

std::uint64_t ZarrImage::getHash()
{
    return std::hash<std::string>()("ZarrImage:" + internals->path);
}

void ZarrImage::openRegion(double* out, long long level, Box const& box)
{
    Internals const& self = *internals;
    if (box.isEmpty())
        return;
    long long const plane = box.getSize();
    std::fill(out, out + plane * self.channels, 0.0);
    if (level < 0 || level >= getNumLevels())
        self.fail("the file has no level " + std::to_string(level));
    Level const& source = self.levels[static_cast<std::size_t>(level)];
    ZarrArrayMetadata const& array = source.array;
    Box const clipped(Vector(std::max(box.min.x, 0LL), std::max(box.min.y, 0LL), std::max(box.min.z, 0LL)),
                      Vector(std::min(box.max.x, source.extent.x - 1), std::min(box.max.y, source.extent.y - 1),
                             std::min(box.max.z, source.extent.z - 1)));
    if (clipped.isEmpty())
        return;
    Vector const boxExtent = box.getExtent();

    std::size_t const dimensions = array.shape.size();
    // In-chunk strides of every dimension, C order.
    std::vector<long long> strides(dimensions, 1);
    for (std::size_t d = dimensions - 1; d > 0; --d)
        strides[d - 1] = strides[d] * array.chunks[d];
    auto chunkSize = [&](int position) { return position < 0 ? 1 : array.chunks[static_cast<std::size_t>(position)]; };
    long long const chunkC = chunkSize(self.axes.c);
    long long const chunkZ = chunkSize(self.axes.z);
    long long const chunkY = chunkSize(self.axes.y);
    long long const chunkX = chunkSize(self.axes.x);
    auto strideOf = [&](int position) { return position < 0 ? 0 : strides[static_cast<std::size_t>(position)]; };

    std::vector<unsigned char> stored;
    std::vector<unsigned char> decoded;
    DecodedTileCache::Block held;
    std::size_t const chunkBytes = static_cast<std::size_t>(array.chunkBytes());
    auto chunksAlong = [&](int position, long long chunk) {
        return position < 0 ? 1 : (array.shape[static_cast<std::size_t>(position)] + chunk - 1) / chunk;
    };
    long long const chunksZ = chunksAlong(self.axes.z, chunkZ);
    long long const chunksY = chunksAlong(self.axes.y, chunkY);
    long long const chunksX = chunksAlong(self.axes.x, chunkX);
    for (long long chunkIndexC = 0; chunkIndexC * chunkC < self.channels; ++chunkIndexC)
        for (long long chunkIndexZ = clipped.min.z / chunkZ; chunkIndexZ <= clipped.max.z / chunkZ; ++chunkIndexZ)
            for (long long chunkIndexY = clipped.min.y / chunkY; chunkIndexY <= clipped.max.y / chunkY; ++chunkIndexY)
                for (long long chunkIndexX = clipped.min.x / chunkX; chunkIndexX <= clipped.max.x / chunkX;
                     ++chunkIndexX)
                {
                    std::vector<long long> indices(dimensions, 0);
                    if (self.axes.c >= 0)
                        indices[static_cast<std::size_t>(self.axes.c)] = chunkIndexC;
                    if (self.axes.z >= 0)
                        indices[static_cast<std::size_t>(self.axes.z)] = chunkIndexZ;
                    indices[static_cast<std::size_t>(self.axes.y)] = chunkIndexY;
                    indices[static_cast<std::size_t>(self.axes.x)] = chunkIndexX;
                    std::string key;
                    for (std::size_t d = 0; d < dimensions; ++d)
                        key += (d > 0 ? std::string(1, array.separator) : std::string()) + std::to_string(indices[d]);
                    // Reads and decodes the chunk into `bytes`; false when it is not stored.
                    auto readChunk = [&](std::vector<unsigned char>& bytes) {
                        if (!readBytes(std::filesystem::path(source.folder) / key, stored))
                            return false;
                        try
                        {
                            decodeZarrChunk(array.compressor, stored, chunkBytes, bytes);
                        }
                        catch (std::runtime_error const& problem)
                        {
                            self.fail("level " + std::to_string(level) + ", chunk " + key + ": " + problem.what());
                        }
                        return true;
                    };
                    bool present = false;
                    unsigned char const* chunkData = nullptr;
                    if (self.cache)
                    {
                        // A chunk that is not stored is held as no bytes: it reads as the fill value.
                        long long const chunkNumber =
                            ((chunkIndexC * chunksZ + chunkIndexZ) * chunksY + chunkIndexY) * chunksX + chunkIndexX;
                        held =
                            self.cache->get(static_cast<std::uint64_t>(level), static_cast<std::uint64_t>(chunkNumber),
                                            [&](std::vector<unsigned char>& bytes) { readChunk(bytes); });
                        present = !held->empty();
                        chunkData = held->data();
                    }
                    else
                    {
                        present = readChunk(decoded);
                        chunkData = decoded.data();
                    }
                    long long const c0 = chunkIndexC * chunkC;
                    long long const c1 = std::min(self.channels, c0 + chunkC) - 1;
                    long long const z0 = std::max(clipped.min.z, chunkIndexZ * chunkZ);
                    long long const z1 = std::min(clipped.max.z, chunkIndexZ * chunkZ + chunkZ - 1);
                    long long const y0 = std::max(clipped.min.y, chunkIndexY * chunkY);
                    long long const y1 = std::min(clipped.max.y, chunkIndexY * chunkY + chunkY - 1);
                    long long const x0 = std::max(clipped.min.x, chunkIndexX * chunkX);
                    long long const x1 = std::min(clipped.max.x, chunkIndexX * chunkX + chunkX - 1);
                    for (long long c = c0; c <= c1; ++c)
                        for (long long z = z0; z <= z1; ++z)
                            for (long long y = y0; y <= y1; ++y)
                            {
                                double* row =
                                    out + c * plane + ((z - box.min.z) * boxExtent.y + (y - box.min.y)) * boxExtent.x;
                                long long const rowStart = (c - c0) * strideOf(self.axes.c) +
                                                           (z - chunkIndexZ * chunkZ) * strideOf(self.axes.z) +
                                                           (y - chunkIndexY * chunkY) * strideOf(self.axes.y);
                                long long const strideX = strideOf(self.axes.x);
                                for (long long x = x0; x <= x1; ++x)
                                    row[x - box.min.x] =
                                        present
                                            ? sampleAt(chunkData + (rowStart + (x - chunkIndexX * chunkX) * strideX) *
                                                                       array.itemSize,
                                                       array)
                                            : array.fillValue;
                            }
                }
}

} // namespace Nuvek
