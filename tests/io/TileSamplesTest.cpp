#include "io/internal/TileSamples.h"
#include "io/internal/CoarseLevels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <vector>

using Nuvek::CoarseLevels;
using Nuvek::PyramidLevel;
using Nuvek::SampleStatistics;
using Nuvek::TiffSampleType;
using Nuvek::TileLayout;
using Nuvek::ValueRange;
using Nuvek::Vector;

namespace {

std::uint64_t bitsOf(double value)
{
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Values where the conversion can go wrong: NaN, infinities, zeros of both signs, the edges of
// the range and beyond, the halves where rounding turns and their neighbours, random values.
std::vector<double> awkwardValues(std::mt19937_64& random, ValueRange<double> const& range, double top,
                                  std::size_t count)
{
    double const infinity = std::numeric_limits<double>::infinity();
    std::vector<double> special = {std::nan(""),
                                   infinity,
                                   -infinity,
                                   0.0,
                                   -0.0,
                                   range.min,
                                   range.max,
                                   std::numeric_limits<double>::max(),
                                   -std::numeric_limits<double>::max(),
                                   std::numeric_limits<double>::denorm_min()};
    std::uniform_real_distribution<double> uniform(range.min - (range.max - range.min) * 0.1,
                                                   range.max + (range.max - range.min) * 0.1);
    std::uniform_int_distribution<int> step(-1, static_cast<int>(top) + 1);
    std::vector<double> values;
    while (values.size() < count)
    {
        std::size_t const pick = random() % 4;
        if (pick == 0)
            values.push_back(special[random() % special.size()]);
        else if (pick == 1)
        {
            // Where scaled + 0.5 is about a whole number: k - 0.5 and k + 0.5 stored, mapped back.
            double const half = (step(random) + 0.5) / top * (range.max - range.min) + range.min;
            values.push_back(random() % 3 == 0 ? half : std::nextafter(half, random() % 2 ? infinity : -infinity));
            // Halves exactly, for the ranges 0..top that map them onto themselves.
            values.push_back(step(random) + 0.5);
        }
        else
            values.push_back(uniform(random));
    }
    return values;
}

struct StoreCase
{
    TiffSampleType type;
    long long channels;
    long long width;
    long long height;
    ValueRange<double> range;
};

} // namespace

TEST(TileSamples, RowConversionStoresThePlainLoopsBitsAndStatistics)
{
    double const huge = std::numeric_limits<double>::max();
    // Widths below, at and off the four lanes; a range whose span overflows takes the plain loop.
    std::vector<StoreCase> const cases = {
        {TiffSampleType::UInt8, 1, 1, 3, {0.0, 255.0}},     {TiffSampleType::UInt8, 1, 29, 6, {0.0, 255.0}},
        {TiffSampleType::UInt8, 3, 37, 11, {0.0, 1.0}},     {TiffSampleType::UInt8, 2, 64, 7, {-3.5, 17.25}},
        {TiffSampleType::UInt16, 1, 30, 9, {0.0, 65535.0}}, {TiffSampleType::UInt16, 3, 7, 5, {-1e-3, 2e-3}},
        {TiffSampleType::UInt16, 4, 61, 13, {-1e6, 1e9}},   {TiffSampleType::UInt8, 1, 33, 3, {-huge, huge}}};
    std::mt19937_64 random(91);
    for (StoreCase const& c : cases)
    {
        TileLayout layout;
        layout.type = c.type;
        layout.tileSize = 64;
        layout.samples = c.channels;
        // One channel more before the stored ones: firstChannel 1.
        layout.ranges.assign(static_cast<std::size_t>(c.channels + 1), c.range);
        double const top = c.type == TiffSampleType::UInt8 ? 255.0 : 65535.0;
        std::vector<double> region =
            awkwardValues(random, c.range, top, static_cast<std::size_t>((c.channels + 1) * c.width * c.height));
        std::vector<unsigned char> fast(static_cast<std::size_t>(layout.tileBytes()), 0xAA);
        std::vector<unsigned char> plain(fast.size(), 0x55);
        // Statistics carried over from earlier tiles, and fresh ones.
        for (bool fresh : {true, false})
        {
            SampleStatistics fastStatistics;
            SampleStatistics plainStatistics;
            if (!fresh)
                fastStatistics = plainStatistics = SampleStatistics{5, 2, 3.0, 4.0};
            Nuvek::storeRegion(layout, region.data(), 1, c.width, c.height, fast.data(), fastStatistics);
            Nuvek::storeRegion(layout, region.data(), 1, c.width, c.height, plain.data(), plainStatistics, true);
            SCOPED_TRACE("channels " + std::to_string(c.channels) + ", width " + std::to_string(c.width) + ", range " +
                         std::to_string(c.range.min) + " " + std::to_string(c.range.max));
            for (std::size_t i = 0; i < fast.size(); ++i)
                ASSERT_EQ(fast[i], plain[i]) << "byte " << i;
            EXPECT_EQ(fastStatistics.samples, plainStatistics.samples);
            EXPECT_EQ(fastStatistics.saturated, plainStatistics.saturated);
            EXPECT_EQ(bitsOf(fastStatistics.lowestStored), bitsOf(plainStatistics.lowestStored));
            EXPECT_EQ(bitsOf(fastStatistics.highestStored), bitsOf(plainStatistics.highestStored));
        }
    }
}

TEST(TileSamples, RowConversionCountsOnlyNumbersAndSaturatesAtTheHalves)
{
    TileLayout layout;
    layout.tileSize = 16;
    layout.ranges = {{0.0, 255.0}};
    double const nan = std::nan("");
    // Halves round up: 255.5 to 256, which saturates, -0.5 to 0, which does not, 2.5 to 3.
    std::vector<double> const region = {nan, 255.5, 254.9, -0.5, -0.6, 2.5};
    std::vector<unsigned char> tile(static_cast<std::size_t>(layout.tileBytes()));
    SampleStatistics statistics;
    Nuvek::storeRegion(layout, region.data(), 0, 6, 1, tile.data(), statistics);
    EXPECT_EQ(std::vector<unsigned char>(tile.begin(), tile.begin() + 6),
              (std::vector<unsigned char>{0, 255, 255, 0, 0, 3}));
    EXPECT_EQ(statistics.samples, 5);
    EXPECT_EQ(statistics.saturated, 2);
    EXPECT_EQ(statistics.lowestStored, 0.0);
    EXPECT_EQ(statistics.highestStored, 255.0);

    // NaN, stored as 0, is no sample: the lowest stays 3.
    std::vector<double> const numbers = {nan, 3.0, 7.0, 5.0, nan, 4.0};
    statistics = SampleStatistics();
    Nuvek::storeRegion(layout, numbers.data(), 0, 6, 1, tile.data(), statistics);
    EXPECT_EQ(statistics.samples, 4);
    EXPECT_EQ(statistics.lowestStored, 3.0);
    EXPECT_EQ(statistics.highestStored, 7.0);
}

// The coarser levels made a tile at a time, in any order and with several planes, hold what
// averageChildren makes of the four children read back.
TEST(TileSamples, CoarseLevelsMatchTheMeansOfTheStoredLevelAbove)
{
    for (TiffSampleType type : {TiffSampleType::UInt8, TiffSampleType::UInt16, TiffSampleType::Float32})
    {
        TileLayout layout;
        layout.type = type;
        layout.tileSize = 16;
        layout.samples = 2;
        long long const planes = 2;
        long long const depth = 2;
        // 9 x 5 tiles, then 4 x 3 (the ninth column adds nothing), 2 x 2 and 1 x 1.
        std::vector<PyramidLevel> const levels = Nuvek::pyramidLevels(Vector(129, 79, depth), layout.tileSize);
        ASSERT_EQ(levels.size(), 4u);
        long long const positionBytes = layout.tileBytes() * planes;
        std::mt19937_64 random(17);

        // Level 0: random bytes inside each tile's extent, zeros beyond as the writers store them.
        std::vector<std::vector<std::vector<unsigned char>>> expected(levels.size());
        PyramidLevel const& finest = levels.front();
        long long const sampleBytes = layout.bytesPerSample();
        for (long long index = 0; index < depth * finest.tilesY * finest.tilesX; ++index)
        {
            long long const tileX = index % finest.tilesX;
            long long const tileY = index / finest.tilesX % finest.tilesY;
            long long const width = std::min<long long>(16, finest.width - tileX * 16);
            long long const height = std::min<long long>(16, finest.height - tileY * 16);
            std::vector<unsigned char> tiles(static_cast<std::size_t>(positionBytes), 0);
            for (long long p = 0; p < planes; ++p)
                for (long long y = 0; y < height; ++y)
                    for (long long b = 0; b < width * layout.samples * sampleBytes; ++b)
                    {
                        unsigned char byte = static_cast<unsigned char>(random());
                        // Float samples: finite values only, NaN bits would compare unequal.
                        if (type == TiffSampleType::Float32 && b % 4 == 3)
                            byte &= 0x3f;
                        tiles[static_cast<std::size_t>(p * layout.tileBytes() + y * 16 * layout.samples * sampleBytes +
                                                       b)] = byte;
                    }
            expected[0].push_back(tiles);
        }
        // Coarser levels the way the writers made them before: from the four children.
        for (std::size_t level = 1; level < levels.size(); ++level)
        {
            PyramidLevel const& shape = levels[level];
            PyramidLevel const& above = levels[level - 1];
            for (long long index = 0; index < depth * shape.tilesY * shape.tilesX; ++index)
            {
                long long const tileX = index % shape.tilesX;
                long long const tileY = index / shape.tilesX % shape.tilesY;
                long long const z = index / (shape.tilesX * shape.tilesY);
                std::vector<unsigned char> tiles(static_cast<std::size_t>(positionBytes));
                for (long long p = 0; p < planes; ++p)
                {
                    std::vector<unsigned char> children[4];
                    for (long long j = 0; j < 2; ++j)
                        for (long long i = 0; i < 2; ++i)
                        {
                            long long const childX = 2 * tileX + i;
                            long long const childY = 2 * tileY + j;
                            if (childX >= above.tilesX || childY >= above.tilesY)
                                continue;
                            auto const& child =
                                expected[level - 1]
                                        [static_cast<std::size_t>((z * above.tilesY + childY) * above.tilesX + childX)];
                            children[j * 2 + i].assign(child.begin() + p * layout.tileBytes(),
                                                       child.begin() + (p + 1) * layout.tileBytes());
                        }
                    Nuvek::averageChildren(layout, children, std::min<long long>(16, shape.width - tileX * 16),
                                           std::min<long long>(16, shape.height - tileY * 16),
                                           tiles.data() + p * layout.tileBytes());
                }
                expected[level].push_back(tiles);
            }
        }

        // Level 0 added in a shuffled order.
        std::vector<long long> order(expected[0].size());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = static_cast<long long>(i);
        std::shuffle(order.begin(), order.end(), random);
        CoarseLevels coarse(layout, levels, planes);
        std::map<std::pair<long long, long long>, std::vector<unsigned char>> made;
        for (long long index : order)
            coarse.add(0, index, expected[0][static_cast<std::size_t>(index)].data(),
                       [&](long long level, long long position, unsigned char const* tiles) {
                           EXPECT_TRUE(made.count({level, position}) == 0) << "made twice";
                           made[{level, position}].assign(tiles, tiles + positionBytes);
                       });
        for (std::size_t level = 1; level < levels.size(); ++level)
            for (std::size_t index = 0; index < expected[level].size(); ++index)
            {
                auto const found = made.find({static_cast<long long>(level), static_cast<long long>(index)});
                ASSERT_TRUE(found != made.end()) << "level " << level << " position " << index;
                EXPECT_TRUE(found->second == expected[level][index]) << "level " << level << " position " << index;
            }
        EXPECT_EQ(made.size(), expected[1].size() + expected[2].size() + expected[3].size());
    }
}
