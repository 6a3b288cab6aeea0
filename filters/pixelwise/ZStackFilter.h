#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

/// \brief Reads one fixed z slice of the input, whatever z range is requested.
///
/// The filter asks its input for the requested box with both its z bounds replaced by zSlice, at the
/// requested level (levels do not scale z, so zSlice is used unchanged at every level), and lets the
/// input write straight into the caller's buffer. Only one slice's worth of values per channel is
/// written, laid out for the one-slice box; callers request boxes with a single z. The slice is not
/// checked against the input's extent: a slice outside it reads whatever the input delivers there.
/// Everything else, the extent included, is the input's. openRegion may run on several threads at
/// once when the input allows it.
class ZStackFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    ZStackFilter(Image* input, long long zSlice, bool ownsInput);

    void openRegion(double* out, long long level, Box const& box) override;

private:
    long long zSlice;
};

} // namespace Nuvek
