// Colour: matrices against their definitions (a sum over permutations, A x inverse(A) = I), unmixing against optical densities, the pixel walk, and the fast absorptance against pow.
#include "filters/internal/Absorptance.h"
#include "reference/ColourReference.h"
#include "support/NuvekTest.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using Nuvek::calcMatrixDet;
using Nuvek::calcMinorMatrix;
using Nuvek::invertMatrix;
using Nuvek::multMatrix;
using Nuvek::transposeMatrix;
using Matrix = std::vector<std::vector<double>>;
using Nuvek::Box;
using Nuvek::ChannelBank;
using Nuvek::ColorUnmixingFilter;
using Nuvek::Vector;
using namespace NuvekTest;

namespace {

// Bit for bit, except that any NaN matches any NaN: where two NaNs meet, which one an addition or
// multiplication passes on is not fixed, and the compiler may swap the operands of either.
bool sameValue(double expected, double actual)
{
    return NuvekTest::bitsOf(expected) == NuvekTest::bitsOf(actual) || (std::isnan(expected) && std::isnan(actual));
}

::testing::AssertionResult sameEntries(Matrix const& expected, Matrix const& actual)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure() << expected.size() << " rows expected, " << actual.size() << " found";
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        if (expected[i].size() != actual[i].size())
            return ::testing::AssertionFailure() << "row " << i << ": " << expected[i].size() << " entries expected, "
                                                 << actual[i].size() << " found";
        for (std::size_t j = 0; j < expected[i].size(); ++j)
            if (!sameValue(expected[i][j], actual[i][j]))
                return ::testing::AssertionFailure()
                       << "difference at [" << i << "][" << j << "]: expected " << NuvekTest::hexfloat(expected[i][j])
                       << ", found " << NuvekTest::hexfloat(actual[i][j]);
    }
    return ::testing::AssertionSuccess();
}

// Entries uniform in [-4, 4), a share of them NaN or infinite when `special` is set.
Matrix randomMatrix(std::mt19937_64& random, std::size_t rows, std::size_t columns, bool special)
{
    std::uniform_real_distribution<double> uniform(-4.0, 4.0);
    std::uniform_int_distribution<int> pick(0, 19);
    Matrix m(rows, std::vector<double>(columns));
    for (auto& row : m)
        for (double& value : row)
        {
            int const kind = special ? pick(random) : 3;
            value = kind == 0 ? std::nan("") : kind == 1 ? INFINITY : kind == 2 ? -INFINITY : uniform(random);
        }
    return m;
}

} // namespace

TEST(Matrix, ProductMatchesReference)
{
    std::mt19937_64 random(81);
    for (int round = 0; round < 200; ++round)
    {
        std::size_t const rows = static_cast<std::size_t>(round % 4), inner = static_cast<std::size_t>(round / 4 % 4),
                          columns = 1 + static_cast<std::size_t>(round / 16 % 4);
        Matrix const a = randomMatrix(random, rows, inner, round % 3 == 0);
        Matrix const b = randomMatrix(random, inner, columns, round % 3 == 0);
        if (rows == 0 && inner > 0)
            continue; // a without rows has no columns either
        EXPECT_TRUE(sameEntries(NuvekReference::multiply(a, b), multMatrix(a, b))) << "round " << round;
    }
    // Rows of no entries times no rows: the rows stay, each with columns(b) = 0 entries.
    EXPECT_EQ(multMatrix({{}, {}}, {}), (Matrix{{}, {}}));
    EXPECT_EQ(multMatrix({{1, 2}, {3, 4}}, {{5, 6}, {7, 8}}), (Matrix{{19, 22}, {43, 50}}));
}

TEST(Matrix, InverseFlipsTheSignBitAtOddPositions)
{
    // The zero cofactors of the identity sit at odd positions and become -0.0.
    Matrix const inverse = invertMatrix({{1, 0}, {0, 1}});
    EXPECT_FALSE(std::signbit(inverse[0][0]));
    EXPECT_TRUE(std::signbit(inverse[0][1]));
    EXPECT_TRUE(std::signbit(inverse[1][0]));
    EXPECT_EQ(inverse[1][1], 1.0);
}

