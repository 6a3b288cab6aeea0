#pragma once

#include <cstdint>
#include <vector>

namespace Nuvek {

// Small dense matrices of doubles, as the colour filters need them.
//
// A matrix is a vector of rows. Its number of rows is the outer size and its number of columns the
// size of the first row (0 when there are no rows). No function modifies its input. Rows longer
// than the first one are not detected: their extra entries are simply not used. A row too short for
// an entry that a function has to read is rejected with std::runtime_error rather than read past
// its end.
//
// The determinant is a recursive cofactor expansion along the first row and the inverse is the
// adjugate divided by the determinant, so both are exponential in the size: they are meant for the
// 3 x 3 colour matrices of the unmixing filter.

/// The transpose: columns(m) rows of rows(m) entries, result[j][i] = m[i][j].
std::vector<std::vector<double>> transposeMatrix(std::vector<std::vector<double>> const& m);

/// The product a * b, rows(a) x columns(b). Each entry is summed from 0.0 with k from 0 upward.
/// Throws std::runtime_error "Matrices have wrong size for multiplication" when columns(a) differs
/// from rows(b).
std::vector<std::vector<double>> multMatrix(std::vector<std::vector<double>> const& a,
                                            std::vector<std::vector<double>> const& b);

/// A copy of m without row `row` and then without column `col` in every remaining row.
std::vector<std::vector<double>> calcMinorMatrix(std::vector<std::vector<double>> const& m, std::uint64_t row,
                                                 std::uint64_t col);

/// The determinant by cofactor expansion along the first row, with one term per row of m. A matrix
/// of one row yields m[0][0]; a matrix of no rows yields 0.0.
double calcMatrixDet(std::vector<std::vector<double>> const& m);

/// The inverse as adjugate divided by determinant: result[i][j] is the determinant of the minor
/// without row j and column i, divided by det(m), with its sign bit flipped when i + j is odd (so a
/// zero there becomes -0.0). A singular matrix is not detected: the entries become infinite or NaN.
/// A 1 x 1 matrix [[a]] yields [[0.0 / a]], since its only minor has no rows and so determinant 0.0.
/// A matrix without rows or with an empty first row yields a matrix without rows. Throws
/// std::runtime_error "Matrices must be square for inversion" when the first row's length is not the
/// number of rows.
std::vector<std::vector<double>> invertMatrix(std::vector<std::vector<double>> const& m);

} // namespace Nuvek
