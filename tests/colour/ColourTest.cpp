// Colour: matrices against their definitions (a sum over permutations, A x inverse(A) = I), unmixing
// against optical densities, the pixel walk, and the fast absorptance against pow.
#include "filters/internal/Absorptance.h"
#include "reference/ColourReference.h"
#include "support/NuvekTest.h"

#include <algorithm>
#include <atomic>
#include <cfloat>

using namespace Nuvek;
using namespace NuvekTest;
using Matrix = std::vector<std::vector<double>>;

namespace {

// The bits of the entries row by row, each row led by its length; any NaN stands for every NaN.
std::vector<std::uint64_t> entries(Matrix const& m)
{
    std::vector<std::uint64_t> bits;
    for (auto const& row : m)
    {
        bits.push_back(row.size());
        for (double value : row)
            bits.push_back(bitsOf(std::isnan(value) ? NaN : value));
    }
    return bits;
}

// Entries uniform in [-4, 4), one in ten of them NaN or infinite when `special` is set.
Matrix randomMatrix(std::mt19937_64& random, std::size_t rows, std::size_t columns, bool special)
{
    Matrix m(rows);
    for (auto& row : m)
        row = randomValues(random, static_cast<long long>(columns), {-4.0, 4.0, special ? 0.03 : 0.0});
    return m;
}

std::vector<std::string> const rgb{"R", "G", "B"};

// Channel values as a colour image delivers them: mostly 8-bit integers, some a unit off them,
// fractions, values outside [0, 256], NaN and infinities.
double randomChannelValue(std::mt19937_64& random)
{
    std::uniform_int_distribution<int> kind(0, 9), integer(-2, 258);
    int const k = kind(random);
    double const whole = static_cast<double>(integer(random));
    return k == 0   ? randomValues(random, 1, {0.0, 1.0, 1.0 / 3.0})[0]
           : k == 1 ? std::uniform_real_distribution<double>(-10.0, 300.0)(random)
           : k == 2 ? std::nextafter(whole, kind(random) < 5 ? 0.0 : 1000.0)
                    : whole;
}

// A subclass with a processPixel of its own: the rows must call it rather than compute unmixing.
struct HalvingUnmixingFilter : ColorUnmixingFilter
{
    using ColorUnmixingFilter::ColorUnmixingFilter;
    double processPixel(std::vector<double> const& values) const override
    {
        return ColorUnmixingFilter::processPixel(values) * 0.5 - 1.0;
    }
};

// Folds the values in selection order, so that order, duplicates and each value show in the result.
double fold(std::vector<double> const& values)
{
    double result = 0.0;
    for (double value : values)
        result = result * 3.0 + value;
    return result;
}

struct FoldFilter : PixelProcessingFilter
{
    using PixelProcessingFilter::PixelProcessingFilter;
    double processPixel(std::vector<double> const& values) const override
    {
        ++calls;
        return fold(values);
    }
    std::string getChannelName(long long) override { return "fold"; }

    mutable std::atomic<long long> calls{0};
};

// The expression the fast paths stand in for, with the C library's pow.
double reference(double density)
{
    return 1.0 - std::min(1.0, std::pow(10.0, -density));
}

// Densities where mistakes would show: uniform over the range that needs an exponential and where
// half or more of the light passes, spread over many binades, a few units around the powers of two
// and the table steps of 10^-d, around 16.5, and the special values.
std::vector<double> testDensities()
{
    std::mt19937_64 random(111);
    std::uniform_real_distribution<double> wide(-1.0, 17.0), light(0.0, 0.302), exponent(-1070.0, 10.0);
    std::vector<double> densities;
    for (int i = 0; i < 600000; ++i)
        densities.insert(densities.end(), {wide(random), light(random), std::exp2(exponent(random))});
    double const log10Of2 = std::log10(2.0);
    for (int m = 0; m <= 56; ++m)
        for (double at : {m * log10Of2, std::uniform_int_distribution<int>(0, 56000)(random) * log10Of2 / 1024.0})
        {
            double below = at, above = at;
            for (int ulps = 0; ulps < 4;
                 ++ulps, below = std::nextafter(below, 0.0), above = std::nextafter(above, 100.0))
                densities.insert(densities.end(), {below, above});
        }
    for (double special : {0.0, -0.0, 16.5, std::nextafter(16.5, 0.0), std::nextafter(16.5, 20.0), 16.26, 16.25,
                           DBL_MIN, DBL_TRUE_MIN, DBL_MAX, -DBL_MAX, inf, -inf, NaN, -NaN})
        densities.push_back(special);
    return densities;
}

} // namespace