TEST(Matrix, InverseOfOneByOneIsZeroOverTheEntry)
{
    Matrix const inverse = invertMatrix({{2}});
    ASSERT_EQ(inverse.size(), 1u);
    ASSERT_EQ(inverse[0].size(), 1u);
    EXPECT_EQ(NuvekTest::bitsOf(inverse[0][0]), NuvekTest::bitsOf(0.0));
    EXPECT_EQ(NuvekTest::bitsOf(invertMatrix({{-2}})[0][0]), NuvekTest::bitsOf(-0.0));
    EXPECT_TRUE(std::isnan(invertMatrix({{0}})[0][0]));
}

TEST(Matrix, SingularInverseGivesInfinitiesAndNaNWithoutError)
{
    // det is +0.0; every cofactor is positive, so the odd positions become -inf.
    EXPECT_EQ(invertMatrix({{1, 2}, {2, 4}}), (Matrix{{INFINITY, -INFINITY}, {-INFINITY, INFINITY}}));
    Matrix const zero = invertMatrix({{0, 0}, {0, 0}});
    for (auto const& row : zero)
        for (double value : row)
            EXPECT_TRUE(std::isnan(value));
}

TEST(Matrix, DeterminantIsTheSumOverPermutations)
{
    // The definition: the sum over permutations p of sign(p) * prod a[i][p(i)].
    std::mt19937_64 random(82);
    for (int round = 0; round < 100; ++round)
    {
        std::size_t const n = 1 + static_cast<std::size_t>(round % 5);
        Matrix const m = randomMatrix(random, n, n, false);
        std::vector<std::size_t> p(n);
        for (std::size_t i = 0; i < n; ++i)
            p[i] = i;
        double expected = 0.0;
        do
        {
            double term = 1.0;
            int inversions = 0;
            for (std::size_t i = 0; i < n; ++i)
            {
                term *= m[i][p[i]];
                for (std::size_t j = i + 1; j < n; ++j)
                    inversions += p[i] > p[j] ? 1 : 0;
            }
            expected += inversions % 2 == 0 ? term : -term;
        } while (std::next_permutation(p.begin(), p.end()));
        EXPECT_NEAR(calcMatrixDet(m), expected, 1e-9 * (1.0 + std::fabs(expected))) << "round " << round;
    }
    // One term per row: the third column of a 2 x 3 matrix is never used; no rows give 0.
    EXPECT_EQ(calcMatrixDet({{1, 2, 100}, {3, 4, 100}}), -2.0);
    EXPECT_EQ(calcMatrixDet({}), 0.0);
}

TEST(Matrix, MatrixTimesItsInverseIsTheIdentity)
{
    std::mt19937_64 random(83);
    for (int round = 0; round < 100; ++round)
    {
        // From 2 x 2 on: the 1 x 1 inverse is pinned apart as 0 / the entry.
        std::size_t const n = 2 + static_cast<std::size_t>(round % 3);
        Matrix m = randomMatrix(random, n, n, false);
        for (std::size_t i = 0; i < n; ++i)
            m[i][i] += 10.0; // well away from singular
        Matrix const product = multMatrix(m, invertMatrix(m));
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t j = 0; j < n; ++j)
                EXPECT_NEAR(product[i][j], i == j ? 1.0 : 0.0, 1e-12) << "round " << round;
    }
}

