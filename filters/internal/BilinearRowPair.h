#pragma once

// Internal to the library: not installed.

#include "filters/internal/BilinearColumns.h"

#include <limits>
#include <vector>

namespace Nuvek {

/// Two coarse rows interpolated along x, kept by row index: consecutive output rows read the same or
/// the next coarse rows, so two slots serve them all.
class BilinearRowPair
{
public:
    explicit BilinearRowPair(BilinearColumns const& columns)
        : columns(columns), rows{std::vector<double>(columns.weight.size()), std::vector<double>(columns.weight.size())}
    {
    }

    /// Forgets the rows held, for a new plane.
    void reset() { held[0] = held[1] = none; }

    /// The interpolated row `row`, computed from coarseRow when not held; never evicts `keep`.
    double const* get(long long row, double const* coarseRow, long long keep)
    {
        for (int slot = 0; slot < 2; ++slot)
            if (held[slot] == row)
                return rows[slot].data();
        int const slot = held[0] == keep ? 1 : 0;
        columns.interpolate(coarseRow, rows[slot].data());
        held[slot] = row;
        return rows[slot].data();
    }

private:
    static constexpr long long none = std::numeric_limits<long long>::min();
    BilinearColumns const& columns;
    std::vector<double> rows[2];
    long long held[2] = {none, none};
};

} // namespace Nuvek
