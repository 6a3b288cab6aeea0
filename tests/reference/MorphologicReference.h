#pragma once

// Erosion and dilation as written down: the window minimum (maximum) along x, then along y. The
// window of k values is scanned by slot, position modulo k, and a value replaces the best so far
// only when strictly below (above) it: a NaN counts only in slot 0, and between equal values the
// earlier slot wins.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <vector>

namespace NuvekReference {

/// The extremum of line[at + i * stride], i in [0, k), scanned by slot (at / stride + i) mod k.
inline double slotExtremum(double const* line, long long at, long long stride, long long k, bool maximum)
{
    long long const first = at / stride;
    double best = 0.0;
    for (long long slot = 0; slot < k; ++slot)
    {
        long long const i = ((slot - first) % k + k) % k;
        double const value = line[at + i * stride];
        if (slot == 0 || (maximum ? value > best : best > value))
            best = value;
    }
    return best;
}

inline std::vector<double> morphology(Nuvek::Image& input, long long k, bool maximum, Nuvek::Box const& box,
                                      long long level)
{
    long long const h = k / 2, C = input.getNumChannels();
    Nuvek::Box const grown = box.expanded(Nuvek::Vector(h, h, 0));
    Nuvek::Vector const e = box.getExtent(), g = grown.getExtent();
    std::vector<double> in(static_cast<std::size_t>(grown.getSize() * C)), rows(in.size()), out;
    input.openRegion(in.data(), level, grown);
    for (long long p = 0; p < C * e.z; ++p)
        for (long long y = 0; y < g.y; ++y)
            for (long long x = 0; x < e.x; ++x)
                rows[(p * g.y + y) * g.x + x] = slotExtremum(in.data() + (p * g.y + y) * g.x, x, 1, k, maximum);
    for (long long p = 0; p < C * e.z; ++p)
        for (long long y = 0; y < e.y; ++y)
            for (long long x = 0; x < e.x; ++x)
                out.push_back(slotExtremum(rows.data() + p * g.y * g.x + x, y * g.x, g.x, k, maximum));
    return out;
}

} // namespace NuvekReference
