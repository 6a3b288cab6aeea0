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
    int code = 0;
    if (x < 0)
        code = 1;
    else if (x > xmax)
        code = 2;
    if (y < 0)
        code = code + 8;
    else if (y > ymax)
        code = code + 4;
    return code;
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
        double x = 0.0;
        double y = 0.0;
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
        if (codeA != 0)
        {
            xA = x;
            yA = y;
            codeA = outcode(xA, yA, xmax, ymax);
        }
        else
        {
            xB = x;
            yB = y;
            codeB = outcode(xB, yB, xmax, ymax);
        }
        if (codeA == 0 && codeB == 0)
            return true;
    }
    return false;
}

inline bool clampLine(Nuvek::Vector const& extent, long long& xA, long long& xB, long long& yA, long long& yB)
{
    double a = static_cast<double>(xA), b = static_cast<double>(xB), c = static_cast<double>(yA),
           d = static_cast<double>(yB);
    bool const result = clampLine(extent, a, b, c, d);
    xA = static_cast<long long>(std::trunc(a + 0.5));
    xB = static_cast<long long>(std::trunc(b + 0.5));
    yA = static_cast<long long>(std::trunc(c + 0.5));
    yB = static_cast<long long>(std::trunc(d + 0.5));
    return result;
}

inline void drawLine(std::vector<double>& plane, std::size_t start, long long rowStride, double value, long long x0,
                     long long x1, long long y0, long long y1)
{
    long long const dX = x1 - x0;
    long long const dY = y1 - y0;
    bool const steep = static_cast<std::int32_t>(std::llabs(dY)) > static_cast<std::int32_t>(std::llabs(dX));
    long long const n = steep ? dY : dX;
    long long const s = n >= 0 ? 1 : -1;
    double slope = 0.0;
    if (n != 0)
        slope = static_cast<double>(steep ? dX : dY) / static_cast<double>(std::llabs(n));
    double acc = 0.0;
    if (!steep)
    {
        for (long long k = 0; k != n + s; k += s)
        {
            long long const x = x0 + k;
            long long const y = static_cast<long long>(std::trunc(static_cast<double>(y0) + acc + 0.5));
            plane[start + static_cast<std::size_t>(x + y * rowStride)] += value;
            acc += slope;
        }
    }
    else
    {
        for (long long y = y0; y != y1 + s; y += s)
        {
            long long const x = static_cast<long long>(std::trunc(static_cast<double>(x0) + acc + 0.5));
            plane[start + static_cast<std::size_t>(x + y * rowStride)] += value;
            acc += slope;
        }
    }
}

// `gradients` holds what the Sobel vector filter wrote for box grown by r = trunc(radius + 0.5) in
// x and y: 2 * numChannels planes, x then y gradient per channel. Returns the output for box.
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
                    long long const qx = x - r, qy = y - r;
                    double xA = static_cast<double>(qx - dx), yA = static_cast<double>(qy - dy);
                    double xB = static_cast<double>(qx + dx), yB = static_cast<double>(qy + dy);
                    if (!clampLine(extentOut, xA, xB, yA, yB))
                        continue;
                    long long const x0 = static_cast<long long>(std::trunc(xA + 0.5));
                    long long const x1 = static_cast<long long>(std::trunc(xB + 0.5));
                    long long const y0 = static_cast<long long>(std::trunc(yA + 0.5));
                    long long const y1 = static_cast<long long>(std::trunc(yB + 0.5));
                    drawLine(out, static_cast<std::size_t>(k * N), extentOut.x, m, x0, x1, y0, y1);
                }
    return out;
}

} // namespace NuvekReference
