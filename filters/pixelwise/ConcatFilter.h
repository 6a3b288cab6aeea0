#pragma once

#include <nuvek/core/Filter.h>

#include <vector>

namespace Nuvek {

/// \brief Stacks the channels of several images of equal extent: the channels of the first input,
/// then those of the second, and so on.
///
/// Each input writes its planes straight into its place in the caller's buffer, for the requested
/// box and level. Only the level-0 extents are compared at construction. Extent, levels, voxel
/// size, value range and hash are those of the first input; the other inputs' ranges and stamps are
/// not consulted. The filter never deletes its inputs, whatever ownsInputs says: the caller keeps
/// them and must keep them alive as long as the filter. openRegion may run on several threads at
/// once when the inputs allow it.
class ConcatFilter : public Filter
{
public:
    /// Throws std::runtime_error when inputs is empty or holds a null pointer, and with the message
    /// "Image extents must match" at the first input whose level-0 extent differs from the first's.
    ConcatFilter(std::vector<Image*> const& inputs, bool ownsInputs);

    long long getNumChannels() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;

private:
    std::vector<Image*> inputs;
};

} // namespace Nuvek
