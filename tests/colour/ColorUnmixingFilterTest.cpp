#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/MemoryImage.h>
#include <nuvek/filters/colour/ColorUnmixingFilter.h>

#include "reference/ColourReference.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::ChannelBank;
using Nuvek::ColorUnmixingFilter;
using Nuvek::Vector;
using NuvekTest::openWhole;
using Matrix = std::vector<std::vector<double>>;

namespace {

std::vector<std::string> const rgb{"R", "G", "B"};

std::string hex(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

Nuvek::MemoryImage namedImage()
{
    Nuvek::MemoryImage image(Vector(1, 1, 1), 3);
    image.setChannelNames(rgb);
    return image;
}

// A one-voxel image per call is too slow for many values: processPixel is public, so the per-voxel
// function is tested directly, and the filter's walk separately.
struct Unmixer
{
    Nuvek::MemoryImage image = namedImage();
    ChannelBank bank{&image};
    ColorUnmixingFilter filter{&bank, rgb};
};

// Channel values as a colour image delivers them: 8-bit integers mostly, fractions, values outside
// [0, 256] and NaN and infinities.
double randomChannelValue(std::mt19937_64& random)
{
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<int> integer(-2, 258);
    std::uniform_real_distribution<double> real(-10.0, 300.0);
    switch (kind(random))
    {
    case 0:
        return std::nan("");
    case 1:
        return kind(random) < 5 ? INFINITY : -INFINITY;
    case 2:
    case 3:
        return real(random);
    case 4:
        return std::nextafter(static_cast<double>(integer(random)), kind(random) < 5 ? 0.0 : 1000.0);
    default:
        return static_cast<double>(integer(random));
    }
}

// An image of three channels named R, G and B, of random channel values.
Nuvek::MemoryImage randomColourImage(std::mt19937_64& random, Vector const& extent)
{
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * 3));
    for (double& value : values)
        value = randomChannelValue(random);
    Nuvek::MemoryImage image(extent, 3, values);
    image.setChannelNames(rgb);
    return image;
}

std::string messageOfChannelName(ColorUnmixingFilter& filter, long long index)
{
    return NuvekTest::messageOf([&] { filter.getChannelName(index); });
}

} // namespace

TEST(ColorUnmixingFilter, OpticalDensityOfSingleValues)
{
    Unmixer unmixer;
    // Before the first reinit the weights are empty.
    EXPECT_EQ(NuvekTest::bitsOf(unmixer.filter.processPixel({3, 4, 5})), NuvekTest::bitsOf(0.0));
    // Full transmission: no density.
    unmixer.filter.reinit({1, 0, 0});
    EXPECT_EQ(unmixer.filter.processPixel({256, 17, 200}), 0.0);
    // A tenth transmitted: density 1, amount 0.9.
    unmixer.filter.reinit({1});
    EXPECT_EQ(unmixer.filter.processPixel({25.6, 1000, -3}), 0.9);
    // Values below 1, and NaN, count as 1: the largest density, log10(256).
    double const darkest = 1.0 - 1.0 / 256.0;
    for (double value : {0.0, 1.0, 0.5, -0.0, -40.0, -HUGE_VAL, std::nan("")})
        EXPECT_DOUBLE_EQ(unmixer.filter.processPixel({value}), darkest) << value;
    // Above full transmission the density is negative and the amount clamps to 0.
    EXPECT_EQ(NuvekTest::bitsOf(unmixer.filter.processPixel({300})), NuvekTest::bitsOf(0.0));
    EXPECT_EQ(NuvekTest::bitsOf(unmixer.filter.processPixel({INFINITY})), NuvekTest::bitsOf(0.0));
    // No weights: no density.
    unmixer.filter.reinit({});
    EXPECT_EQ(NuvekTest::bitsOf(unmixer.filter.processPixel({})), NuvekTest::bitsOf(0.0));
}

