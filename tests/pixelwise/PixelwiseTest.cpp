// Pixel-wise and channel filters against their definitions, and one pinned example per oddity.
#include "reference/PixelwiseColourReference.h"
#include "support/NuvekTest.h"

using namespace Nuvek;
using namespace NuvekTest;

namespace {

// Values that make ties between channels, signed zeros and non-finite values likely.
void tieHeavy(std::vector<double>& values, std::mt19937_64& random)
{
    double const palette[] = {0.0, -0.0, 0.25, 0.5, 1.0, 255.0, 254.999, 1e-300, -3.0, NaN, inf, -inf};
    for (double& value : values)
        if (std::uniform_int_distribution<int>(0, 1)(random) == 0)
            value = palette[std::uniform_int_distribution<int>(0, 11)(random)];
}

} // namespace

TEST(ThresholdFilter, MatchesDefinitionNaNIsLowAndTheRangeIsTheTwoOutputsUnsorted)
{
    double t = 0, low = 0, high = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            // Whole numbers, so that values equal to the threshold occur.
            t = static_cast<double>(draw.integer(-100, 100, "t"));
            low = draw.number(-5, 5, "low"), high = draw.number(-5, 5, "high");
            return std::make_unique<ThresholdFilter>(input, t, low, high, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> values = openWhole(input, level, box);
            for (double& x : values)
                x = x >= t ? high : low;
            return values;
        },
        HarnessOptions(30, 31).integers());
    MemoryImage image(Vector(4, 1, 1), 1, {0.5, 1.0, NaN, -inf});
    ThresholdFilter filter(&image, 1.0, 3.0, -7.0, false);
    EXPECT_EQ(openWhole(filter, 0, Box(Vector(4, 1, 1))), (std::vector<double>{3, -7, 3, 3}));
    EXPECT_EQ(std::make_pair(filter.getValueRange().min, filter.getValueRange().max), std::make_pair(3.0, -7.0));
}

TEST(ClampingFilter, RepeatsTheEdgesOfTheFirstInsideSliceOnly)
{
    // Outside voxels take the value at their coordinates clamped into the image; but in x and y only
    // on the box's first slice inside the image (its other slices keep what the input wrote). A box
    // with no voxel inside the image is clamped on every slice.
    expectMatchesReference(
        [&](Image* input, Draw&) { return std::make_unique<ClampingFilter>(input, false); },
        [&](Image& input, long long level, Box const& box) {
            Vector const e = input.getExtent(level);
            std::vector<double> const all = openWhole(input, level, Box(e));
            auto clamp = [](long long v, long long n) { return std::min(std::max(v, 0LL), n - 1); };
            bool const overlaps = !box.intersected(Box(e)).isEmpty();
            std::vector<double> values;
            for (long long c = 0; c < input.getNumChannels(); ++c)
                for (long long z = box.min.z; z <= box.max.z; ++z)
                    for (long long y = box.min.y; y <= box.max.y; ++y)
                        for (long long x = box.min.x; x <= box.max.x; ++x)
                        {
                            bool const inXY = x >= 0 && y >= 0 && x < e.x && y < e.y;
                            bool const edges = !overlaps || clamp(z, e.z) == std::max(box.min.z, 0LL);
                            long long const at =
                                ((c * e.z + clamp(z, e.z)) * e.y + clamp(y, e.y)) * e.x + clamp(x, e.x);
                            values.push_back(inXY || edges ? all[static_cast<std::size_t>(at)] : 0.0);
                        }
            return values;
        },
        HarnessOptions(120, 32));
}

