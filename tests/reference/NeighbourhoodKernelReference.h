#pragma once

// Step-by-step box sums, separable correlation, Gaussian kernels, Sobel gradients and Harris
// eigenvalues, one element at a time with explicit rings, as the algorithms are written down. Each
// function opens what it needs from its input itself.

#include <nuvek/core/Image.h>

#include <cmath>
#include <vector>

namespace NuvekReference {

inline std::vector<double> openGrown(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long half)
{
    Nuvek::Box const grown(box.min - Nuvek::Vector(half, half, 0), box.max + Nuvek::Vector(half, half, 0));
    std::vector<double> work(static_cast<std::size_t>(grown.getSize() * input.getNumChannels()), 0.0);
    input.openRegion(work.data(), level, grown);
    return work;
}

inline std::vector<double> boxFilter(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k,
                                     bool normalize, bool rounding)
{
    long long const h = k / 2;
    long long const channels = input.getNumChannels();
    std::vector<double> work = openGrown(input, level, box, h);
    long long const wo = box.max.x - box.min.x + 1, ho = box.max.y - box.min.y + 1, d = box.max.z - box.min.z + 1;
    long long const wi = wo + 2 * h, hi = ho + 2 * h;
    long long const no = wo * ho * d;
    std::vector<double> out(static_cast<std::size_t>(channels * no), 0.0);
    double const scale = normalize ? 1.0 / static_cast<double>(k * k) : 1.0;
    std::vector<double> ring(static_cast<std::size_t>(k), 0.0);
    auto at = [&](long long c, long long z, long long y, long long x) -> double& {
        return work[static_cast<std::size_t>(((c * d + z) * hi + y) * wi + x)];
    };

    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < d; ++z)
            for (long long y = 0; y < hi; ++y)
            {
                for (long long j = 0; j < k - 1; ++j)
                    ring[j] = at(c, z, y, j);
                double s = 0.0;
                for (long long j = 0; j < k; ++j)
                    s += ring[j];
                long long p = 0;
                if (wo > 0)
                {
                    s -= ring[k - 1];
                    ring[k - 1] = at(c, z, y, k - 1);
                    s += ring[k - 1];
                    at(c, z, y, h) = s;
                    p = k - 1;
                }
                for (long long i = 1; i < wo; ++i)
                {
                    p = (p + 1) % k;
                    s -= ring[p];
                    ring[p] = at(c, z, y, k - 1 + i);
                    s += ring[p];
                    at(c, z, y, h + i) = s;
                }
            }

    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < d; ++z)
            for (long long x = 0; x < wo; ++x)
            {
                double s = 0.0;
                for (long long j = 0; j < k - 1; ++j)
                {
                    ring[j] = at(c, z, j, h + x);
                    s += ring[j];
                }
                ring[k - 1] = 0.0;
                long long p = k - 1;
                for (long long y = 0; y < ho; ++y)
                {
                    s -= ring[p];
                    ring[p] = at(c, z, k - 1 + y, h + x);
                    s += ring[p];
                    p = (p + 1) % k;
                    double v = scale * s;
                    if (rounding)
                        v = std::floor(v + 0.5);
                    out[static_cast<std::size_t>(c * no + z * wo * ho + y * wo + x)] = v;
                }
            }
    return out;
}

inline std::vector<double> separableFilter(Nuvek::Image& input, long long level, Nuvek::Box const& box,
                                           std::vector<double> const& kx, std::vector<double> const& ky)
{
    long long const n = static_cast<long long>(kx.size());
    long long const h = (n - 1) / 2;
    long long const channels = input.getNumChannels();
    std::vector<double> work = openGrown(input, level, box, h);
    long long const wo = box.max.x - box.min.x + 1, ho = box.max.y - box.min.y + 1, d = box.max.z - box.min.z + 1;
    long long const wi = wo + 2 * h, hi = ho + 2 * h;
    long long const no = wo * ho * d;
    std::vector<double> out(static_cast<std::size_t>(channels * no), 0.0);
    std::vector<double> ring(static_cast<std::size_t>(n), 0.0);
    long long p = 0;
    auto push = [&](double value) {
        ring[p] = value;
        p = (p + 1) % n;
    };
    auto at = [&](long long c, long long z, long long y, long long x) -> double& {
        return work[static_cast<std::size_t>(((c * d + z) * hi + y) * wi + x)];
    };

    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < d; ++z)
            for (long long y = 0; y < hi; ++y)
            {
                for (long long j = 0; j < n; ++j)
                    push(at(c, z, y, j));
                for (long long i = 0; i < wo; ++i)
                {
                    if (i > 0)
                        push(at(c, z, y, i + n - 1));
                    double s = 0.0;
                    for (long long j = 0; j < n; ++j)
                        s += kx[j] * ring[(p + j) % n];
                    at(c, z, y, h + i) = s;
                }
            }

    for (long long c = 0; c < channels; ++c)
        for (long long z = 0; z < d; ++z)
            for (long long x = 0; x < wo; ++x)
            {
                for (long long j = 0; j < n; ++j)
                    push(at(c, z, j, h + x));
                for (long long y = 0; y < ho; ++y)
                {
                    if (y > 0)
                        push(at(c, z, y + n - 1, h + x));
                    double s = 0.0;
                    for (long long j = 0; j < n; ++j)
                        s += ky[j] * ring[(p + j) % n];
                    out[static_cast<std::size_t>(c * no + z * wo * ho + y * wo + x)] = s;
                }
            }
    return out;
}