TEST(Matrix, ProductIsTheSumOfRowTimesColumn)
{
    std::mt19937_64 random(81);
    for (std::size_t round = 0; round < 200; ++round)
    {
        std::size_t const rows = 1 + round % 3, inner = round / 4 % 4, columns = 1 + round / 16 % 4;
        Matrix const a = randomMatrix(random, rows, inner, round % 3 == 0);
        Matrix const b = randomMatrix(random, inner, columns, round % 3 == 0);
        Matrix expected(rows, std::vector<double>(inner == 0 ? 0 : columns, 0.0));
        for (std::size_t i = 0; i < expected.size(); ++i)
            for (std::size_t j = 0; j < expected[i].size(); ++j)
                for (std::size_t k = 0; k < inner; ++k)
                    expected[i][j] = expected[i][j] + a[i][k] * b[k][j];
        EXPECT_EQ(entries(expected), entries(multMatrix(a, b))) << "round " << round;
    }
}

TEST(Matrix, DeterminantIsTheSumOverPermutationsAndMatrixTimesItsInverseIsTheIdentity)
{
    std::mt19937_64 random(82);
    for (int round = 0; round < 100; ++round)
    {
        std::size_t const n = 1 + static_cast<std::size_t>(round % 5);
        Matrix m = randomMatrix(random, n, n, false);
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
        // From 2 x 2 on (the 1 x 1 inverse is pinned apart as 0 / a), well away from singular.
        for (std::size_t i = 0; i < n && n > 1; ++i)
            m[i][i] += 10.0;
        Matrix const product = multMatrix(m, invertMatrix(m));
        for (std::size_t i = 0; i < n && n > 1; ++i)
            for (std::size_t j = 0; j < n; ++j)
                EXPECT_NEAR(product[i][j], i == j ? 1.0 : 0.0, 1e-12) << "round " << round;
    }
    // One term per row: the third column of a 2 x 3 matrix is never used; no rows give 0.
    EXPECT_EQ(calcMatrixDet({{1, 2, 100}, {3, 4, 100}}), -2.0);
    EXPECT_EQ(calcMatrixDet({}), 0.0);
}

TEST(Matrix, InverseAndEmptyShapeOddities)
{
    // Zero cofactors at odd positions become -0.0; a 1 x 1 matrix has the inverse 0 / a.
    EXPECT_EQ(entries(invertMatrix({{1, 0}, {0, 1}})), entries({{1.0, -0.0}, {-0.0, 1.0}}));
    EXPECT_EQ(entries(invertMatrix({{2}})), entries({{0.0}}));
    EXPECT_EQ(entries(invertMatrix({{-2}})), entries({{-0.0}}));
    EXPECT_EQ(entries(invertMatrix({{0}})), entries({{NaN}}));
    // Singular: det is +0.0, so infinities where the cofactor is not 0, NaN where it is; no error.
    EXPECT_EQ(entries(invertMatrix({{1, 2}, {2, 4}})), entries({{inf, -inf}, {-inf, inf}}));
    EXPECT_EQ(entries(invertMatrix({{0, 0}, {0, 0}})), entries({{NaN, NaN}, {NaN, NaN}}));
    // Rows of no entries times no rows: the rows stay, each empty; a matrix of empty rows has no inverse rows.
    EXPECT_EQ(multMatrix({{}, {}}, {}), (Matrix{{}, {}}));
    EXPECT_TRUE(invertMatrix({{}, {}}).empty());
    EXPECT_TRUE(invertMatrix({}).empty());
}

