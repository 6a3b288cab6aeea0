#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>
#include <nuvek/filters/texture/LBPComputer.h>

#include <array>
#include <memory>

namespace Nuvek {

/// \brief The rotation-invariant uniform local binary pattern class (0 .. 9) of every voxel of a
/// single-channel image.
///
/// Eight neighbours within the voxel's slice are compared with it: (x, y - r), (x + r, y), (x, y + r),
/// (x - r, y) and the diagonals (x +- d, y +- d), with r the radius rounded half up and d = r / sqrt(2)
/// rounded the same way, both from the magnitude of the radius given (radius 1 gives the 3 x 3
/// neighbourhood). Sampling is at these integer offsets only. The class comes from an owned
/// LBPComputer.
///
/// The filter asks its input for the requested box clipped to the image and grown by r in x and y,
/// not clipped again, at the same level: near the border the neighbours are whatever the input
/// delivers outside its extent. Voxels of the requested box outside the image are 0. The value range
/// is (0, 9) and the one channel is named "LBP".
///
/// The constructors report an input with other than one channel by std::runtime_error, whose message
/// begins with "Error: " and ends with a newline. A std::string thrown while constructing (by the
/// input, for example) is written to the standard error stream as it is and thrown again.
/// A request inside the image of more than 2^19 values (all output channels) is computed in bands
/// of whole rows, each asked of the input like a request of its own, so that the temporaries stay
/// in the caches. Bands are used only over an input that gives the same bits in row bands (RowBandExactness), so the values are those of one request.
/// openRegion may run on several threads at once; init must not run concurrently with anything else
/// on the same filter.
class LBPFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    /// Radius 1.
    LBPFilter(Image* input, bool ownsInput);
    LBPFilter(Image* input, double radius, bool ownsInput);

    /// Checks the input's channel count, replaces the computer and sets the radius. Throws
    /// std::runtime_error for an input with other than one channel, then for a radius that is not a
    /// finite number of at most 1e9 voxels.
    void init(double radius);

    long long getNumChannels() const override;
    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;

private:
    std::unique_ptr<LBPComputer> computer;
    long long radius = 0;
    long long diagonalOffset = 0;
    // The computer's class of every code, as doubles, asked once per init.
    std::array<double, 256> classOfCode{};
};

} // namespace Nuvek
