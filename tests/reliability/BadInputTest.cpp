// Bad parameters, one row each: the exact message, which message wins when two parameters are wrong,
// and that an owned input is deleted exactly once whether construction fails or not (LeakSanitizer
// watches the rest). Parameters only a request can judge fail when opened, with their own message.
#include "support/NuvekTest.h"

using namespace Nuvek;
using namespace NuvekTest;

namespace {

struct Construction
{
    long long channels;
    std::function<void(Image* owned)> construct;
    std::string message;
};

struct Opening
{
    long long channels;
    std::function<Image*(Image* input)> make;
    long long level;
    std::string message;
};

std::string const odd = "Kernel size must be odd.";
std::string const none = "(nothing thrown)";
std::string const negative = "Kernel size must not be negative.";
std::string const unequal = "Kernel sizes for x and y must be equal.";
std::string const lbpChannels = "Error: LBPFilter can only be constructed from images with one channel.\n";
std::string const lbpRadius = "LBPFilter radius must be a finite number of at most 1e9 voxels.";
std::string const colours = "Replacement color channels do not fit number of channels in image";

} // namespace

TEST(BadInput, ConstructorsThrowTheStatedMessageAndFreeAnOwnedInputOnce)
{
    std::vector<double> const v1{1}, v2{1, 2}, v3{1, 2, 3}, v4{1, 2, 1, 2}, v5{1, 2, 3, 4, 5};
    std::vector<Construction> const rows = {
        {1, [](Image* in) { BoxFilter(in, 4, true, false, true); }, odd},
        {1, [](Image* in) { BoxFilter(in, -2, true, false, true); }, odd}, // even wins over negative
        {1, [](Image* in) { BoxFilter(in, -3, true, false, true); }, negative},
        {1, [&](Image* in) { SeparableConvolutionFilter(in, v3, v5, true); }, unequal},
        {1, [&](Image* in) { SeparableConvolutionFilter(in, v4, v5, true); }, unequal},
        {1, [&](Image* in) { SeparableConvolutionFilter(in, v4, v4, true); }, odd},
        {1, [](Image* in) { SeparableConvolutionFilter(in, {}, true); }, odd},
        {1, [](Image* in) { GaussianBlurFilter(in, -3, true); }, odd},
        {1, [](Image* in) { GaussianBlurFilter(in, 4, true); }, odd},
        {1, [](Image* in) { SobelMagnitudeFilter(in, -2, true); }, "Kernel size must be at least 1."},
        {1, [](Image* in) { SobelVectorFilter(in, 6, true); }, odd},
        {1, [](Image* in) { HarrisEigenvaluesFilter(in, -3, true); }, odd},
        {1, [](Image* in) { HarrisEigenvaluesFilter(in, 4, true); }, odd},
        {1, [](Image* in) { DistanceTransformFilter(in, 0.0, -1, true); }, "Maximum distance must not be negative."},
        {1, [](Image* in) { RadialSymmetryFilter(in, NaN, 1.0, true); }, "Radius must be a finite number."},
        {1, [](Image* in) { RadialSymmetryFilter(in, -inf, 1.0, true); }, "Radius must be a finite number."},
        {1, [](Image* in) { RadialSymmetryFilter(in, 2e9, 1.0, true); }, "Radius must not exceed 1e9 in magnitude."},
        {1, [](Image* in) { RadialSymmetryFilter(in, -2e9, 1.0, true); }, "Radius must not exceed 1e9 in magnitude."},
        {1, [](Image* in) { RadialSymmetryFilter(in, -3.0, 1.0, true); }, none},
        // Kernel before bins before the channel count.
        {3, [](Image* in) { HistogramFilter(in, 2, 0, true); }, odd},
        {3, [](Image* in) { HistogramFilter(in, 3, 0, true); }, "Cannot create HistogramComputer with zero bins."},
        {1, [](Image* in) { HistogramFilter(in, 3, -3, true); }, "Cannot create HistogramComputer with zero bins."},
        {3, [](Image* in) { HistogramFilter(in, 3, 4, true); },
         "Local histogram filter may only be applied to single channel images."},
        {2, [](Image* in) { LBPFilter(in, true); }, lbpChannels},
        {2, [](Image* in) { LBPFilter(in, 2.0, true); }, lbpChannels},
        {1, [](Image* in) { LBPFilter(in, NaN, true); }, lbpRadius},
        {1, [](Image* in) { LBPFilter(in, inf, true); }, lbpRadius},
        {1, [](Image* in) { LBPFilter(in, -2e9, true); }, lbpRadius},
        {1, [](Image* in) { ErosionFilter(in, 4, true); }, odd},
        {1, [](Image* in) { DilationFilter(in, -2, true); }, odd},
        {1, [](Image* in) { DilationFilter(in, -3, true); }, none}, // judged when opened
        // Kernel before the upper rank bound before the lower one.
        {1, [](Image* in) { RankFilter(in, 4, 99, true); }, odd},
        {1, [](Image* in) { RankFilter(in, 4, -1, true); }, odd},
        {1, [](Image* in) { RankFilter(in, 3, 9, true); }, "Rank index must be within [0, kernel size ^ 2]."},
        {1, [](Image* in) { RankFilter(in, 3, -1, true); }, "Rank index must not be negative."},
        {1, [](Image* in) { RankFilter(in, 3, 8, true); }, none},
        {1, [](Image* in) { RankFilter(in, 3, 0, true); }, none},
        {1, [](Image* in) { RankFilter(in, 4000000001LL, 5, true); }, none}, // the square exceeds every rank
        {2, [](Image* in) { ChannelFilter(in, std::string("red"), true); }, "No channel named \"red\" found."},
        {2, [](Image* in) { ChannelFilter(in, std::string("Channel 1 "), true); },
         "No channel named \"Channel 1 \" found."},
        {0, [](Image* in) { ChannelFilter(in, std::string(""), true); }, "No channel named \"\" found."},
        {2, [](Image* in) { ChannelFilter(in, 5, 3, true); }, none}, // judged when opened
        {2, [&](Image* in) { ValueReplacementFilter(in, true, v1, v2); }, colours},
        {2, [&](Image* in) { ValueReplacementFilter(in, true, v3, v2); }, colours},
        {2,
         [](Image* in) {
             ValueReplacementFilter(in, true, ValueReplacementFilter::Replacements{{{1, 2}, {3, 4}}, {{5}, {6, 7}}});
         },
         colours},
        {2, [](Image* in) { RGBToHSVFilter(in, true); }, none}, // judged when opened
    };
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        int deletions = 0;
        MemoryImage values(Vector(8, 8, 2), rows[i].channels);
        auto* input = new DeletionProbe(&values, deletions);
        EXPECT_EQ(messageOf([&] { rows[i].construct(input); }), rows[i].message) << "row " << i;
        EXPECT_EQ(deletions, 1) << "row " << i << ": the owned input must be deleted exactly once";
    }
}

