// A large box filter request read from its input in bands of rows against the same request read
// whole, bit for bit: the banded pass carries the running sums from band to band.
#include "support/NuvekTest.h"

#include <nuvek/core/RowBandExactness.h>

#include <algorithm>
#include <thread>

using namespace NuvekTest;
using Nuvek::BoxFilter;

namespace {

// A recording image that may say it gives the same bits in row bands: with `exact` the filter reads
// a large request in bands, without it the whole grown box at once, as it always did.
class BandRecordingImage : public RecordingImage, public Nuvek::RowBandExactness
{
public:
    BandRecordingImage(std::shared_ptr<MemoryImage> source, bool exact)
        : RecordingImage(std::move(source)), exact(exact)
    {
    }
    bool splitsExactlyInRowBands() const override { return exact; }

private:
    bool exact;
};

struct BandCase
{
    Vector extent;
    long long channels;
    Box box;
    long long kernelSize;
    bool normalize;
    bool rounding;
    bool clamped; // read through a clamping filter, which repeats the edges beyond the border
    bool banded;  // whether the exact input is read in bands
};

// Values whose magnitudes vary from voxel to voxel and grow a million times from the first row of a
// plane to its last, so that the sums round and what one plane's last row carries into the next
// plane's first changes them; a few of 1e15, and one NaN, +infinity and -infinity per plane in its
// last rows, where they spoil few sums.
std::shared_ptr<MemoryImage> bandImage(std::mt19937_64& random, Vector const& extent, long long channels)
{
    std::vector<double> values = randomValues(random, extent.prod() * channels, {-1.0, 1.0, 0.0});
    std::uniform_int_distribution<int> exponent(-2, 1);
    for (std::size_t i = 0; i < values.size(); ++i)
    {
        double const row = static_cast<double>(static_cast<long long>(i) / extent.x % extent.y);
        values[i] *= std::pow(10.0, exponent(random) + 6.0 * row / static_cast<double>(extent.y));
    }
    long long const plane = extent.x * extent.y;
    std::uniform_int_distribution<long long> anywhere(0, static_cast<long long>(values.size()) - 1);
    for (int i = 0; i < 20; ++i)
        values[static_cast<std::size_t>(anywhere(random))] = i % 2 == 0 ? 1e15 : -1e15;
    std::uniform_int_distribution<long long> nearEnd(plane - 3 * extent.x, plane - 1);
    for (long long c = 0; c < channels * extent.z; ++c)
    {
        values[static_cast<std::size_t>(c * plane + nearEnd(random))] = NaN;
        values[static_cast<std::size_t>(c * plane + nearEnd(random))] = inf;
        values[static_cast<std::size_t>(c * plane + nearEnd(random))] = -inf;
    }
    auto image = std::make_shared<MemoryImage>(extent, channels);
    image->setValues(std::move(values));
    return image;
}

} // namespace

