#pragma once

#include <nuvek/core/Image.h>

#include <cstdint>
#include <vector>

namespace NuvekTool {

/// \brief A brightfield RGB image computed on demand: hematoxylin-stained, nuclei-like ellipses on
/// paler eosin-stained tissue with gaps, values 0 to 255.
///
/// Every voxel is a pure function of its position and the seed, so any box can be opened on any
/// thread. Colours follow Beer-Lambert: the optical densities of the stains add up per channel and
/// the transmitted value is 255 * 10^-density. Only level 0 is offered.
class SyntheticSlide : public Nuvek::Image
{
public:
    struct Nucleus
    {
        double x, y;
    };

    SyntheticSlide(long long size, std::uint64_t seed);

    Nuvek::Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    Nuvek::ValueRange<double> getValueRange() const override;
    Nuvek::Vector getVoxelSize(long long level) const override;
    void openRegion(double* out, long long level, Nuvek::Box const& box) override;
    std::string getChannelName(long long index) override;
    std::uint64_t getHash() override;

    /// The centres of all nuclei placed, in level-0 voxels.
    std::vector<Nucleus> nuclei() const;

private:
    struct Cell
    {
        bool present;
        double cx, cy, a, b, cosAngle, sinAngle, strength;
    };
    Cell cellAt(long long cellX, long long cellY) const;
    double tissueAt(double x, double y) const;
    double latticeNoise(double x, double y, double scale, std::uint64_t salt) const;

    long long size;
    std::uint64_t seed;
};

} // namespace NuvekTool