TEST(BadInput, RequestsTheFilterCannotServeThrowTheStatedMessage)
{
    Box const box(Vector(1, 0, 0), Vector(1, 0, 0));
    std::vector<Opening> const rows = {
        {2, [](Image* in) { return new RGBToHSVFilter(in, false); }, 0,
         "Cannot convert RGB to HSV: the input has 2 channels, at least three are needed."},
        {1, [](Image* in) { return new DilationFilter(in, -3, false); }, 0, negative},
        {1, [](Image* in) { return new RankFilter(in, -3, 2, false); }, 0, negative},
        {3, [](Image* in) { return new ChannelFilter(in, 3LL, false); }, 0,
         "Cannot select 1 channels from index 3 of an input with 3 channels."},
        {3, [](Image* in) { return new ChannelFilter(in, 1, 3, false); }, 0,
         "Cannot select 3 channels from index 1 of an input with 3 channels."},
        {3, [](Image* in) { return new ChannelFilter(in, -1LL, false); }, 0,
         "Cannot select 1 channels from index -1 of an input with 3 channels."},
        // A request 62 levels coarser than the background level scales its corners by 2^62.
        {1, [](Image* in) { return new LocalNormalizationFilter(in, 0, false); }, 62,
         "LocalNormalizationFilter: the background box lies beyond the range of 64-bit coordinates."},
        {1, [](Image* in) { return new UpsampleFilter(in, 32, UpsampleFilter::Bilinear, false); }, 1,
         "UpsampleFilter: cannot upsample by 31 or more levels."},
        {1, [](Image* in) { return new UpsampleFilter(in, 32, UpsampleFilter::Bilinear, false); }, 2, none},
        {1, [](Image* in) { return new DownsampleFilter(in, -70, false); }, 0,
         "DownsampleFilter: cannot average blocks of more than 2^62 voxels per axis."},
    };
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        MemoryImage input(Vector(4, 4, 1), rows[i].channels);
        std::unique_ptr<Image> filter(rows[i].make(&input));
        EXPECT_EQ(messageOf([&] { openWhole(*filter, rows[i].level, box); }), rows[i].message) << "row " << i;
    }
    VoxelSizeModificationFilter voxels(new MemoryImage(Vector(4, 4, 1), 1), true, Vector(1LL << 40, 1, 1));
    EXPECT_EQ(voxels.getVoxelSize(20), Vector(1LL << 60, 1LL << 20, 1));
    EXPECT_EQ(messageOf([&] { voxels.getVoxelSize(30); }),
              "The voxel size at this level does not fit in a 64-bit integer.");
}