TEST(BoxFilter, LargeRequestInRowBandsGivesTheBitsOfOneWholeRequest)
{
    BandCase const cases[] = {
        // One plane; the last band holds 65 rows (bands of 64 rows of 1024 values).
        {Vector(1030, 650, 1), 1, Box(Vector(3, 2, 0), Vector(1022, 638, 0)), 5, true, false, false, true},
        // Channels and slices: the first row of every plane carries the previous plane's last row.
        {Vector(420, 330, 2), 3, Box(Vector(5, 4, 0), Vector(410, 320, 1)), 9, false, false, false, true},
        // A kernel larger than the band the request would otherwise get.
        {Vector(2100, 400, 1), 1, Box(Vector(40, 30, 0), Vector(2059, 369, 0)), 61, true, true, false, true},
        // A kernel of one, and one wider than the box, whose grown box reaches beyond both sides.
        {Vector(1030, 650, 1), 1, Box(Vector(3, 2, 0), Vector(1022, 638, 0)), 1, false, false, false, true},
        {Vector(40, 12000, 1), 1, Box(Vector(15, 0, 0), Vector(24, 11999, 0)), 61, true, false, false, true},
        // Eight columns, the narrowest the fast passes take, and many thin bands.
        {Vector(12, 60000, 1), 1, Box(Vector(2, 1, 0), Vector(9, 59998, 0)), 3, false, false, false, true},
        // Whole images: the grown box reaches beyond every border, where the source writes zeros or
        // the clamping filter repeats the edges, in the first slice only of a deeper box.
        {Vector(700, 500, 1), 2, Box(Vector(700, 500, 1)), 3, true, false, false, true},
        {Vector(400, 300, 3), 2, Box(Vector(400, 300, 3)), 7, false, true, true, true},
        // Seven columns keep the ring passes; a box across the border is read whole.
        {Vector(11, 80000, 1), 1, Box(Vector(2, 1, 0), Vector(8, 79998, 0)), 3, true, false, false, false},
        {Vector(1030, 650, 1), 2, Box(Vector(-1, 2, 0), Vector(1022, 648, 0)), 5, true, true, true, false},
    };
    std::mt19937_64 random(20261125);
    for (BandCase const& test : cases)
    {
        std::string const context = "case " + std::to_string(&test - cases);
        auto const source = bandImage(random, test.extent, test.channels);
        BandRecordingImage whole(source, false);
        BandRecordingImage bands(source, true);
        Nuvek::ClampingFilter clampedWhole(&whole, false);
        Nuvek::ClampingFilter clampedBands(&bands, false);
        BoxFilter wholeFilter(test.clamped ? static_cast<Image*>(&clampedWhole) : &whole, test.kernelSize,
                              test.normalize, test.rounding, false);
        BoxFilter bandFilter(test.clamped ? static_cast<Image*>(&clampedBands) : &bands, test.kernelSize,
                             test.normalize, test.rounding, false);
        std::vector<double> const expected = openSentinel(wholeFilter, 0, test.box);
        EXPECT_TRUE(sameBitsAnyNaN(expected, openSentinel(bandFilter, 0, test.box), test.box, context));

        long long const h = test.kernelSize / 2;
        Box const grown = test.box.expanded(Vector(h, h, 0));
        ASSERT_EQ(whole.requests().size(), 1u) << context;
        EXPECT_EQ(whole.requests()[0].box, grown) << context;
        std::vector<Request> const requests = bands.requests();
        if (!test.banded)
        {
            ASSERT_EQ(requests.size(), 1u) << context;
            EXPECT_EQ(requests[0].box, grown) << context;
            continue;
        }
        // Bands of the grown box's columns and slices, each holding rows inside the image, read once each.
        EXPECT_GT(requests.size(), 2u) << context;
        long long rows = 0;
        for (Request const& request : requests)
        {
            EXPECT_EQ(request.box.intersected(grown), request.box) << context;
            EXPECT_EQ(request.box.min.x, grown.min.x) << context;
            EXPECT_EQ(request.box.max.x, grown.max.x) << context;
            EXPECT_FALSE(request.box.intersected(Box(test.extent)).isEmpty()) << context;
            rows += request.box.getExtent().y;
        }
        EXPECT_EQ(rows, grown.getExtent().y) << context;
    }
}

TEST(BoxFilter, LargeRequestsInRowBandsOnSeveralThreadsAtOnce)
{
    std::mt19937_64 random(7);
    auto const source = bandImage(random, Vector(900, 800, 1), 2);
    BandRecordingImage bands(source, true);
    BoxFilter filter(&bands, 7, true, false, false);
    Box const box(Vector(10, 10, 0), Vector(889, 789, 0));
    std::vector<double> const expected = openWhole(filter, 0, box);
    // Each call borrows band buffers of its own: four at once give the bits of one alone.
    std::vector<std::vector<double>> results(4);
    std::vector<std::thread> threads;
    for (std::vector<double>& result : results)
        threads.emplace_back([&] { result = openWhole(filter, 0, box); });
    for (std::thread& thread : threads)
        thread.join();
    for (std::vector<double> const& result : results)
        EXPECT_TRUE(sameBits(expected, result, box));
}
