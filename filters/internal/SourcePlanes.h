#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Vector.h>

namespace Nuvek {

/// Walks the output planes of `box` (channel after channel, slice after slice) beside the planes of
/// a source buffer of `sourceExtent` whose slices count from box.min.z: output slice z reads source
/// slice z - box.min.z. Calls pass(target, sourcePlane) for every output plane whose source slice
/// exists; the other output planes are passed over and keep what they hold. The resolution filters
/// and the local normalization read their coarser source this way.
template <typename PlanePass>
void forEachPlaneWithSource(double* out, Box const& box, double const* source, Vector const& sourceExtent,
                            long long numChannels, PlanePass&& pass)
{
    Vector const boxExtent = box.getExtent();
    long long const plane = boxExtent.x * boxExtent.y;
    long long const slice = sourceExtent.x * sourceExtent.y;
    long long const channelSize = slice * sourceExtent.z;
    double* target = out;
    for (long long c = 0; c < numChannels; ++c)
        for (long long sourceSlice = 0; sourceSlice < boxExtent.z; ++sourceSlice)
        {
            if (sourceSlice < sourceExtent.z)
                pass(target, source + c * channelSize + sourceSlice * slice);
            target += plane;
        }
}

} // namespace Nuvek