TEST(AdditionAndDifferenceFilter, MatchDefinition)
{
    std::unique_ptr<Image> second;
    bool add = false;
    expectMatchesReference(
        [&](Image* input, Draw& draw) -> std::unique_ptr<Image> {
            second = std::make_unique<BoxFilter>(input, 3, true, false, false);
            if ((add = draw.flip("add")))
                return std::make_unique<AdditionFilter>(input, second.get(), false);
            return std::make_unique<DifferenceFilter>(input, second.get(), false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> a = openWhole(input, level, box), b = openWhole(*second, level, box);
            for (std::size_t i = 0; i < a.size(); ++i)
                a[i] = add ? a[i] + b[i] : a[i] - b[i];
            return a;
        },
        HarnessOptions(40, 33));
}

TEST(BinaryOperatorFilter,
     OwnershipFlagsDecideWhichInputsAreDeletedOnlyLevelZeroExtentsAreComparedAndTheHashRisesOnNewStamps)
{
    MemoryImage image(Vector(9, 9, 2), 1), other(Vector(9, 9, 2), 1);
    for (bool ownsFirst : {false, true})
        for (bool ownsSecond : {false, true})
        {
            int firstDeletions = 0, secondDeletions = 0;
            auto first = std::make_unique<DeletionProbe>(&image, firstDeletions);
            auto second = std::make_unique<DeletionProbe>(&image, secondDeletions);
            delete new AdditionFilter(ownsFirst ? first.release() : first.get(),
                                      ownsSecond ? second.release() : second.get(), ownsFirst, ownsSecond);
            EXPECT_EQ(firstDeletions * 10 + secondDeletions, (ownsFirst ? 10 : 0) + (ownsSecond ? 1 : 0));
        }
    int deletions = 0;
    auto* both = new DeletionProbe(&image, deletions);
    delete new DifferenceFilter(both, both, true);
    EXPECT_EQ(deletions, 1);
    struct CoarseExtent : Filter
    {
        using Filter::Filter;
        Vector getExtent(long long level) const override { return level == 0 ? Vector(9, 9, 2) : Vector(1, 1, 1); }
    } coarse(&other, false);
    EXPECT_NO_THROW(DifferenceFilter(&image, &coarse, false));
    auto source = std::make_shared<MemoryImage>(Vector(2, 2, 1), 1);
    RecordingImage first(source), second(source);
    first.touch(); // a stamp other than 0 at construction is the starting point, not a change
    AdditionFilter filter(&first, &second, false);
    std::vector<std::uint64_t> hashes{filter.getHash()};
    first.touch();
    hashes.push_back(filter.getHash());
    hashes.push_back(filter.getHash());
    second.touch();
    hashes.push_back(filter.getHash());
    first.touch();
    second.touch();
    hashes.push_back(filter.getHash());
    EXPECT_EQ(hashes, (std::vector<std::uint64_t>{0, 1, 1, 2, 3}));
}

TEST(ChannelFilter, MatchesDefinitionNamesAreExactLowestIndexWinsNamesLookUpIndexMinusFirstAndUnwrittenVoxelsReadZero)
{
    long long first = 0, count = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            count = draw.integer(1, input->getNumChannels(), "count");
            first = draw.integer(0, input->getNumChannels() - count, "first");
            return std::make_unique<ChannelFilter>(input, first, count, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> const all = openWhole(input, level, box);
            auto const begin = all.begin() + first * box.getSize();
            return std::vector<double>(begin, begin + count * box.getSize());
        },
        HarnessOptions(30, 34));
    MemoryImage image(Vector(2, 1, 1), 4, {0, 1, 2, 3, 4, 5, 6, 7});
    image.setChannelNames({"Red", "green", "Green", "Green"});
    ChannelFilter green(&image, "Green", false);
    EXPECT_EQ(openWhole(green, 0, Box(Vector(2, 1, 1))), (std::vector<double>{4, 5}));
    // Index 1 of a selection starting at channel 1 is the input's channel 0; index 0 is channel -1.
    ChannelFilter block(&image, 1, 2, false);
    EXPECT_EQ(block.getChannelName(1), "Red");
    EXPECT_EQ(block.getChannelName(2), "green");
    EXPECT_EQ(messageOf([&] { block.getChannelName(0); }), "Invalid channel index. Cannot determine its name.");
    // Some inputs write only part of a request (the distance transform leaves voxels outside the
    // image alone); a selection must then give zeros there, not what its work buffer held before.
    struct WritesNothing : MemoryImage
    {
        WritesNothing() : MemoryImage(Vector(4, 4, 1), 3) {}
        void openRegion(double*, long long, Box const&) override {}
    } input;
    ChannelFilter filter(&input, 1, false);
    Box const box(Vector(0, 0, 0), Vector(63, 63, 0));
    for (int round = 0; round < 3; ++round)
        EXPECT_EQ(openSentinel(filter, 0, box, -1.0),
                  std::vector<double>(static_cast<std::size_t>(box.getSize()), 0.0));
}

