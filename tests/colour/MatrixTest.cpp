#include <nuvek/filters/colour/Matrix.h>

#include "reference/ColourReference.h"
#include "support/Messages.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>

using Nuvek::calcMatrixDet;
using Nuvek::calcMinorMatrix;
using Nuvek::invertMatrix;
using Nuvek::multMatrix;
using Nuvek::transposeMatrix;
using Matrix = std::vector<std::vector<double>>;
using NuvekTest::messageOf;

namespace {

std::string hex(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

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
                return ::testing::AssertionFailure() << "difference at [" << i << "][" << j << "]: expected "
                                                     << hex(expected[i][j]) << ", found " << hex(actual[i][j]);
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

TEST(Matrix, TransposeSwapsRowsAndColumns)
{
    EXPECT_EQ(transposeMatrix({{1, 2, 3}, {4, 5, 6}}), (Matrix{{1, 4}, {2, 5}, {3, 6}}));
    EXPECT_TRUE(transposeMatrix({}).empty());
    // One row of no entries has no columns, so its transpose has no rows.
    EXPECT_TRUE(transposeMatrix({{}}).empty());
}

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

TEST(Matrix, ProductOfMismatchedSizesIsRejected)
{
    EXPECT_EQ(messageOf([] {
                  multMatrix({{1, 2, 3}, {4, 5, 6}}, {{1, 2, 3}, {4, 5, 6}});
              }),
              "Matrices have wrong size for multiplication");
    EXPECT_EQ(messageOf([] { multMatrix({}, {{1}}); }), "Matrices have wrong size for multiplication");
}

TEST(Matrix, MinorRemovesTheRowAndThenTheColumn)
{
    Matrix const m{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
    EXPECT_EQ(calcMinorMatrix(m, 0, 0), (Matrix{{5, 6}, {8, 9}}));
    EXPECT_EQ(calcMinorMatrix(m, 1, 2), (Matrix{{1, 2}, {7, 8}}));
    EXPECT_EQ(calcMinorMatrix(m, 2, 1), (Matrix{{1, 3}, {4, 6}}));
    EXPECT_TRUE(calcMinorMatrix({{5}}, 0, 0).empty());
    EXPECT_EQ(calcMinorMatrix({{1, 2, 3}, {4, 5, 6}}, 1, 0), (Matrix{{2, 3}}));
}

TEST(Matrix, DeterminantExpandsAlongTheFirstRow)
{
    EXPECT_EQ(calcMatrixDet({{1, 2}, {3, 4}}), -2.0);
    EXPECT_EQ(calcMatrixDet({{2, 0, 1}, {1, 3, 2}, {1, 1, 1}}), 0.0);
    EXPECT_EQ(calcMatrixDet({{7}}), 7.0);
    EXPECT_EQ(calcMatrixDet({}), 0.0);
    // One term per row: the third column of a 2 x 3 matrix is never used.
    EXPECT_EQ(calcMatrixDet({{1, 2, 100}, {3, 4, 100}}), -2.0);

    std::mt19937_64 random(82);
    for (int round = 0; round < 120; ++round)
    {
        std::size_t const n = 1 + static_cast<std::size_t>(round % 5);
        Matrix const m = randomMatrix(random, n, n, round % 4 == 0);
        double const expected = NuvekReference::determinant(m);
        double const actual = calcMatrixDet(m);
        EXPECT_TRUE(sameValue(expected, actual))
            << "round " << round << " size " << n << ": expected " << hex(expected) << ", found " << hex(actual);
    }
}

TEST(Matrix, InverseIsAdjugateOverDeterminant)
{
    EXPECT_EQ(invertMatrix({{1, 2}, {3, 4}}), (Matrix{{-2, 1}, {1.5, -0.5}}));
    Matrix const m{{2, 0, 1}, {1, 3, 2}, {1, 1, 2}};
    Matrix const product = multMatrix(m, invertMatrix(m));
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            EXPECT_NEAR(product[i][j], i == j ? 1.0 : 0.0, 1e-15) << i << ", " << j;

    std::mt19937_64 random(83);
    for (int round = 0; round < 120; ++round)
    {
        std::size_t const n = 1 + static_cast<std::size_t>(round % 4);
        Matrix const source = randomMatrix(random, n, n, round % 4 == 0);
        EXPECT_TRUE(sameEntries(NuvekReference::inverse(source), invertMatrix(source))) << "round " << round;
    }
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

TEST(Matrix, InverseOfEmptyOrNonSquareMatrices)
{
    EXPECT_TRUE(invertMatrix({}).empty());
    EXPECT_TRUE(invertMatrix({{}, {}}).empty());
    EXPECT_EQ(messageOf([] { invertMatrix({{1, 2, 3}, {4, 5, 6}}); }), "Matrices must be square for inversion");
    EXPECT_EQ(messageOf([] { invertMatrix({{1}, {2}}); }), "Matrices must be square for inversion");
}

TEST(Matrix, RowsTooShortToReadAreRejected)
{
    EXPECT_EQ(messageOf([] {
                  transposeMatrix({{1, 2}, {3}});
              }),
              "transposeMatrix: row 1 of the matrix has 1 entries where 2 are needed.");
    EXPECT_EQ(messageOf([] {
                  multMatrix({{1, 2}}, {{1, 2}, {3}});
              }),
              "multMatrix: row 1 of the second matrix has 1 entries where 2 are needed.");
    EXPECT_EQ(messageOf([] {
                  calcMatrixDet({{1, 2}, {3}});
              }),
              "calcMatrixDet: row 1 of the matrix has 1 entries where 2 are needed.");
    EXPECT_EQ(messageOf([] {
                  invertMatrix({{1, 2}, {3}});
              }),
              "invertMatrix: row 1 of the matrix has 1 entries where 2 are needed.");
    EXPECT_EQ(messageOf([] {
                  calcMinorMatrix({{1, 2}, {3, 4}}, 2, 0);
              }),
              "calcMinorMatrix: row 2 is out of range for a matrix of 2 rows.");
    EXPECT_EQ(messageOf([] {
                  calcMinorMatrix({{1, 2}, {3}}, 0, 1);
              }),
              "calcMinorMatrix: column 1 is out of range for row 1, which has 1 entries.");
    // Longer rows are not an error: their extra entries are not used.
    EXPECT_EQ(transposeMatrix({{1}, {2, 3}}), (Matrix{{1, 2}}));
}
