#pragma once

#include <nuvek/core/Filter.h>

#include <cstdint>
#include <vector>

namespace Nuvek {

/// \brief Base of the voxel-wise combinations of two images of equal geometry.
///
/// Both inputs must have the same number of channels and the same extent at level 0; other levels
/// are not compared. Extent, levels, voxel size, channel count and channel names are those of the
/// first input. The filter manages its inputs itself: the flags say which of the two it deletes when
/// it is destroyed (an image passed as both inputs is deleted once). A constructor that throws
/// deletes neither input, whatever the flags, so the caller still owns them.
///
/// getHash is a counter that starts at 0 and rises by exactly one on a call that sees a new stamp on
/// either input or both; it updates the filter's state and must not run concurrently with anything
/// else on the same filter. The base class itself forwards openRegion to the first input; the
/// subclasses combine the two.
class BinaryOperatorFilter : public Filter
{
public:
    /// Throws std::runtime_error when an input is null, or when the inputs differ in channel count
    /// or in level-0 extent (checked in that order).
    BinaryOperatorFilter(Image* firstInput, Image* secondInput, bool ownsFirstInput, bool ownsSecondInput);
    ~BinaryOperatorFilter() override;

    std::uint64_t getHash() override;

protected:
    /// Reads the first input's box into out and returns the second input's values of the same box,
    /// read into a zeroed work buffer: what both subclasses combine voxel by voxel.
    std::vector<double> openBothInputs(double* out, long long level, Box const& box);

    Image* firstInput;
    Image* secondInput;
    bool ownsFirstInput;
    bool ownsSecondInput;
    std::uint64_t hashCounter;
    std::uint64_t firstInputHash;
    std::uint64_t secondInputHash;
};

} // namespace Nuvek