TEST(ColorUnmixingFilter, ProcessPixelMatchesReferenceOnIntegersFractionsAndSpecials)
{
    std::mt19937_64 random(101);
    Unmixer unmixer;
    std::uniform_real_distribution<double> weight(-2.0, 2.0);
    for (int round = 0; round < 400; ++round)
    {
        std::vector<double> weights{weight(random), weight(random), weight(random)};
        if (round % 40 == 0)
            weights[static_cast<std::size_t>(round / 40 % 3)] = round % 80 == 0 ? INFINITY : std::nan("");
        weights.resize(static_cast<std::size_t>(round % 4));
        unmixer.filter.reinit(weights);
        for (int voxel = 0; voxel < 200; ++voxel)
        {
            std::vector<double> const values{randomChannelValue(random), randomChannelValue(random),
                                             randomChannelValue(random)};
            double const expected = NuvekReference::unmix(values, weights);
            double const actual = unmixer.filter.processPixel(values);
            ASSERT_EQ(NuvekTest::bitsOf(expected), NuvekTest::bitsOf(actual))
                << "round " << round << " values " << hex(values[0]) << " " << hex(values[1]) << " " << hex(values[2])
                << ": expected " << hex(expected) << ", found " << hex(actual);
        }
    }
    // Every integer channel value, alone.
    unmixer.filter.reinit({0.75});
    for (int value = -1; value <= 300; ++value)
        ASSERT_EQ(NuvekTest::bitsOf(NuvekReference::unmix({double(value)}, {0.75})),
                  NuvekTest::bitsOf(unmixer.filter.processPixel({double(value)})))
            << value;
}

TEST(ColorUnmixingFilter, MoreWeightsThanValuesAreRejected)
{
    Unmixer unmixer;
    unmixer.filter.reinit({1, 1, 1, 1});
    try
    {
        unmixer.filter.processPixel({1, 2, 3});
        FAIL() << "nothing thrown";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "ColorUnmixingFilter: 4 weights but only 3 channel values.");
    }
    // The filter reads three channels, so openRegion fails the same way.
    std::vector<double> out(1);
    EXPECT_THROW(unmixer.filter.openRegion(out.data(), 0, Box(Vector(1, 1, 1))), std::runtime_error);
}