TEST(Matrix, BadShapesAreRejectedWithTheStatedMessage)
{
    std::string const product = "Matrices have wrong size for multiplication";
    std::string const square = "Matrices must be square for inversion";
    auto const ragged = [](std::string const& function, std::string const& matrix = "the matrix") {
        return function + ": row 1 of " + matrix + " has 1 entries where 2 are needed.";
    };
    EXPECT_EQ(messageOf([] { multMatrix({{1, 2, 3}, {4, 5, 6}}, {{1, 2, 3}, {4, 5, 6}}); }), product);
    EXPECT_EQ(messageOf([] { multMatrix({}, {{1}}); }), product);
    EXPECT_EQ(messageOf([] { invertMatrix({{1, 2, 3}, {4, 5, 6}}); }), square);
    EXPECT_EQ(messageOf([] { invertMatrix({{1}, {2}}); }), square);
    EXPECT_EQ(messageOf([] { transposeMatrix({{1, 2}, {3}}); }), ragged("transposeMatrix"));
    EXPECT_EQ(messageOf([] { multMatrix({{1, 2}}, {{1, 2}, {3}}); }), ragged("multMatrix", "the second matrix"));
    EXPECT_EQ(messageOf([] { calcMatrixDet({{1, 2}, {3}}); }), ragged("calcMatrixDet"));
    EXPECT_EQ(messageOf([] { invertMatrix({{1, 2}, {3}}); }), ragged("invertMatrix"));
    EXPECT_EQ(messageOf([] {
                  calcMinorMatrix({{1, 2}, {3, 4}}, 2, 0);
              }),
              "calcMinorMatrix: row 2 is out of range for a matrix of 2 rows.");
    EXPECT_EQ(messageOf([] {
                  calcMinorMatrix({{1, 2}, {3}}, 0, 1);
              }),
              "calcMinorMatrix: column 1 is out of range for row 1, which has 1 entries.");
}

TEST(ColorUnmixingFilter, MatchesTheDefinitionWithChannelsFoundByName)
{
    std::unique_ptr<ChannelBank> bank;
    std::vector<double> weights;
    Matrix const matrix =
        ColorUnmixingFilter::computeMatrixFromColors({{70, 60, 160}, {230, 110, 170}, {150, 110, 60}});
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            static_cast<MemoryImage*>(input)->setChannelNames({"B", "G", "R"});
            bank = std::make_unique<ChannelBank>(input);
            weights = matrix[static_cast<std::size_t>(draw.integer(0, 2, "row"))];
            if (draw.flip("random"))
                weights = {draw.number(-2, 2, "w0"), draw.number(-2, 2, "w1"), draw.number(-2, 2, "w2")};
            if (draw.integer(0, 5, "special") == 0)
                weights[static_cast<std::size_t>(draw.integer(0, 2, "at"))] = draw.flip("NaN") ? NaN : inf;
            weights.resize(static_cast<std::size_t>(draw.integer(0, 3, "weights")));
            auto filter = std::make_unique<ColorUnmixingFilter>(bank.get(), rgb);
            filter->reinit(weights);
            return filter;
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::processRegion(input, level, box, {2, 1, 0}, [&](std::vector<double> const& v) {
                return NuvekReference::unmix(v, weights);
            });
        },
        HarnessOptions(80, 102).channels({3}).shape([](std::vector<double>& values, std::mt19937_64& random) {
            for (double& value : values)
                value = randomChannelValue(random);
        }));
}

TEST(ColorUnmixingFilter, SubclassProcessPixelIsCalledForEveryVoxelOfRowsLongerThanABlock)
{
    std::mt19937_64 random(106);
    Vector const extent(300, 2, 1);
    auto image = randomImage(random, extent, 3, {-10.0, 300.0, 0.03});
    image->setChannelNames(rgb);
    ChannelBank bank(image.get());
    HalvingUnmixingFilter halving(&bank, rgb);
    ColorUnmixingFilter plain(&bank, rgb);
    halving.reinit({0.7, -0.2, 1.1});
    plain.reinit({0.7, -0.2, 1.1});
    std::vector<double> const halved = openWhole(halving, 0, Box(extent));
    std::vector<double> const unmixed = openWhole(plain, 0, Box(extent));
    for (std::size_t i = 0; i < halved.size(); ++i)
        ASSERT_TRUE(sameValue(unmixed[i] * 0.5 - 1.0, halved[i])) << i;
}

