#include "filters/internal/RequestBands.h"

#include <nuvek/core/RowBandExactness.h>

#include <algorithm>
#include <vector>

namespace Nuvek {

long long RequestBands::rowsPerBand(Box const& box, long long numChannels, long long rowMultiple)
{
    constexpr long long minimumRows = 64;
    Vector const extent = box.getExtent();
    // Divided one factor at a time: the product of a huge row and the channels may not fit.
    long long const rows = std::max(minimumRows, bandValues / numChannels / std::max(1LL, extent.x * extent.z));
    long long const multiple = std::max(1LL, rowMultiple);
    return std::max(multiple, rows - rows % multiple);
}

bool RequestBands::splits(Image const* input, Box const& box, long long numChannels, Vector const& levelExtent,
                          long long rowMultiple)
{
    if (box.isEmpty() || numChannels < 1 || box.intersected(Box(levelExtent)) != box)
        return false;
    return box.getSize() > largeRequestValues / numChannels &&
           box.getExtent().y > rowsPerBand(box, numChannels, rowMultiple) && RowBandExactness::splitsExactly(input);
}

void RequestBands::run(double* out, Box const& box, long long numChannels, Compute const& compute,
                       long long rowMultiple)
{
    Vector const extent = box.getExtent();
    long long const rows = rowsPerBand(box, numChannels, rowMultiple);
    bool const inPlace = numChannels == 1 && extent.z == 1;
    std::vector<double> bandBuffer;
    if (!inPlace)
        bandBuffer.resize(static_cast<std::size_t>(std::min(rows, extent.y) * extent.x * extent.z * numChannels));
    long long const boxSize = box.getSize();
    for (long long y = box.min.y; y <= box.max.y; y += rows)
    {
        Box const band(Vector(box.min.x, y, box.min.z),
                       Vector(box.max.x, std::min(box.max.y, y + rows - 1), box.max.z));
        if (inPlace)
        {
            compute(out + (y - box.min.y) * extent.x, band);
            continue;
        }
        compute(bandBuffer.data(), band);
        // Each band row of every slice and channel goes to its place in out.
        long long const bandRows = band.getExtent().y;
        long long const bandSize = band.getSize();
        for (long long c = 0; c < numChannels; ++c)
            for (long long z = 0; z < extent.z; ++z)
            {
                double const* source = bandBuffer.data() + c * bandSize + z * bandRows * extent.x;
                double* target = out + c * boxSize + (z * extent.y + (y - box.min.y)) * extent.x;
                std::copy(source, source + bandRows * extent.x, target);
            }
    }
}

} // namespace Nuvek
