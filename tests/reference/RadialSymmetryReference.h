#pragma once

// Step-by-step radial symmetry voting on plain vectors: Cohen-Sutherland clipping, the digital line
// and the vote of every gradient voxel, one at a time.

#include <nuvek/core/Box.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace NuvekReference {

inline int outcode(double x, double y, double xmax, double ymax)
{
    return (x < 0 ? 1 : x > xmax ? 2 : 0) + (y < 0 ? 8 : y > ymax ? 4 : 0);
}

inline bool clampLine(Nuvek::Vector const& extent, double& xA, double& xB, double& yA, double& yB)
{
    double const xmax = static_cast<double>(extent.x - 1);
    double const ymax = static_cast<double>(extent.y - 1);
    int codeA = outcode(xA, yA, xmax, ymax);
    int codeB = outcode(xB, yB, xmax, ymax);
    if (codeA == 0 && codeB == 0)
        return true;
    while ((codeA & codeB) == 0)
    {
        int const code = codeA != 0 ? codeA : codeB;
        double x = 0.0, y = 0.0;
        if (code & 8)
        {
            x = xA - (xB - xA) * yA / (yB - yA);
            y = 0;
        }
        else if (code & 4)
        {
            x = (ymax - yA) * (xB - xA) / (yB - yA) + xA;
            y = ymax;
        }
        else if (code & 1)
        {
            y = yA - (yB - yA) * xA / (xB - xA);
            x = 0;
        }
        else if (code & 2)
        {
            y = (xmax - xA) * (yB - yA) / (xB - xA) + yA;
            x = xmax;
        }
        bool const first = codeA != 0;
        (first ? xA : xB) = x;
        (first ? yA : yB) = y;
        (first ? codeA : codeB) = outcode(x, y, xmax, ymax);
        if (codeA == 0 && codeB == 0)
            return true;
    }
    return false;
}

inline bool clampLine(Nuvek::Vector const& extent, long long& xA, long long& xB, long long& yA, long long& yB)
{
    double v[4] = {static_cast<double>(xA), static_cast<double>(xB), static_cast<double>(yA), static_cast<double>(yB)};
    bool const result = clampLine(extent, v[0], v[1], v[2], v[3]);
    long long* const targets[4] = {&xA, &xB, &yA, &yB};
    for (int i = 0; i < 4; ++i)
        *targets[i] = static_cast<long long>(std::trunc(v[i] + 0.5));
    return result;
}

// Steps along the longer axis (compared in 32 bits), the other coordinate an accumulated slope
// rounded half up, adding value at every step.
inline void drawLine(std::vector<double>& plane, std::size_t start, long long rowStride, double value, long long x0,
                     long long x1, long long y0, long long y1)
{
    long long const dX = x1 - x0, dY = y1 - y0;
    bool const steep = static_cast<std::int32_t>(std::llabs(dY)) > static_cast<std::int32_t>(std::llabs(dX));
    long long const n = steep ? dY : dX, s = n >= 0 ? 1 : -1;
    double const slope = n == 0 ? 0.0 : static_cast<double>(steep ? dX : dY) / static_cast<double>(std::llabs(n));
    double acc = 0.0;
    for (long long i = 0; i != n + s; i += s)
    {
        long long const across = static_cast<long long>(std::trunc(static_cast<double>(steep ? x0 : y0) + acc + 0.5));
        long long const x = steep ? across : x0 + i, y = steep ? y0 + i : across;
        plane[start + static_cast<std::size_t>(x + y * rowStride)] += value;
        acc += slope;
    }
}

// `gradients` holds the 3 x 3 Sobel gradients of box grown by r = trunc(radius + 0.5) in x and y:
// x then y gradient per channel. Every gradient votes with its magnitude along its direction, all
// slices into the first.
inline std::vector<double> radialSymmetry(std::vector<double> const& gradients, Nuvek::Box const& box,
                                          long long numChannels, double radius, double threshold)
{
    long long const N = box.getSize();
    std::vector<double> out(static_cast<std::size_t>(numChannels * N), 0.0);
    long long const r = static_cast<long long>(std::trunc(radius + 0.5));
    Nuvek::Box const gradientBox(box.min - Nuvek::Vector(r, r, 0), box.max + Nuvek::Vector(r, r, 0));
    if (gradientBox.isEmpty())
        return out;
    long long const M = gradientBox.getSize();
    Nuvek::Vector const extentOut = box.getExtent();
    Nuvek::Vector const g = gradientBox.getExtent();
    double const minMagnitudeSquared = threshold * threshold;
    for (long long k = 0; k < numChannels; ++k)
        for (long long z = 0; z < g.z; ++z)
            for (long long y = 0; y < g.y; ++y)
                for (long long x = 0; x < g.x; ++x)
                {
                    long long const i = z * g.x * g.y + y * g.x + x;
                    double const gx = gradients[static_cast<std::size_t>(2 * k * M + i)];
                    double const gy = gradients[static_cast<std::size_t>((2 * k + 1) * M + i)];
                    double const m2 = gx * gx + gy * gy;
                    if (minMagnitudeSquared > m2)
                        continue;
                    double const m = std::sqrt(m2);
                    // No direction, no vote.
                    if (!std::isfinite(gx / m) || !std::isfinite(gy / m))
                        continue;
                    long long const dx = static_cast<long long>(std::trunc(gx / m * radius + 0.5));
                    long long const dy = static_cast<long long>(std::trunc(gy / m * radius + 0.5));
                    long long x0 = x - r - dx, x1 = x - r + dx, y0 = y - r - dy, y1 = y - r + dy;
                    if (!clampLine(extentOut, x0, x1, y0, y1))
                        continue;
                    drawLine(out, static_cast<std::size_t>(k * N), extentOut.x, m, x0, x1, y0, y1);
                }
    return out;
}

} // namespace NuvekReference