TEST(Matrix, BadShapesAreRejectedWithTheStatedMessage)
{
    std::vector<std::pair<std::function<void()>, std::string>> const rows = {
        {[] {
             multMatrix({{1, 2, 3}, {4, 5, 6}}, {{1, 2, 3}, {4, 5, 6}});
         },
         "Matrices have wrong size for multiplication"},
        {[] { multMatrix({}, {{1}}); }, "Matrices have wrong size for multiplication"},
        {[] {
             invertMatrix({{1, 2, 3}, {4, 5, 6}});
         },
         "Matrices must be square for inversion"},
        {[] {
             invertMatrix({{1}, {2}});
         },
         "Matrices must be square for inversion"},
        {[] {
             transposeMatrix({{1, 2}, {3}});
         },
         "transposeMatrix: row 1 of the matrix has 1 entries where 2 are needed."},
        {[] {
             multMatrix({{1, 2}}, {{1, 2}, {3}});
         },
         "multMatrix: row 1 of the second matrix has 1 entries where 2 are needed."},
        {[] {
             calcMatrixDet({{1, 2}, {3}});
         },
         "calcMatrixDet: row 1 of the matrix has 1 entries where 2 are needed."},
        {[] {
             invertMatrix({{1, 2}, {3}});
         },
         "invertMatrix: row 1 of the matrix has 1 entries where 2 are needed."},
        {[] {
             calcMinorMatrix({{1, 2}, {3, 4}}, 2, 0);
         },
         "calcMinorMatrix: row 2 is out of range for a matrix of 2 rows."},
        {[] {
             calcMinorMatrix({{1, 2}, {3}}, 0, 1);
         },
         "calcMinorMatrix: column 1 is out of range for row 1, which has 1 entries."},
        {[] { invertMatrix({}); }, "(nothing thrown)"},
        {[] {
             invertMatrix({{}, {}});
         },
         "(nothing thrown)"},
    };
    for (auto const& [action, message] : rows)
        EXPECT_EQ(messageOf(action), message);
    EXPECT_TRUE(invertMatrix({{}, {}}).empty());
}

namespace {

std::vector<std::string> const rgb{"R", "G", "B"};

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
                << "round " << round << " values " << NuvekTest::hexfloat(values[0]) << " "
                << NuvekTest::hexfloat(values[1]) << " " << NuvekTest::hexfloat(values[2]) << ": expected "
                << NuvekTest::hexfloat(expected) << ", found " << NuvekTest::hexfloat(actual);
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

// Rows are computed a block of voxels at a time: rows longer than a block, blocks cut short at the
// image's edge, weights of every kind and fewer weights than channels.
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

namespace {

std::vector<std::string> const rgbaNames{"Red", "Green", "Blue", "Alpha"};

// Folds the values in selection order, so that order, duplicates and each value show in the result.
double fold(std::vector<double> const& values)
{
    double result = 0.0;
    for (double value : values)
        result = result * 3.0 + value;
    return result;
}

class FoldFilter : public Nuvek::PixelProcessingFilter
{
public:
    using PixelProcessingFilter::PixelProcessingFilter;

    double processPixel(std::vector<double> const& values) const override
    {
        ++calls;
        return fold(values);
    }
    std::string getChannelName(long long) override { return "fold"; }
    void raiseHash() { ++hashCounter; }

