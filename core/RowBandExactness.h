#pragma once

#include <nuvek/core/Image.h>

namespace Nuvek {

/// \brief Mixed into an image whose values for a box stay the same bits when the box is asked for in
/// bands of whole rows (every column and slice of the box, consecutive ranges of rows).
///
/// Filters that compute a large request band by band ask this of their input first: below an input
/// whose values depend on the box asked for (a running sum started at the box's corner, votes clipped
/// to the box), splitting the request would change bits. An image that does not mix this class in
/// (an application's own image, a filter whose values depend on the box) is taken not to split
/// exactly, so requests over it are computed whole.
class RowBandExactness
{
public:
    virtual ~RowBandExactness();

    /// Whether this image gives the same bits for a box asked for in row bands as for the whole box.
    virtual bool splitsExactlyInRowBands() const = 0;

    /// The answer for any image: false for one that does not mix this class in.
    static bool splitsExactly(Image const* image);
};

} // namespace Nuvek