inline std::vector<double> gaussianKernel(long long n)
{
    std::vector<double> w;
    if (n < 1)
        return w;
    double const c = static_cast<double>(n - 1) * 0.5;
    double const sigma = 0.5 * c;
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

inline std::vector<double> differenceKernel(long long n)
{
    std::vector<double> d;
    for (long long i = 0; i < n; ++i)
        d.push_back(i < n / 2 ? -1.0 : (i == n / 2 ? 0.0 : 1.0));
    return d;
}

// magnitude false: X and Y channels alternating per input channel; true: gy^2 + gx^2.
inline std::vector<double> sobel(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k,
                                 bool magnitude)
{
    std::vector<double> const g = gaussianKernel(k), dk = differenceKernel(k);
    std::vector<double> const gx = separableFilter(input, level, box, dk, g);
    std::vector<double> const gy = separableFilter(input, level, box, g, dk);
    long long const n = box.getSize(), channels = input.getNumChannels();
    std::vector<double> out;
    if (magnitude)
        for (long long i = 0; i < channels * n; ++i)
            out.push_back(gy[i] * gy[i] + gx[i] * gx[i]);
    else
    {
        out.resize(static_cast<std::size_t>(2 * channels * n));
        for (long long c = 0; c < channels; ++c)
            for (long long i = 0; i < n; ++i)
            {
                out[2 * c * n + i] = gx[c * n + i];
                out[(2 * c + 1) * n + i] = gy[c * n + i];
            }
    }
    return out;
}

// An image whose values are the reference Sobel gradients of another, so that the reference Harris
// filter can blur them with the reference separable filter.
class ReferenceSobelImage : public Nuvek::Image
{
public:
    explicit ReferenceSobelImage(Nuvek::Image& input) : input(input) {}
    Nuvek::Vector getExtent(long long level) const override { return input.getExtent(level); }
    long long getNumChannels() const override { return 2 * input.getNumChannels(); }
    long long getNumLevels() const override { return input.getNumLevels(); }
    Nuvek::ValueRange<double> getValueRange() const override { return input.getValueRange(); }
    Nuvek::Vector getVoxelSize(long long level) const override { return input.getVoxelSize(level); }
    void openRegion(double* out, long long level, Nuvek::Box const& box) override
    {
        std::vector<double> const values = sobel(input, level, box, 3, false);
        for (std::size_t i = 0; i < values.size(); ++i)
            out[i] = values[i];
    }
    std::string getChannelName(long long) override { return ""; }
    std::uint64_t getHash() override { return 0; }

private:
    Nuvek::Image& input;
};

inline std::vector<double> harris(Nuvek::Image& input, long long level, Nuvek::Box const& box, long long k)
{
    ReferenceSobelImage gradients(input);
    std::vector<double> const g = gaussianKernel(k);
    std::vector<double> const smoothed = separableFilter(gradients, level, box, g, g);
    long long const n = box.getSize(), channels = input.getNumChannels();
    std::vector<double> out(smoothed.size());
    for (long long c = 0; c < channels; ++c)
        for (long long i = 0; i < n; ++i)
        {
            double const a = smoothed[2 * c * n + i], b = smoothed[(2 * c + 1) * n + i];
            double const t = a * a + b * b;
            double const dt = (b * b) * (a * a) - (a * b) * (a * b);
            double const r = std::sqrt(t * t * 0.25 - dt);
            out[2 * c * n + i] = r + t * 0.5;
            out[(2 * c + 1) * n + i] = t * 0.5 - r;
        }
    return out;
}

} // namespace NuvekReference