    mutable std::atomic<long long> calls{0};
};

std::shared_ptr<Nuvek::MemoryImage> rgbaImage(std::mt19937_64& random, Vector const& extent)
{
    auto image = NuvekTest::randomImage(random, extent, 4, {-50.0, 300.0, 0.03});
    image->setChannelNames(rgbaNames);
    return image;
}

// The selected planes of box, read from the image directly.
std::vector<std::vector<double>> selectedPlanes(Nuvek::Image& image, long long level, Box const& box,
                                                std::vector<std::string> const& names)
{
    std::vector<double> const all = openWhole(image, level, box);
    std::vector<std::vector<double>> planes;
    for (std::string const& name : names)
    {
        long long channel = 0;
        while (image.getChannelName(channel) != name)
            ++channel;
        auto const first = all.begin() + channel * box.getSize();
        planes.emplace_back(first, first + box.getSize());
    }
    return planes;
}

std::string messageOfConstruction(ChannelBank* bank, std::vector<std::string> const& names)
{
    return NuvekTest::messageOf([&] { FoldFilter filter(bank, names); });
}

} // namespace

TEST(FillBuffer, WritesExtentTimesChannelsValuesAndNothingForNonPositiveCounts)
{
    std::vector<double> buffer(30, -1.0);
    Nuvek::fillBuffer(buffer.data(), Vector(2, 3, 2), 2, 0.5);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        EXPECT_EQ(buffer[i], i < 24 ? 0.5 : -1.0) << i;
    std::vector<double> untouched(4, -1.0);
    for (auto const& [extent, channels] : std::vector<std::pair<Vector, long long>>{
             {Vector(2, 2, 1), 0}, {Vector(2, 0, 1), 3}, {Vector(2, -1, 1), 1}, {Vector(2, 2, 1), -1}})
    {
        Nuvek::fillBuffer(untouched.data(), extent, channels, 9.0);
        EXPECT_EQ(untouched, std::vector<double>(4, -1.0)) << extent.x << " " << extent.y << " " << channels;
    }
}

TEST(PixelProcessingFilter, UnknownChannelIsNamedInTheMessage)
{
    Nuvek::MemoryImage image(Vector(2, 2, 1), 4);
    image.setChannelNames(rgbaNames);
    ChannelBank bank(&image);
    EXPECT_EQ(messageOfConstruction(&bank, {"Red", "foo", "bar"}),
              "Cannot instantiate PixelProcessingFilter. No such channel \"foo\"");
    EXPECT_EQ(messageOfConstruction(&bank, {"red"}),
              "Cannot instantiate PixelProcessingFilter. No such channel \"red\"");
    EXPECT_EQ(messageOfConstruction(nullptr, {"Red"}),
              "Cannot instantiate PixelProcessingFilter without a channel bank.");
}

TEST(PixelProcessingFilter, OutsideVoxelsAreZeroAndNeverProcessed)
{
    std::mt19937_64 random(93);
    auto image = rgbaImage(random, Vector(10, 8, 1));
    ChannelBank bank(image.get());
    FoldFilter filter(&bank, {"Red"});

    Box const straddling(Vector(-3, 5, 0), Vector(4, 10, 1));
    std::vector<double> out(static_cast<std::size_t>(straddling.getSize()), -7.0);
    filter.openRegion(out.data(), 0, straddling);
    EXPECT_EQ(filter.calls.load(), straddling.intersected(Box(image->getExtent(0))).getSize());
    std::vector<double> const expected = NuvekReference::processRegion(selectedPlanes(*image, 0, straddling, {"Red"}),
                                                                       straddling, image->getExtent(0), fold);
    EXPECT_TRUE(NuvekTest::sameBits(expected, out, straddling));

    filter.calls = 0;
    Box const beside(Vector(12, 0, 0), Vector(15, 3, 0));
    std::vector<double> zeros(static_cast<std::size_t>(beside.getSize()), -7.0);
    filter.openRegion(zeros.data(), 0, beside);
    EXPECT_EQ(filter.calls.load(), 0);
    EXPECT_TRUE(NuvekTest::sameBits(std::vector<double>(zeros.size(), 0.0), zeros, beside));
}

TEST(PixelProcessingFilter, MatchesReferenceOnRandomBoxesLevelsAndSelections)
{
    std::mt19937_64 random(94);
    std::vector<std::vector<std::string>> const selections{
        {"Red"}, {"Blue", "Green"}, {"Alpha", "Red", "Alpha"}, {"Red", "Green", "Blue", "Alpha"}};
    for (int round = 0; round < 48; ++round)
    {
        Vector const extent(5 + round % 13, 4 + (round * 5) % 17, 1 + round % 3);
        auto image = rgbaImage(random, extent);
        NuvekTest::RecordingImage recording(image);
        ChannelBank bank(&recording);
        std::vector<std::string> const& names = selections[static_cast<std::size_t>(round) % selections.size()];
        FoldFilter filter(&bank, names);
        long long const level = round % 3;
        Vector const levelExtent = image->getExtent(level);
        Box const box = NuvekTest::randomBox(random, levelExtent, 12, 3);

        recording.clearRequests();
        std::vector<double> const actual = openWhole(filter, level, box);
        ASSERT_EQ(recording.requests().size(), 1u);
        EXPECT_EQ(recording.requests()[0].box, box);
        EXPECT_EQ(recording.requests()[0].level, level);

        std::vector<double> const expected =
            NuvekReference::processRegion(selectedPlanes(*image, level, box, names), box, levelExtent, fold);
        EXPECT_TRUE(NuvekTest::sameBits(expected, actual, box, "round " + std::to_string(round)));
    }
}

TEST(PixelProcessingFilter, HashRisesOncePerChangeHoweverManyChannelsChanged)
{
    std::mt19937_64 random(96);
    auto image = rgbaImage(random, Vector(4, 4, 1));
    NuvekTest::RecordingImage recording(image);
    ChannelBank bank(&recording);
    FoldFilter filter(&bank, {"Red", "Green", "Blue"});

    std::uint64_t const first = filter.getHash();
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(filter.getHash(), first);
    // Every channel of the image changes at once: still one step.
    recording.touch();
    EXPECT_EQ(filter.getHash(), first + 1);
    EXPECT_EQ(filter.getHash(), first + 1);
    recording.touch();
    recording.touch();
    EXPECT_EQ(filter.getHash(), first + 2);
    // A subclass's own change adds to the same counter.
    filter.raiseHash();
    EXPECT_EQ(filter.getHash(), first + 3);
    recording.touch();
    filter.raiseHash();
    EXPECT_EQ(filter.getHash(), first + 5);

    // Without channels only the subclass's own changes count.
    FoldFilter none(&bank, {});
    recording.touch();
    EXPECT_EQ(none.getHash(), 0u);
    none.raiseHash();
    EXPECT_EQ(none.getHash(), 1u);
}

namespace {

// Records the first selected value of every voxel it processes, in the order processed.
class OrderFilter : public FoldFilter
{
public:
    using FoldFilter::FoldFilter;

