#pragma once

#include <nuvek/core/Filter.h>

#include <memory>

namespace Nuvek {

class WorkBufferPool;

/// Which extreme a MorphologicFilter selects.
enum class MorphologicType
{
    Erosion = 0,  ///< the minimum of the window
    Dilation = 1, ///< the maximum of the window
};

/// \brief Grey-value erosion (minimum) or dilation (maximum) of every channel over a k x k square in
/// the x/y plane, each z slice on its own.
///
/// The square is taken separably: first the extreme of k values along x, then of k of those along y.
/// Each window of k values is held in a ring in which the value at position j of its row (or column)
/// of the padded region sits in slot j mod k; the extreme is the first one met scanning the slots in
/// order 0 .. k - 1, replacing the best only by a strictly better value. So a NaN in slot 0 is the
/// result, a NaN in any other slot is passed over, and between -0.0 and +0.0 the earlier slot wins.
/// Windows free of NaN and -0.0 are computed with running extrema (van Herk / Gil-Werman), whose
/// cost per value does not grow with k, or with a direct sweep for small k; both give exactly what
/// the slot scan gives there, and windows holding NaN or -0.0 are scanned as described; requests
/// fewer than four voxels wide are computed by the slot scan alone. Because the slots count from the
/// start of the padded request, a result that NaN or -0.0 decide can differ between a large request
/// and tiles of it; without them tiles agree exactly.
///
/// The filter asks its input for the box grown by k / 2 in x and y at the same level, not clipped to
/// the image: at the border the input's own values outside its extent take part. Channels, value
/// range and names are the input's. The constructor rejects an even kernel size; a negative odd size
/// is accepted, but openRegion then throws std::runtime_error. openRegion may run on several threads
/// at once. Each call borrows the buffer of the grown box from buffers the filter keeps for later
/// calls (up to 64 MiB each; larger ones are freed), so that a large request does not map and fault
/// in fresh memory every time.
template <MorphologicType type>
class MorphologicFilter : public Filter
{
public:
    /// Throws std::runtime_error for an even kernel size.
    MorphologicFilter(Image* input, long long kernelSize, bool ownsInput);
    ~MorphologicFilter() override;

    void openRegion(double* out, long long level, Box const& box) override;

private:
    long long kernelSize;
    std::unique_ptr<WorkBufferPool> workBuffers;
};

using ErosionFilter = MorphologicFilter<MorphologicType::Erosion>;
using DilationFilter = MorphologicFilter<MorphologicType::Dilation>;

extern template class MorphologicFilter<MorphologicType::Erosion>;
extern template class MorphologicFilter<MorphologicType::Dilation>;

} // namespace Nuvek