TEST(ColorUnmixingFilter, ChannelNameRangeAndChannelCount)
{
    Unmixer unmixer;
    EXPECT_EQ(unmixer.filter.getChannelName(0), "");
    EXPECT_EQ(messageOfChannelName(unmixer.filter, 1), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(messageOfChannelName(unmixer.filter, -1), "Invalid channel index. Cannot determine its name.");
    EXPECT_EQ(unmixer.filter.getValueRange().min, 0.0);
    EXPECT_EQ(unmixer.filter.getValueRange().max, 1.0);
    EXPECT_EQ(unmixer.filter.getNumChannels(), 1);
    EXPECT_EQ(unmixer.filter.getChannelSelection(), rgb);
}

TEST(ColorUnmixingFilter, EveryReinitRaisesTheHashByOne)
{
    auto image = std::make_shared<Nuvek::MemoryImage>(Vector(2, 2, 1), 3);
    image->setChannelNames(rgb);
    NuvekTest::RecordingImage recording(image);
    ChannelBank bank(&recording);
    ColorUnmixingFilter filter(&bank, rgb);
    std::uint64_t const first = filter.getHash();
    EXPECT_EQ(filter.getHash(), first);
    filter.reinit({1, 0, 0});
    EXPECT_EQ(filter.getHash(), first + 1);
    // The same weights again still count as a change.
    filter.reinit({1, 0, 0});
    filter.reinit({1, 0, 0});
    EXPECT_EQ(filter.getHash(), first + 3);
    // A reinit and a change of the image in one interval are two steps.
    filter.reinit({0, 1, 0});
    recording.touch();
    EXPECT_EQ(filter.getHash(), first + 5);
    EXPECT_EQ(filter.getHash(), first + 5);
}

TEST(ColorUnmixingFilter, FilterMatchesReferenceOnRandomBoxes)
{
    std::mt19937_64 random(102);
    Matrix const colors{{70, 60, 160}, {230, 110, 170}, {150, 110, 60}};
    Matrix const matrix = ColorUnmixingFilter::computeMatrixFromColors(colors);
    for (int round = 0; round < 30; ++round)
    {
        Vector const extent(6 + round % 11, 5 + (round * 3) % 13, 1 + round % 3);
        std::vector<double> values(static_cast<std::size_t>(extent.prod() * 3));
        for (double& value : values)
            value = randomChannelValue(random);
        auto image = std::make_shared<Nuvek::MemoryImage>(extent, 3, values);
        image->setChannelNames({"B", "G", "R"});
        ChannelBank bank(image.get());
        ColorUnmixingFilter filter(&bank, rgb);
        std::vector<double> const& weights = matrix[static_cast<std::size_t>(round) % 3];
        filter.reinit(weights);

        long long const level = round % 3;
        Box const box = NuvekTest::randomBox(random, image->getExtent(level), 14, 3);
        std::vector<double> const all = openWhole(*image, level, box);
        std::vector<std::vector<double>> planes;
        for (long long channel : {2, 1, 0})
            planes.emplace_back(all.begin() + channel * box.getSize(), all.begin() + (channel + 1) * box.getSize());
        std::vector<double> const expected = NuvekReference::processRegion(
            planes, box, image->getExtent(level),
            [&weights](std::vector<double> const& v) { return NuvekReference::unmix(v, weights); });
        EXPECT_TRUE(
            NuvekTest::sameBits(expected, openWhole(filter, level, box), box, "round " + std::to_string(round)));
    }
}

TEST(ColorUnmixingFilter, TilesOnSeveralThreadsAgreeWithOneLargeRequest)
{
    std::mt19937_64 random(103);
    Vector const extent(61, 47, 1);
    Nuvek::MemoryImage image = randomColourImage(random, extent);
    ChannelBank bank(&image);
    ColorUnmixingFilter filter(&bank, {"G", "R"});
    filter.reinit({0.4, 1.3});
    Box const box(Vector(-4, -2, 0), Vector(63, 50, 0));
    std::vector<double> const whole = openWhole(filter, 0, box);
    EXPECT_TRUE(NuvekTest::sameBits(whole, NuvekTest::openTiled(filter, 0, box, {5, 30, 59}, {-1, 20, 44}, 4), box));
}

// Rows are computed a block of voxels at a time: rows longer than a block, blocks cut short at the
// image's edge, weights of every kind and fewer weights than channels.
TEST(ColorUnmixingFilter, LongRowsMatchTheReferenceForAnyWeights)
{
    std::mt19937_64 random(105);
    Vector const extent(700, 3, 2);
    Nuvek::MemoryImage image = randomColourImage(random, extent);
    ChannelBank bank(&image);
    ColorUnmixingFilter filter(&bank, {"B", "R", "G"});
    std::uniform_real_distribution<double> weight(-3.0, 3.0);
    Box const box(Vector(-5, -1, 0), Vector(699, 2, 1));
    std::vector<double> const all = openWhole(image, 0, box);
    std::vector<std::vector<double>> planes;
    for (long long channel : {2, 0, 1})
        planes.emplace_back(all.begin() + channel * box.getSize(), all.begin() + (channel + 1) * box.getSize());
    for (int round = 0; round < 8; ++round)
    {
        std::vector<double> weights{weight(random), weight(random), weight(random)};
        if (round == 5)
            weights = {INFINITY, 0.5, -1.0};
        if (round == 6)
            weights = {0.5, std::nan(""), 1.0};
        weights.resize(static_cast<std::size_t>(3 - round % 4));
        filter.reinit(weights);
        std::vector<double> const expected =
            NuvekReference::processRegion(planes, box, extent, [&weights](std::vector<double> const& v) {
                return NuvekReference::unmix(v, weights);
            });
        EXPECT_TRUE(NuvekTest::sameBits(expected, openWhole(filter, 0, box), box, "round " + std::to_string(round)));
    }
}

namespace {

// A subclass with a processPixel of its own: the rows must call it rather than compute unmixing.
class HalvingUnmixingFilter : public ColorUnmixingFilter
{
public:
    using ColorUnmixingFilter::ColorUnmixingFilter;

    double processPixel(std::vector<double> const& values) const override
    {
        return ColorUnmixingFilter::processPixel(values) * 0.5 - 1.0;
    }
};

} // namespace

TEST(ColorUnmixingFilter, SubclassProcessPixelIsCalledForEveryVoxel)
{
    std::mt19937_64 random(106);
    Vector const extent(300, 2, 1);
    Nuvek::MemoryImage image = randomColourImage(random, extent);
    ChannelBank bank(&image);
    HalvingUnmixingFilter halving(&bank, rgb);
    ColorUnmixingFilter plain(&bank, rgb);
    halving.reinit({0.7, -0.2, 1.1});
    plain.reinit({0.7, -0.2, 1.1});
    Box const box(extent);
    std::vector<double> const halved = openWhole(halving, 0, box);
    std::vector<double> const unmixed = openWhole(plain, 0, box);
    for (std::size_t i = 0; i < halved.size(); ++i)
        ASSERT_EQ(NuvekTest::bitsOf(halved[i]), NuvekTest::bitsOf(unmixed[i] * 0.5 - 1.0)) << i;
}

TEST(ColorUnmixingFilter, MatrixOfOrthonormalDensitiesIsTheIdentityAndOfNoDensityNaN)
{
    Matrix const matrix =
        ColorUnmixingFilter::computeMatrixFromColors({{25.6, 256, 256}, {256, 25.6, 256}, {256, 256, 25.6}});
    EXPECT_EQ(matrix, (Matrix{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
    // A colour of full transmission has no density to scale to unit length: 0 / 0.
    for (auto const& row : ColorUnmixingFilter::computeMatrixFromColors({{256, 256, 256}, {25.6, 256, 256}}))
        for (double value : row)
            EXPECT_TRUE(std::isnan(value));
    EXPECT_TRUE(ColorUnmixingFilter::computeMatrixFromColors({}).empty());
}

TEST(ColorUnmixingFilter, MatrixMatchesReferenceOnRandomColours)
{
    std::mt19937_64 random(104);
    for (int round = 0; round < 100; ++round)
    {
        std::size_t const numColors = 1 + static_cast<std::size_t>(round % 3);
        std::size_t const components = numColors + static_cast<std::size_t>(round / 3 % 2);
        Matrix colors(numColors, std::vector<double>(components));
        for (auto& color : colors)
            for (double& value : color)
                value = randomChannelValue(random);
        Matrix const expected = NuvekReference::matrixFromColors(colors);
        Matrix const actual = ColorUnmixingFilter::computeMatrixFromColors(colors);
        ASSERT_EQ(expected.size(), actual.size()) << "round " << round;
        for (std::size_t i = 0; i < expected.size(); ++i)
            for (std::size_t j = 0; j < expected[i].size(); ++j)
                // Any NaN matches any NaN: which of two meeting NaNs an operation passes on is not fixed.
                EXPECT_TRUE(NuvekTest::bitsOf(expected[i][j]) == NuvekTest::bitsOf(actual[i][j]) ||
                            (std::isnan(expected[i][j]) && std::isnan(actual[i][j])))
                    << "round " << round << " [" << i << "][" << j << "]: expected " << hex(expected[i][j])
                    << ", found " << hex(actual[i][j]);
    }
}

TEST(ColorUnmixingFilter, UnmixingRecoversTheAmountsOfAMixture)
{
    // Three reference colours and a mixture of them by transmission: colour k at amount a_k
    // multiplies the transmitted share of each component by (colour_k / 256)^a_k.
    Matrix const colors{{70, 60, 160}, {230, 110, 170}, {150, 110, 60}};
    Matrix const matrix = ColorUnmixingFilter::computeMatrixFromColors(colors);
    std::vector<double> lengths;
    for (auto const& color : colors)
    {
        double squares = 0.0;
        for (double value : color)
            squares += NuvekReference::opticalDensity(value) * NuvekReference::opticalDensity(value);
        lengths.push_back(std::sqrt(squares));
    }
    Unmixer unmixer;
    for (std::vector<double> const& amounts :
         {std::vector<double>{0.5, 0.2, 0.0}, std::vector<double>{0.0, 1.0, 0.3}, std::vector<double>{0.1, 0.1, 0.7}})
    {
        std::vector<double> mixture(3);
        for (std::size_t c = 0; c < 3; ++c)
        {
            double density = 0.0;
            for (std::size_t k = 0; k < 3; ++k)
                density += amounts[k] * NuvekReference::opticalDensity(colors[k][c]);
            mixture[c] = 256.0 * std::pow(10.0, -density);
        }
        for (std::size_t k = 0; k < 3; ++k)
        {
            unmixer.filter.reinit(matrix[k]);
            // Weights from unit-length densities: colour k's density sum is a_k times its length.
            double const expected = 1.0 - std::pow(10.0, -amounts[k] * lengths[k]);
            EXPECT_NEAR(unmixer.filter.processPixel(mixture), expected, 1e-12) << "colour " << k;
        }
    }
}
