#include <nuvek/filters/colour/Matrix.h>

#include <stdexcept>
#include <string>

namespace Nuvek {

namespace {

using Matrix = std::vector<std::vector<double>>;

std::size_t columnsOf(Matrix const& m)
{
    return m.empty() ? 0 : m[0].size();
}

// The algorithms read `columns` entries of every row; a shorter row would be read past its end.
void requireRowLengths(Matrix const& m, std::size_t columns, char const* function, char const* name)
{
    for (std::size_t i = 0; i < m.size(); ++i)
        if (m[i].size() < columns)
            throw std::runtime_error(std::string(function) + ": row " + std::to_string(i) + " of " + name + " has " +
                                     std::to_string(m[i].size()) + " entries where " + std::to_string(columns) +
                                     " are needed.");
}

} // namespace

Matrix transposeMatrix(Matrix const& m)
{
    std::size_t const rows = m.size();
    std::size_t const columns = columnsOf(m);
    requireRowLengths(m, columns, "transposeMatrix", "the matrix");
    Matrix result(columns, std::vector<double>(rows, 0.0));
    for (std::size_t i = 0; i < rows; ++i)
        for (std::size_t j = 0; j < columns; ++j)
            result[j][i] = m[i][j];
    return result;
}

Matrix multMatrix(Matrix const& a, Matrix const& b)
{
    if (columnsOf(a) != b.size())
        throw std::runtime_error("Matrices have wrong size for multiplication");
    std::size_t const inner = b.size();
    std::size_t const columns = columnsOf(b);
    requireRowLengths(a, inner, "multMatrix", "the first matrix");
    requireRowLengths(b, columns, "multMatrix", "the second matrix");

    Matrix result(a.size(), std::vector<double>(columns, 0.0));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < columns; ++j)
            for (std::size_t k = 0; k < inner; ++k)
                result[i][j] += a[i][k] * b[k][j];
    return result;
}

Matrix calcMinorMatrix(Matrix const& m, std::uint64_t row, std::uint64_t col)
{
    if (row >= m.size())
        throw std::runtime_error("calcMinorMatrix: row " + std::to_string(row) + " is out of range for a matrix of " +
                                 std::to_string(m.size()) + " rows.");
    Matrix result;
    result.reserve(m.size() - 1);
    for (std::size_t i = 0; i < m.size(); ++i)
    {
        if (i == row)
            continue;
        if (col >= m[i].size())
            throw std::runtime_error("calcMinorMatrix: column " + std::to_string(col) + " is out of range for row " +
                                     std::to_string(i) + ", which has " + std::to_string(m[i].size()) + " entries.");
        std::vector<double> remaining;
        remaining.reserve(m[i].size() - 1);
        for (std::size_t j = 0; j < m[i].size(); ++j)
            if (j != col)
                remaining.push_back(m[i][j]);
        result.push_back(std::move(remaining));
    }
    return result;
}

double calcMatrixDet(Matrix const& m)
{
    if (m.empty())
        return 0.0;
    // One term per row, each taking a minor that removes a column of every row.
    requireRowLengths(m, m.size(), "calcMatrixDet", "the matrix");
    if (m.size() == 1)
        return m[0][0];

    // The sign is multiplied in, not negated: the two differ for NaN.
    double const signs[2] = {1.0, -1.0};
    double det = 0.0;
    for (std::size_t j = 0; j < m.size(); ++j)
        det += (m[0][j] * signs[j & 1]) * calcMatrixDet(calcMinorMatrix(m, 0, j));
    return det;
}

Matrix invertMatrix(Matrix const& m)
{
    if (m.empty() || m[0].empty())
        return Matrix();
    if (m[0].size() != m.size())
        throw std::runtime_error("Matrices must be square for inversion");

    std::size_t const n = m.size();
    requireRowLengths(m, n, "invertMatrix", "the matrix");
    double const det = calcMatrixDet(m);
    Matrix result(n, std::vector<double>(n, 0.0));
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
        {
            // No test for det == 0: a singular matrix gives infinities and NaN, as IEEE division does.
            double const value = calcMatrixDet(calcMinorMatrix(m, j, i)) / det;
            // A flip of the sign bit, so that a zero cofactor at an odd position becomes -0.0.
            result[i][j] = (i + j) % 2 == 1 ? -value : value;
        }
    return result;
}

} // namespace Nuvek
