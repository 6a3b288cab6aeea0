#include "filters/internal/RequestBands.h"
#include "filters/internal/TargetClones.h"
#include <nuvek/filters/texture/LBPFilter.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Offsets of the eight neighbours in a plane whose rows are rowStride apart, in code bit order.
std::array<long long, 8> neighbourOffsets(long long r, long long d, long long rowStride)
{
    return {-d * rowStride - d, -r * rowStride, -d * rowStride + d, r,
            d * rowStride + d,  r * rowStride,  d * rowStride - d,  -r};
}

// One row of classes: the code of each centre, then its class from the table.
NUVEK_TARGET_CLONES void classifyRow(double const* centre, double* target, long long width,
                                     std::array<long long, 8> const& offsets, double const* classOfCode)
{
    double const* n0 = centre + offsets[0];
    double const* n1 = centre + offsets[1];
    double const* n2 = centre + offsets[2];
    double const* n3 = centre + offsets[3];
    double const* n4 = centre + offsets[4];
    double const* n5 = centre + offsets[5];
    double const* n6 = centre + offsets[6];
    double const* n7 = centre + offsets[7];
    for (long long x = 0; x < width; ++x)
    {
        double const c = centre[x];
        unsigned const code = static_cast<unsigned>(n0[x] >= c) | static_cast<unsigned>(n1[x] >= c) << 1 |
                              static_cast<unsigned>(n2[x] >= c) << 2 | static_cast<unsigned>(n3[x] >= c) << 3 |
                              static_cast<unsigned>(n4[x] >= c) << 4 | static_cast<unsigned>(n5[x] >= c) << 5 |
                              static_cast<unsigned>(n6[x] >= c) << 6 | static_cast<unsigned>(n7[x] >= c) << 7;
        target[x] = classOfCode[code];
    }
}

} // namespace

LBPFilter::LBPFilter(Image* input, bool ownsInput)
try : Filter(input, ownsInput)
{
    init(1.0);
}
catch (std::string const& message)
{
    std::cerr << message;
    throw std::string(message);
}

LBPFilter::LBPFilter(Image* input, double radius, bool ownsInput)
try : Filter(input, ownsInput)
{
    init(radius);
}
catch (std::string const& message)
{
    std::cerr << message;
    throw std::string(message);
}

void LBPFilter::init(double radius)
{
    if (input->getNumChannels() != 1)
        throw std::runtime_error("Error: LBPFilter can only be constructed from images with one channel.\n");
    double const magnitude = std::fabs(radius);
    // Checked before converting: a larger or non-finite radius has no integer offset.
    if (!(magnitude <= 1e9))
        throw std::runtime_error("LBPFilter radius must be a finite number of at most 1e9 voxels.");
    computer = std::make_unique<LBPComputer>();
    this->radius = static_cast<long long>(magnitude + 0.5);
    diagonalOffset = static_cast<long long>(magnitude / 1.4142135623730951 + 0.5);

    // The computer decides the classes; asking it once per code spares a call per voxel.
    std::vector<double> neighbours(8);
    for (long long code = 0; code < 256; ++code)
    {
        for (int i = 0; i < 8; ++i)
            neighbours[static_cast<std::size_t>(i)] = ((code >> i) & 1) != 0 ? 1.0 : -1.0;
        classOfCode[static_cast<std::size_t>(code)] = static_cast<double>(computer->computeUniformLBP(0.0, neighbours));
    }
}

long long LBPFilter::getNumChannels() const
{
    return 1;
}

ValueRange<double> LBPFilter::getValueRange() const
{
    return ValueRange<double>(0.0, 9.0);
}

std::string LBPFilter::getChannelName(long long index)
{
    if (index != 0)
        throw std::runtime_error("Invalid channel index. Cannot determine its name.");
    return "LBP";
}

void LBPFilter::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    // Every voxel's class depends only on the input around it, so bands give the same bits.
    if (RequestBands::splits(input, box, getNumChannels(), getExtent(level)))
    {
        RequestBands::run(out, box, getNumChannels(),
                          [&](double* bandOut, Box const& band) { LBPFilter::openRegion(bandOut, level, band); });
        return;
    }
    Box const clipped = box.intersected(Box(input->getExtent(level)));
    long long const size = box.getSize();
    if (clipped.getSize() != size)
        std::fill(out, out + size, 0.0);
    if (clipped.isEmpty())
        return;

    // Not clipped again: beyond the border the neighbours are the input's decision.
    Box const expanded = clipped.expanded(Vector(radius, radius, 0));
    std::vector<double> work(static_cast<std::size_t>(expanded.getSize()), 0.0);
    input->openRegion(work.data(), level, expanded);

    Vector const workExtent = expanded.getExtent();
    Vector const clippedExtent = clipped.getExtent();
    Vector const boxExtent = box.getExtent();
    Vector const offset = clipped.min - box.min;
    std::array<long long, 8> const offsets = neighbourOffsets(radius, diagonalOffset, workExtent.x);
    for (long long z = 0; z < clippedExtent.z; ++z)
        for (long long y = 0; y < clippedExtent.y; ++y)
        {
            double const* centre = work.data() + (z * workExtent.y + y + radius) * workExtent.x + radius;
            double* target = out + ((z + offset.z) * boxExtent.y + y + offset.y) * boxExtent.x + offset.x;
            classifyRow(centre, target, clippedExtent.x, offsets, classOfCode.data());
        }
}

} // namespace Nuvek
