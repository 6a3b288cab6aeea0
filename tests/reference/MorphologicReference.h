#pragma once

// Erosion and dilation step by step: the padded temporary, a horizontal pass in place with a ring of
// k values, a vertical pass into the output, and a full slot-order scan of the ring for every value.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <vector>

namespace NuvekReference {

inline double slotScan(std::vector<double> const& window, bool maximum)
{
    double best = window[0];
    for (std::size_t i = 1; i < window.size(); ++i)
        if (maximum ? window[i] > best : best > window[i])
            best = window[i];
    return best;
}

inline std::vector<double> morphology(Nuvek::Image& input, long long k, bool maximum, Nuvek::Box const& box,
                                      long long level)
{
    long long const h = k / 2;
    long long const C = input.getNumChannels();
    Nuvek::Box const inBox(box.min - Nuvek::Vector(h, h, 0), box.max + Nuvek::Vector(h, h, 0));
    long long const M = inBox.getSize(), N = box.getSize();
    std::vector<double> temp(M * C, 0.0);
    input.openRegion(temp.data(), level, inBox);
    Nuvek::Vector const e = box.getExtent(), W = inBox.getExtent();
    std::vector<double> window(k);
    std::vector<double> out(N * C);
    for (long long c = 0; c < C; ++c)
        for (long long z = 0; z < e.z; ++z)
            for (long long r = 0; r < W.y; ++r)
            {
                double* row = temp.data() + c * M + z * W.x * W.y + r * W.x;
                for (long long i = 0; i + 1 < k; ++i)
                    window[i] = row[i];
                long long pos = k - 1;
                for (long long x = 0; x < e.x; ++x)
                {
                    window[pos] = row[x + k - 1];
                    double const best = slotScan(window, maximum);
                    pos = (pos + 1) % k;
                    row[x + h] = best;
                }
            }
    for (long long c = 0; c < C; ++c)
        for (long long z = 0; z < e.z; ++z)
            for (long long x = 0; x < e.x; ++x)
            {
                double const* column = temp.data() + c * M + z * W.x * W.y + h + x;
                for (long long i = 0; i + 1 < k; ++i)
                    window[i] = column[i * W.x];
                long long pos = k - 1;
                for (long long y = 0; y < e.y; ++y)
                {
                    window[pos] = column[(y + k - 1) * W.x];
                    double const best = slotScan(window, maximum);
                    pos = (pos + 1) % k;
                    out[c * N + z * e.x * e.y + y * e.x + x] = best;
                }
            }
    return out;
}

} // namespace NuvekReference
