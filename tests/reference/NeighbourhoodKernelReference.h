#pragma once

// Box sums, separable correlation, Gaussian and difference kernels, Sobel gradients and Harris
// eigenvalues as written down: every value a plain sum over its window, in window order, from 0.0.

#include <nuvek/core/Image.h>

#include <cmath>
#include <vector>

namespace NuvekReference {

/// What input writes for box grown by half in x and y, every channel.
inline std::vector<double> openGrown(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long half)
{
    Nuvek::Box const grown = box.expanded(Nuvek::Vector(half, half, 0));
    std::vector<double> values(static_cast<std::size_t>(grown.getSize() * input.getNumChannels()), 0.0);
    input.openRegion(values.data(), level, grown);
    return values;
}

/// Correlates every w x h plane of in with kx along x, then with ky along y; the planes shrink by
/// the kernel length less one.
inline std::vector<double> correlate(std::vector<double> const& in, long long w, long long h,
                                     std::vector<double> const& kx, std::vector<double> const& ky)
{
    long long const n = static_cast<long long>(kx.size()), wo = w - n + 1, ho = h - n + 1;
    long long const planes = static_cast<long long>(in.size()) / (w * h);
    std::vector<double> rows(planes * h * wo), out(planes * ho * wo);
    for (long long p = 0; p < planes; ++p)
        for (long long y = 0; y < h; ++y)
            for (long long x = 0; x < wo; ++x)
            {
                double sum = 0.0;
                for (long long j = 0; j < n; ++j)
                    sum += kx[j] * in[(p * h + y) * w + x + j];
                rows[(p * h + y) * wo + x] = sum;
            }
    for (long long p = 0; p < planes; ++p)
        for (long long y = 0; y < ho; ++y)
            for (long long x = 0; x < wo; ++x)
            {
                double sum = 0.0;
                for (long long j = 0; j < n; ++j)
                    sum += ky[j] * rows[(p * h + y + j) * wo + x];
                out[(p * ho + y) * wo + x] = sum;
            }
    return out;
}

inline std::vector<double> separableFilter(Nuvek::Image& input, long long level, Nuvek::Box const& box,
                                           std::vector<double> const& kx, std::vector<double> const& ky)
{
    long long const h = static_cast<long long>(kx.size()) - 1;
    return correlate(openGrown(input, level, box, h / 2), box.getExtent().x + h, box.getExtent().y + h, kx, ky);
}

/// The k x k sum (row sums first), times 1 / k^2 when normalized, then floor(v + 0.5) when rounding.
inline std::vector<double> boxFilter(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k,
                                     bool normalize, bool rounding)
{
    std::vector<double> const ones(static_cast<std::size_t>(k), 1.0);
    Nuvek::Vector const size = box.getExtent();
    std::vector<double> out =
        correlate(openGrown(input, level, box, k / 2), size.x + k - 1, size.y + k - 1, ones, ones);
    double const scale = normalize ? 1.0 / static_cast<double>(k * k) : 1.0;
    for (double& value : out)
        value = rounding ? std::floor(scale * value + 0.5) : scale * value;
    return out;
}

/// exp(-t^2 / 2) at t = (i - c) / sigma, c the centre and sigma = c / 2, divided by the sum.
inline std::vector<double> gaussianKernel(long long n)
{
    double const c = static_cast<double>(n - 1) * 0.5, sigma = 0.5 * c;
    std::vector<double> w;
    double sum = 0.0;
    for (long long i = 0; i < n; ++i)
    {
        double const t = (static_cast<double>(i) - c) / sigma;
        w.push_back(std::exp(-0.5 * (t * t)));
        sum += w.back();
    }
    for (double& v : w)
        v = v / sum;
    return w;
}

/// -1 before the centre, 0 at it, 1 after it.
inline std::vector<double> differenceKernel(long long n)
{
    std::vector<double> d;
    for (long long i = 0; i < n; ++i)
        d.push_back(i < n / 2 ? -1.0 : (i == n / 2 ? 0.0 : 1.0));
    return d;
}

/// Sobel gradients of w x h planes holding channels of `count` voxels after shrinking: the x and
/// the y gradient of every channel, or gy^2 + gx^2 per channel.
inline std::vector<double> sobel(std::vector<double> const& in, long long w, long long h, long long count, long long k,
                                 bool magnitude)
{
    std::vector<double> const g = gaussianKernel(k), d = differenceKernel(k);
    std::vector<double> const gx = correlate(in, w, h, d, g), gy = correlate(in, w, h, g, d);
    std::vector<double> out;
    for (long long start = 0; start < static_cast<long long>(gx.size()); start += count)
        if (magnitude)
            for (long long i = start; i < start + count; ++i)
                out.push_back(gy[i] * gy[i] + gx[i] * gx[i]);
        else
        {
            out.insert(out.end(), gx.begin() + start, gx.begin() + start + count);
            out.insert(out.end(), gy.begin() + start, gy.begin() + start + count);
        }
    return out;
}

/// The eigenvalues of [a^2, ab; ab, b^2], larger first, where a and b are the Gaussian-blurred
/// x and y gradients of the 3 x 3 Sobel filter.
inline std::vector<double> harris(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k)
{
    Nuvek::Vector const size = box.getExtent();
    long long const w = size.x + k - 1, h = size.y + k - 1;
    std::vector<double> const gradients =
        sobel(openGrown(input, level, box, k / 2 + 1), w + 2, h + 2, w * h * size.z, 3, false);
    std::vector<double> const g = gaussianKernel(k);
    std::vector<double> out = correlate(gradients, w, h, g, g);
    long long const n = box.getSize();
    for (long long c = 0; c < input.getNumChannels(); ++c)
        for (long long i = 0; i < n; ++i)
        {
            double const a = out[2 * c * n + i], b = out[(2 * c + 1) * n + i];
            double const t = a * a + b * b;
            double const det = (b * b) * (a * a) - (a * b) * (a * b);
            double const r = std::sqrt(t * t * 0.25 - det);
            out[2 * c * n + i] = r + t * 0.5;
            out[(2 * c + 1) * n + i] = t * 0.5 - r;
        }
    return out;
}

} // namespace NuvekReference