TEST(BadInput, MultiInputFiltersNameTheFirstMismatchAndDeleteNothingWhenTheyRefuse)
{
    std::string const channels = "Cannot instantiate difference filter from images with unequal numbers of channels.";
    std::string const extents = "Cannot instantiate difference filter from images with unequal extents.";
    std::string const noInput = "Cannot instantiate a filter without an input image.";
    int deletions = 0;
    MemoryImage oneValues(Vector(8, 8, 2), 1), twoValues(Vector(8, 8, 2), 2);
    MemoryImage wider(Vector(9, 8, 2), 1), widerTwo(Vector(9, 8, 2), 2);
    auto* one = new DeletionProbe(&oneValues, deletions);
    auto* two = new DeletionProbe(&twoValues, deletions);
    EXPECT_EQ(messageOf([&] { AdditionFilter(one, two, true, true); }), channels);
    EXPECT_EQ(messageOf([&] { DifferenceFilter(one, two, true, true); }), channels);
    EXPECT_EQ(messageOf([&] { AdditionFilter(one, &wider, true, false); }), extents);
    EXPECT_EQ(messageOf([&] { DifferenceFilter(one, &wider, true, false); }), extents);
    EXPECT_EQ(messageOf([&] { AdditionFilter(one, &widerTwo, true, false); }), channels); // channels first
    EXPECT_EQ(messageOf([&] { DifferenceFilter(nullptr, one, false); }), noInput);
    EXPECT_EQ(messageOf([&] { AdditionFilter(one, nullptr, false); }),
              "Cannot instantiate a filter without a second input image.");
    EXPECT_EQ(deletions, 0);
    delete one;
    delete two;
    EXPECT_EQ(deletions, 2);

    MemoryImage a(Vector(4, 4, 1), 1), b(Vector(4, 4, 1), 2), c(Vector(5, 4, 1), 1), d(Vector(4, 4, 2), 1);
    EXPECT_EQ(messageOf([&] { ConcatFilter({&a, &b, &c}, false); }), "Image extents must match");
    EXPECT_EQ(messageOf([&] { ConcatFilter({&a, &d}, false); }), "Image extents must match");
    EXPECT_EQ(messageOf([&] { ConcatFilter({}, false); }), "Cannot instantiate a concat filter without input images.");
    EXPECT_EQ(messageOf([&] { ConcatFilter({&a, nullptr}, false); }), noInput);
    EXPECT_EQ(messageOf([&] { ConcatFilter({nullptr, &a}, false); }), noInput);
}