TEST(ConcatFilter, MatchesDefinitionAndNeverDeletesItsInputs)
{
    std::unique_ptr<Image> second;
    expectMatchesReference(
        [&](Image* input, Draw&) {
            second = std::make_unique<ChannelFilter>(input, 0LL, false);
            return std::make_unique<ConcatFilter>(std::vector<Image*>{input, second.get(), input}, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> out = openWhole(input, level, box), b = openWhole(*second, level, box);
            out.insert(out.end(), b.begin(), b.end());
            b = openWhole(input, level, box);
            out.insert(out.end(), b.begin(), b.end());
            return out;
        },
        HarnessOptions(30, 35));
    MemoryImage image(Vector(2, 2, 1), 1);
    int deletions = 0;
    DeletionProbe one(&image, deletions), two(&image, deletions);
    delete new ConcatFilter({&one, &two}, true);
    EXPECT_EQ(deletions, 0);
}

TEST(RGBToHSVFilter, MatchesTheHexconeDefinitionHueRoundingUpTo360WrapsToZeroAndAZeroSpanRangeDividesByZero)
{
    // (x - lo) / (hi - lo) first; channels after the third pass through.
    double low = 0, high = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            low = draw.flip("ownRange") ? -3.0 : 0.0;
            high = 255.0;
            static_cast<MemoryImage*>(input)->setValueRange({low, high});
            return std::make_unique<RGBToHSVFilter>(input, false);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> values = openWhole(input, level, box);
            NuvekReference::rgbToQuantisedHSV(values, box.getSize(), low, high);
            return values;
        },
        HarnessOptions(60, 36).channels({3, 4}).mix({0.0, 255.0, 0.01}).shape(tieHeavy));
    MemoryImage image(Vector(3, 1, 1), 3, {1, 1, 1, 0, 0, 0, 1e-9, 1e-15, 1e-17});
    image.setValueRange({0, 1});
    RGBToHSVFilter filter(&image, false);
    std::vector<double> const out = openWhole(filter, 0, Box(Vector(3, 1, 1)));
    EXPECT_EQ(std::vector<double>(out.begin(), out.begin() + 3), (std::vector<double>{254, 254, 0}));
    // (7, 7, 7) over the range (5, 5) is +inf everywhere: spread inf - inf is NaN; (5, 5, 5) is 0 / 0.
    MemoryImage flat(Vector(2, 1, 1), 3, {7, 5, 7, 5, 7, 5});
    flat.setValueRange({5, 5});
    RGBToHSVFilter zeroSpan(&flat, false);
    EXPECT_TRUE(sameBitsAnyNaN({NaN, NaN, NaN, 0.0, inf, NaN}, openWhole(zeroSpan, 0, Box(Vector(2, 1, 1))),
                               Box(Vector(2, 1, 1))));
}

TEST(ValueReplacementFilter, MatchesTheScanForFewAndManyColoursWithNaNKeys)
{
    ValueReplacementFilter::Replacements replacements;
    static double const palette[] = {0.0, -0.0, 1.0, 2.0, 3.0, NaN, -1.5};
    auto colour = [](Draw& draw, long long channels) {
        std::vector<double> c;
        for (long long i = 0; i < channels; ++i)
            c.push_back(palette[draw.integer(0, 6, "")]);
        return c;
    };
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            replacements.clear();
            for (long long i = draw.integer(0, 40, "colours"); i > 0; --i)
                replacements[colour(draw, input->getNumChannels())] = colour(draw, input->getNumChannels());
            return std::make_unique<ValueReplacementFilter>(input, false, replacements);
        },
        [&](Image& input, long long level, Box const& box) {
            std::vector<double> values = openWhole(input, level, box);
            NuvekReference::replaceColours(values, box.getSize(), input.getNumChannels(), replacements);
            return values;
        },
        HarnessOptions(60, 37).shape([](std::vector<double>& values, std::mt19937_64& random) {
            for (double& v : values)
                v = palette[std::uniform_int_distribution<int>(0, 6)(random)];
        }));
}

TEST(ZStackFilter, ServesItsSliceWhateverZIsAsked)
{
    long long slice = 0;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            slice = draw.integer(0, input->getExtent(0).z - 1, "slice");
            return std::make_unique<ZStackFilter>(input, slice, false);
        },
        [&](Image& input, long long level, Box const& box) {
            // A deeper box gets one slice's worth of values at the start of its buffer.
            Box const one(Vector(box.min.x, box.min.y, slice), Vector(box.max.x, box.max.y, slice));
            std::vector<double> out = openWhole(input, level, one);
            out.resize(static_cast<std::size_t>(box.getSize() * input.getNumChannels()), 0.0);
            return out;
        },
        HarnessOptions(30, 38));
}

TEST(VoxelSizeModificationFilter, ScalesXAndYByAThirtyTwoBitShiftOfTheLevel)
{
    MemoryImage image(Vector(4, 4, 1), 1);
    VoxelSizeModificationFilter filter(&image, false, Vector(2, 3, 5));
    EXPECT_EQ(filter.getVoxelSize(30), Vector(2LL << 30, 3LL << 30, 5));
    // Level 31 shifts into the sign bit; level 32 wraps round to a factor of 1; -1 uses its low five bits.
    EXPECT_EQ(filter.getVoxelSize(31), Vector(-(2LL << 31), -(3LL << 31), 5));
    EXPECT_EQ(filter.getVoxelSize(32), Vector(2, 3, 5));
    EXPECT_EQ(filter.getVoxelSize(35), Vector(16, 24, 5));
    EXPECT_EQ(filter.getVoxelSize(-1), Vector(-(2LL << 31), -(3LL << 31), 5));
    // Without a size, the input's level-0 size is taken.
    EXPECT_EQ(VoxelSizeModificationFilter(&image, false).getVoxelSize(1), image.getVoxelSize(1));
}