    double processPixel(std::vector<double> const& values) const override
    {
        order.push_back(values[0]);
        return FoldFilter::processPixel(values);
    }

    mutable std::vector<double> order;
};

} // namespace

// A request whose channels would need more than 2^21 values is read in strips of whole rows of the
// image's 256-row tiles, one slice at a time; nothing else changes.
namespace {

// The expression the fast paths stand in for, with the C library's pow.
double reference(double density)
{
    return 1.0 - std::min(1.0, std::pow(10.0, -density));
}

// Densities where mistakes would show: uniform over the range that needs an exponential and where
// half or more of the light passes (there the result keeps every bit of the power), spread over
// many binades, at the powers of two and the table steps of 10^-d, around 16.5, and the special
// values.
std::vector<double> testDensities()
{
    std::mt19937_64 random(111);
    std::uniform_real_distribution<double> wide(-1.0, 17.0);
    std::uniform_real_distribution<double> light(0.0, 0.302);
    std::uniform_real_distribution<double> exponent(-1070.0, 10.0);
    std::vector<double> densities;
    for (int i = 0; i < 600000; ++i)
    {
        densities.push_back(wide(random));
        densities.push_back(light(random));
        densities.push_back(std::exp2(exponent(random)));
    }
    double const log10Of2 = std::log10(2.0);
    std::uniform_int_distribution<int> step(0, 56000);
    for (int m = 0; m <= 56; ++m)
        for (double at : {m * log10Of2, step(random) * log10Of2 / 1024.0})
        {
            double below = at;
            double above = at;
            for (int ulps = 0; ulps < 4; ++ulps)
            {
                densities.push_back(below);
                densities.push_back(above);
                below = std::nextafter(below, 0.0);
                above = std::nextafter(above, 100.0);
            }
        }
    for (double special : {0.0, -0.0, 16.5, std::nextafter(16.5, 0.0), std::nextafter(16.5, 20.0), 16.26, 16.25,
                           DBL_MIN, DBL_TRUE_MIN, DBL_MAX, -DBL_MAX, HUGE_VAL, -HUGE_VAL, std::nan(""), -std::nan("")})
        densities.push_back(special);
    return densities;
}

} // namespace

TEST(Absorptance, EqualsOneMinusPowBitForBit)
{
    for (double density : testDensities())
    {
        double const expected = reference(density);
        double const actual = Nuvek::absorptance(density);
        ASSERT_EQ(NuvekTest::bitsOf(expected), NuvekTest::bitsOf(actual))
            << "density " << NuvekTest::hexfloat(density) << ": expected " << NuvekTest::hexfloat(expected)
            << ", found " << NuvekTest::hexfloat(actual);
    }
}

TEST(Absorptance, BlocksOfEveryLengthEqualOneMinusPowBitForBit)
{
    std::vector<double> const densities = testDensities();
    std::vector<double> out(densities.size(), -7.0);
    // Lengths from 0 to a whole block, so that the padding of short blocks is never copied out.
    std::size_t start = 0;
    for (std::size_t length = 0; start < densities.size(); length = (length + 37) % (Nuvek::absorptanceBlockSize + 1))
    {
        std::size_t const count = std::min(length, densities.size() - start);
        std::fill(out.begin() + static_cast<std::ptrdiff_t>(start + count),
                  out.begin() + static_cast<std::ptrdiff_t>(std::min(densities.size(), start + count + 4)), -7.0);
        Nuvek::absorptanceOfBlock(densities.data() + start, out.data() + start, count);
        for (std::size_t i = start + count; i < std::min(densities.size(), start + count + 4); ++i)
            ASSERT_EQ(out[i], -7.0) << "written past a block of " << count;
        start += count;
    }
    for (std::size_t i = 0; i < densities.size(); ++i)
    {
        double const expected = reference(densities[i]);
        ASSERT_EQ(NuvekTest::bitsOf(expected), NuvekTest::bitsOf(out[i]))
            << "density " << NuvekTest::hexfloat(densities[i]) << ": expected " << NuvekTest::hexfloat(expected)
            << ", found " << NuvekTest::hexfloat(out[i]);
    }
}

TEST(Absorptance, SelfCheckAcceptsThisPlatformsPowAndRefusesOneOffByAUnit)
{
    // The C library's pow stays within the 0.53 units the fast exponential relies on.
    EXPECT_TRUE(
        Nuvek::fastExponentialAgreesWith([](double base, double exponent) { return std::pow(base, exponent); }));
    EXPECT_TRUE(Nuvek::fastExponentialIsUsed());
    // A pow one unit off for densities from 0.1 to 0.11, where every bit of the power reaches the
    // result, and one a unit off at one density in 256 (by its bits) anywhere.
    EXPECT_FALSE(Nuvek::fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return exponent <= -0.1 && exponent >= -0.11 ? std::nextafter(power, 2.0) : power;
    }));
    EXPECT_FALSE(Nuvek::fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return (NuvekTest::bitsOf(exponent) & 0xFF) == 0x5A ? std::nextafter(power, 0.0) : power;
    }));
}

TEST(Absorptance, WithoutTheFastExponentialBlocksGivePowsBits)
{
    std::vector<double> const densities = testDensities();
    for (bool fast : {false, true})
    {
        std::vector<double> out(densities.size(), -7.0);
        for (std::size_t start = 0; start < densities.size(); start += Nuvek::absorptanceBlockSize)
        {
            std::size_t const count = std::min(Nuvek::absorptanceBlockSize, densities.size() - start);
            Nuvek::absorptanceOfBlockUsing(fast, densities.data() + start, out.data() + start, count);
        }
        for (std::size_t i = 0; i < densities.size(); ++i)
            ASSERT_EQ(NuvekTest::bitsOf(reference(densities[i])), NuvekTest::bitsOf(out[i]))
                << (fast ? "fast" : "pow") << " density " << NuvekTest::hexfloat(densities[i]);
    }
}