TEST(ColorUnmixingFilter, MatrixFromColoursRecoversTheAmountsOfAMixture)
{
    // Orthonormal densities give the identity; a colour of full transmission has no density to
    // scale to unit length: 0 / 0.
    EXPECT_EQ(ColorUnmixingFilter::computeMatrixFromColors({{25.6, 256, 256}, {256, 25.6, 256}, {256, 256, 25.6}}),
              (Matrix{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
    EXPECT_EQ(entries(ColorUnmixingFilter::computeMatrixFromColors({{256, 256, 256}, {25.6, 256, 256}})),
              entries({{NaN, NaN, NaN}, {NaN, NaN, NaN}}));
    EXPECT_TRUE(ColorUnmixingFilter::computeMatrixFromColors({}).empty());
    // A mixture by transmission: colour k at amount a_k multiplies the transmitted share of each
    // component by (colour_k / 256)^a_k. The weights come from unit-length densities, so colour k's
    // weighted density sum is a_k times its density's length.
    Matrix const colors{{70, 60, 160}, {230, 110, 170}, {150, 110, 60}};
    Matrix const matrix = ColorUnmixingFilter::computeMatrixFromColors(colors);
    MemoryImage image(Vector(1, 1, 1), 3);
    image.setChannelNames(rgb);
    ChannelBank bank(&image);
    ColorUnmixingFilter unmixer(&bank, rgb);
    for (std::vector<double> const& amounts : Matrix{{0.5, 0.2, 0.0}, {0.0, 1.0, 0.3}, {0.1, 0.1, 0.7}})
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
            double squares = 0.0;
            for (double value : colors[k])
                squares += std::pow(NuvekReference::opticalDensity(value), 2.0);
            unmixer.reinit(matrix[k]);
            EXPECT_NEAR(unmixer.processPixel(mixture), 1.0 - std::pow(10.0, -amounts[k] * std::sqrt(squares)), 1e-12)
                << "colour " << k;
        }
    }
}

TEST(PixelProcessingFilter,
     MatchesTheWalkOverSelectedChannelsInStripsOfTileRowsProcessesNoOutsideVoxelAndFillsOnlyPositiveCounts)
{
    std::unique_ptr<ChannelBank> bank;
    std::vector<long long> selection;
    expectMatchesReference(
        [&](Image* input, Draw& draw) {
            bank = std::make_unique<ChannelBank>(input);
            selection.clear();
            std::vector<std::string> names;
            for (long long k = draw.integer(0, 4, "count"); k > 0; --k)
            {
                selection.push_back(draw.integer(0, input->getNumChannels() - 1, "channel"));
                names.push_back(input->getChannelName(selection.back()));
            }
            auto filter = std::make_unique<FoldFilter>(bank.get(), names);
            openWhole(*filter, 0, draw.box);
            // Without channels the voxels are 0.0 without a call.
            EXPECT_EQ(filter->calls.load(),
                      names.empty() ? 0 : draw.box.intersected(Box(input->getExtent(0))).getSize());
            return filter;
        },
        [&](Image& input, long long level, Box const& box) {
            return NuvekReference::processRegion(input, level, box, selection, fold);
        },
        HarnessOptions(60, 94).mix({-50.0, 300.0, 0.03}));

    MemoryImage image(Vector(2, 2, 1), 2);
    ChannelBank named(&image);
    std::string const cannot = "Cannot instantiate PixelProcessingFilter";
    EXPECT_EQ(messageOf([&] {
                  FoldFilter filter(&named, {"Channel 1", "foo", "bar"});
              }),
              cannot + ". No such channel \"foo\"");
    EXPECT_EQ(messageOf([&] { FoldFilter filter(&named, {"channel 1"}); }), cannot + ". No such channel \"channel 1\"");
    EXPECT_EQ(messageOf([] { FoldFilter filter(nullptr, {"Channel 1"}); }), cannot + " without a channel bank.");
    std::vector<double> buffer(30, -1.0);
    fillBuffer(buffer.data(), Vector(2, 3, 2), 2, 0.5);
    fillBuffer(buffer.data(), Vector(2, 2, 1), 0, 9.0);
    fillBuffer(buffer.data(), Vector(2, 0, 1), 3, 9.0);
    fillBuffer(buffer.data(), Vector(2, -1, 1), 1, 9.0);
    fillBuffer(buffer.data(), Vector(2, 2, 1), -1, 9.0);
    std::vector<double> expected(24, 0.5);
    expected.resize(30, -1.0);
    EXPECT_EQ(buffer, expected);
    // 804 x 706 voxels of four channels are more than 2^21 values; two rows of 256-row tiles are not.
    RecordingImage recording(std::make_shared<MemoryImage>(Vector(800, 700, 2), 4));
    ChannelBank large(&recording);
    FoldFilter strip(&large, {"Channel 0", "Channel 3", "Channel 1", "Channel 2"});
    openWhole(strip, 0, Box(Vector(-3, -5, 0), Vector(800, 700, 1)));
    std::string strips;
    for (Request const& r : recording.requests())
        strips += std::to_string(r.box.min.y) + "," + std::to_string(r.box.max.y) + " ";
    EXPECT_EQ(strips, "-5,-1 0,511 512,700 -5,-1 0,511 512,700 ");
}

TEST(PixelProcessingFilter, HashRisesOncePerChangeHoweverManyChannelsChangedAndOncePerReinitOfTheWeights)
{
    auto image = std::make_shared<MemoryImage>(Vector(4, 4, 1), 3);
    image->setChannelNames(rgb);
    RecordingImage recording(image);
    ChannelBank bank(&recording);
    ColorUnmixingFilter filter(&bank, rgb);
    FoldFilter none(&bank, {});
    EXPECT_EQ(filter.getHash(), 0u);
    // Before the first reinit the weights are empty: no density.
    EXPECT_TRUE(sameValue(0.0, filter.processPixel({3, 4, 5})));
    // Every channel of the image changes at once, twice: one step per call that sees a change.
    recording.touch();
    EXPECT_EQ(filter.getHash(), 1u);
    EXPECT_EQ(filter.getHash(), 1u);
    recording.touch();
    recording.touch();
    EXPECT_EQ(filter.getHash(), 2u);
    // Every reinit is a step, the same weights again too, and adds to a change of the image.
    filter.reinit({1, 0, 0});
    filter.reinit({1, 0, 0});
    recording.touch();
    EXPECT_EQ(filter.getHash(), 5u);
    // Without channels the image's changes do not count.
    EXPECT_EQ(none.getHash(), 0u);
    filter.reinit({1, 1, 1, 1});
    std::string const tooMany = "ColorUnmixingFilter: 4 weights but only 3 channel values.";
    EXPECT_EQ(messageOf([&] { filter.processPixel({1, 2, 3}); }), tooMany);
    EXPECT_EQ(messageOf([&] { openWhole(filter, 0, Box(Vector(1, 1, 1))); }), tooMany);
}

TEST(Absorptance, EqualsOneMinusPowBitForBitAndTheSelfCheckRefusesAPowOneUnitOff)
{
    std::vector<double> const densities = testDensities();
    for (double density : densities)
        ASSERT_TRUE(sameValue(reference(density), absorptance(density), "density " + hexfloat(density)));
    for (bool fast : {false, true})
    {
        // Lengths from 0 to a whole block; nothing is written past a short block.
        std::vector<double> out(densities.size() + 4, -7.0);
        for (std::size_t start = 0, length = 0; start < densities.size();
             length = (length + 37) % (absorptanceBlockSize + 1))
        {
            std::size_t const count = std::min(length, densities.size() - start);
            auto const past = out.begin() + static_cast<std::ptrdiff_t>(start + count);
            std::fill(past, past + 4, -7.0);
            if (fast)
                absorptanceOfBlock(densities.data() + start, out.data() + start, count);
            else
                absorptanceOfBlockUsing(false, densities.data() + start, out.data() + start, count);
            ASSERT_EQ(std::vector<double>(past, past + 4), std::vector<double>(4, -7.0)) << "past a block of " << count;
            start += count;
        }
        out.resize(densities.size());
        for (std::size_t i = 0; i < densities.size(); ++i)
            ASSERT_TRUE(sameValue(reference(densities[i]), out[i], "density " + hexfloat(densities[i])));
    }
    // The C library's pow stays within the 0.53 units the fast exponential relies on; one a unit off
    // is refused: for densities from 0.1 to 0.11, where every bit of the power reaches the result, at
    // one density in 256 (by its bits), and at a density whose power has a neighbour as near as pow
    // may land that gives the same absorptance (the fast exponential decides there too).
    EXPECT_TRUE(fastExponentialAgreesWith([](double base, double exponent) { return std::pow(base, exponent); }));
    EXPECT_TRUE(fastExponentialIsUsed());
    EXPECT_FALSE(fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return exponent <= -0.1 && exponent >= -0.11 ? std::nextafter(power, 2.0) : power;
    }));
    EXPECT_FALSE(fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return (bitsOf(exponent) & 0xFF) == 0x5A ? std::nextafter(power, 0.0) : power;
    }));
    EXPECT_FALSE(fastExponentialAgreesWith([](double base, double exponent) {
        double const power = std::pow(base, exponent);
        return exponent == -0x1.004074e75929ap+0 ? 2.0 * power : power;
    }));
    // The check clamps the power at 1: a power above 1 where nothing is absorbed changes nothing.
    EXPECT_TRUE(fastExponentialAgreesWith(
        [](double base, double exponent) { return exponent == 0.0 ? 1.5 : std::pow(base, exponent); }));
}
