#pragma once

// The sliding histogram step by step: one ring buffer object per column, the horizontal sum over k
// columns taken afresh for every voxel, bin 0 cleared slab by slab.

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace NuvekReference {

struct HistogramParameters
{
    long long kernelSize;
    long long numBins;
    double minValue;
    double binWidth;
};

inline HistogramParameters histogramParameters(long long kernelSize, long long numBins, double rangeMin,
                                               double rangeMax)
{
    return HistogramParameters{kernelSize, numBins, rangeMin, (rangeMax - rangeMin + 1.0) / numBins};
}

// Truncation toward zero, capped at the last bin, negatives to 0; NaN lands in bin 0.
inline long long histogramBin(HistogramParameters const& p, double value)
{
    double t = std::trunc((value - p.minValue) / p.binWidth);
    if (std::isnan(t))
        return 0;
    t = std::min(t, static_cast<double>(p.numBins - 1));
    if (t < 0)
        return 0;
    return static_cast<long long>(t);
}

struct CircularHistogramBuffer
{
    std::vector<long long> ring;
    std::vector<long long> histogram;
    long long position = 0;

    CircularHistogramBuffer(long long k, long long numBins) : ring(k, 0), histogram(numBins, 0) { histogram[0] = k; }

    void push(long long bin)
    {
        long long const old = ring[position];
        histogram[old] -= 1;
        histogram[bin] += 1;
        ring[position] = bin;
        position = (position + 1) % static_cast<long long>(ring.size());
    }
};

// Adds the counts of a padded plane stack `in` to out.
inline void histogramKernel(HistogramParameters const& p, std::vector<double>& out, std::vector<double> const& in,
                            Nuvek::Vector const& extent)
{
    long long const k = p.kernelSize;
    long long const W = extent.x + k - 1, H = extent.y + k - 1;
    long long const P = extent.x * extent.y, N = P * extent.z;
    std::vector<CircularHistogramBuffer> columns(W, CircularHistogramBuffer(k, p.numBins));
    for (long long z = 0; z < extent.z; ++z)
    {
        double const* slice = in.data() + z * W * H;
        for (long long r = 0; r <= k - 2; ++r)
            for (long long c = 0; c < W; ++c)
                columns[c].push(histogramBin(p, slice[r * W + c]));
        for (long long y = 0; y < extent.y; ++y)
        {
            long long const R = y + k - 1;
            for (long long c = 0; c <= k - 2; ++c)
                columns[c].push(histogramBin(p, slice[R * W + c]));
            for (long long c = k - 1; c < W; ++c)
            {
                columns[c].push(histogramBin(p, slice[R * W + c]));
                for (long long b = 0; b < p.numBins; ++b)
                {
                    double sum = 0.0;
                    for (long long cc = c - k + 1; cc <= c; ++cc)
                        sum += static_cast<double>(columns[cc].histogram[b]);
                    out[b * N + z * P + y * extent.x + (c - k + 1)] += sum;
                }
            }
        }
    }
}

// The whole operation on an image, first channel.
inline std::vector<double> histogram(HistogramParameters const& p, Nuvek::Image& input, Nuvek::Box const& box,
                                     long long level)
{
    long long const half = p.kernelSize / 2;
    Nuvek::Box const expanded(box.min - Nuvek::Vector(half, half, 0), box.max + Nuvek::Vector(half, half, 0));
    std::vector<double> temp(expanded.getSize() * input.getNumChannels(), 0.0);
    input.openRegion(temp.data(), level, expanded);
    temp.resize(expanded.getSize());
    long long const N = box.getSize();
    std::vector<double> out(p.numBins * N, 0.0);
    Nuvek::Vector const extent = box.getExtent();
    histogramKernel(p, out, temp, extent);

    Nuvek::Vector const image = input.getExtent(level);
    if (box.intersected(Nuvek::Box(image)).getSize() >= N)
        return out;
    auto clear = [&](long long x0, long long y0, long long z0, long long x1, long long y1, long long z1) {
        for (long long z = std::max(z0, 0LL); z <= std::min(z1, extent.z - 1); ++z)
            for (long long y = std::max(y0, 0LL); y <= std::min(y1, extent.y - 1); ++y)
                for (long long x = std::max(x0, 0LL); x <= std::min(x1, extent.x - 1); ++x)
                    out[(z * extent.y + y) * extent.x + x] = 0.0;
    };
    if (box.min.x < 0)
        clear(0, 0, 0, -box.min.x, extent.y, extent.z);
    if (box.min.y < 0)
        clear(0, 0, 0, extent.x, -box.min.y, extent.z);
    if (box.min.z < 0)
        clear(0, 0, 0, extent.x, extent.y, -box.min.z);
    if (box.max.x >= image.x)
        clear(image.x + 1 - box.max.x, 0, 0, extent.x, extent.y, extent.z);
    if (box.max.y >= image.y)
        clear(0, image.y + 1 - box.max.y, 0, extent.x, extent.y, extent.z);
    if (box.max.z >= image.z)
        clear(0, 0, image.z + 1 - box.max.z, extent.x, extent.y, extent.z);
    return out;
}

} // namespace NuvekReference
