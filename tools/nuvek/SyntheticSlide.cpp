#include "SyntheticSlide.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace NuvekTool {

namespace {

constexpr long long cellSize = 40;

std::uint64_t mix(std::uint64_t value)
{
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

double unit(std::uint64_t value)
{
    return static_cast<double>(mix(value) >> 11) * (1.0 / 9007199254740992.0);
}

std::uint64_t key(std::uint64_t seed, long long x, long long y, std::uint64_t salt)
{
    return mix(seed ^
               mix(static_cast<std::uint64_t>(x) * 0x100000001b3ULL ^ mix(static_cast<std::uint64_t>(y) + salt)));
}

// Optical densities per unit of stain (red, green, blue).
constexpr double hematoxylin[3] = {0.65, 0.70, 0.29};
constexpr double eosin[3] = {0.07, 0.99, 0.11};

} // namespace

SyntheticSlide::SyntheticSlide(long long size, std::uint64_t seed) : size(size), seed(seed)
{
    if (size < 1)
        throw std::runtime_error("The synthetic slide needs a size of at least 1.");
}

Nuvek::Vector SyntheticSlide::getExtent(long long level) const
{
    return Nuvek::Vector(size >> level, size >> level, 1);
}

long long SyntheticSlide::getNumChannels() const
{
    return 3;
}

long long SyntheticSlide::getNumLevels() const
{
    return 1;
}

Nuvek::ValueRange<double> SyntheticSlide::getValueRange() const
{
    return Nuvek::ValueRange<double>(0.0, 255.0);
}

Nuvek::Vector SyntheticSlide::getVoxelSize(long long level) const
{
    // 250 nm per voxel at level 0, a common scan resolution.
    return Nuvek::Vector(250LL << level, 250LL << level, 1000);
}

std::string SyntheticSlide::getChannelName(long long index)
{
    static char const* const names[] = {"Red", "Green", "Blue"};
    if (index < 0 || index > 2)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return names[index];
}

std::uint64_t SyntheticSlide::getHash()
{
    return seed;
}

SyntheticSlide::Cell SyntheticSlide::cellAt(long long cellX, long long cellY) const
{
    Cell cell{};
    double const cx = (static_cast<double>(cellX) + 0.2 + 0.6 * unit(key(seed, cellX, cellY, 1))) * cellSize;
    double const cy = (static_cast<double>(cellY) + 0.2 + 0.6 * unit(key(seed, cellX, cellY, 2))) * cellSize;
    // Nuclei gather where the tissue is dense.
    cell.present = unit(key(seed, cellX, cellY, 3)) < 0.85 * tissueAt(cx, cy);
    double const radius = 6.0 + 6.0 * unit(key(seed, cellX, cellY, 4));
    double const elongation = 1.0 + 0.6 * unit(key(seed, cellX, cellY, 5));
    double const angle = 3.14159265358979 * unit(key(seed, cellX, cellY, 6));
    cell.cx = cx;
    cell.cy = cy;
    cell.a = radius * elongation;
    cell.b = radius / elongation;
    cell.cosAngle = std::cos(angle);
    cell.sinAngle = std::sin(angle);
    cell.strength = 0.7 + 0.5 * unit(key(seed, cellX, cellY, 7));
    return cell;
}

double SyntheticSlide::latticeNoise(double x, double y, double scale, std::uint64_t salt) const
{
    double const fx = x / scale;
    double const fy = y / scale;
    auto const ix = static_cast<long long>(std::floor(fx));
    auto const iy = static_cast<long long>(std::floor(fy));
    double const tx = fx - static_cast<double>(ix);
    double const ty = fy - static_cast<double>(iy);
    double const sx = tx * tx * (3.0 - 2.0 * tx);
    double const sy = ty * ty * (3.0 - 2.0 * ty);
    double const v00 = unit(key(seed, ix, iy, salt));
    double const v10 = unit(key(seed, ix + 1, iy, salt));
    double const v01 = unit(key(seed, ix, iy + 1, salt));
    double const v11 = unit(key(seed, ix + 1, iy + 1, salt));
    return (v00 * (1 - sx) + v10 * sx) * (1 - sy) + (v01 * (1 - sx) + v11 * sx) * sy;
}

// Tissue density in [0, 1]: broad structure with finer texture; gaps where it falls low.
double SyntheticSlide::tissueAt(double x, double y) const
{
    double const broad = latticeNoise(x, y, 700.0, 11) * 0.7 + latticeNoise(x, y, 160.0, 12) * 0.3;
    double const density = std::clamp((broad - 0.28) * 2.5, 0.0, 1.0);
    return density;
}

std::vector<SyntheticSlide::Nucleus> SyntheticSlide::nuclei() const
{
    std::vector<Nucleus> result;
    long long const cells = (size + cellSize - 1) / cellSize;
    for (long long cy = 0; cy < cells; ++cy)
        for (long long cx = 0; cx < cells; ++cx)
        {
            Cell const cell = cellAt(cx, cy);
            if (cell.present && cell.cx < static_cast<double>(size) && cell.cy < static_cast<double>(size))
                result.push_back(Nucleus{cell.cx, cell.cy});
        }
    return result;
}

void SyntheticSlide::openRegion(double* out, long long level, Nuvek::Box const& box)
{
    long long const voxels = box.getSize();
    if (voxels == 0)
        return;
    double const scale = std::ldexp(1.0, static_cast<int>(level));
    Nuvek::Vector const extent = getExtent(level);
    std::vector<Cell> cells;
    long long index = 0;
    for (long long z = box.min.z; z <= box.max.z; ++z)
        for (long long y = box.min.y; y <= box.max.y; ++y)
        {
            // The nuclei that can reach this row: the cells of the row band and its neighbours.
            double const fy = (static_cast<double>(y) + 0.5) * scale;
            long long const cellY = static_cast<long long>(std::floor(fy / cellSize));
            long long lastCellX = -1000000;
            for (long long x = box.min.x; x <= box.max.x; ++x, ++index)
            {
                if (x < 0 || y < 0 || z != 0 || x >= extent.x || y >= extent.y)
                {
                    for (long long c = 0; c < 3; ++c)
                        out[c * voxels + index] = 0.0;
                    continue;
                }
                double const fx = (static_cast<double>(x) + 0.5) * scale;
                long long const cellX = static_cast<long long>(std::floor(fx / cellSize));
                if (cellX != lastCellX)
                {
                    cells.clear();
                    for (long long dy = -1; dy <= 1; ++dy)
                        for (long long dx = -1; dx <= 1; ++dx)
                        {
                            Cell const cell = cellAt(cellX + dx, cellY + dy);
                            if (cell.present)
                                cells.push_back(cell);
                        }
                    lastCellX = cellX;
                }
                double const tissue = tissueAt(fx, fy);
                double const texture = 0.75 + 0.5 * latticeNoise(fx, fy, 9.0, 21);
                double stainH = 0.0;
                for (Cell const& cell : cells)
                {
                    double const u = ((fx - cell.cx) * cell.cosAngle + (fy - cell.cy) * cell.sinAngle) / cell.a;
                    double const v = (-(fx - cell.cx) * cell.sinAngle + (fy - cell.cy) * cell.cosAngle) / cell.b;
                    double const r2 = u * u + v * v;
                    if (r2 < 1.0)
                    {
                        // Chromatin: darker rim and grain inside.
                        double const grain = 0.8 + 0.4 * latticeNoise(fx, fy, 3.0, 31);
                        stainH = std::max(stainH, cell.strength * grain * (0.85 + 0.25 * r2));
                    }
                    else if (r2 < 1.3)
                        stainH = std::max(stainH, cell.strength * 0.85 * (1.3 - r2) / 0.3);
                }
                double const stainE = 0.35 * tissue * texture;
                double const noise = 0.02 * (unit(key(seed, x, y, 41 + static_cast<std::uint64_t>(level))) - 0.5);
                for (long long c = 0; c < 3; ++c)
                {
                    double const density = hematoxylin[c] * stainH + eosin[c] * stainE + 0.03 + noise;
                    out[c * voxels + index] =
                        std::clamp(std::floor(255.0 * std::pow(10.0, -density) + 0.5), 0.0, 255.0);
                }
            }
        }
}

} // namespace NuvekTool
