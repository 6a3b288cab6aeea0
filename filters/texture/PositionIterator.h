#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Vector.h>

namespace Nuvek {

/// \brief Walks the positions of a sub-box of a region buffer, x fastest, then y, then z, yielding
/// the linear index of each.
///
/// The sub-box is first intersected with the buffer's box (the origin to extent - 1); an empty
/// intersection yields nothing. Positions are in the coordinates of the buffer being walked.
///
/// \code
/// PositionIterator positions(extent, box);
/// long long index;
/// while (positions.next(index))
///     out[index] = 0.0;
/// \endcode
class PositionIterator
{
public:
    PositionIterator(Vector const& extent, Box const& box);

    /// Advances to the next position: false at the end, else true with its linear index in `index`.
    bool next(long long& index);
    /// The position last yielded.
    Vector const& getPosition() const { return current; }

private:
    Vector extent;
    Box box;
    Vector strides;
    Vector current;
    long long index = 0;
};

} // namespace Nuvek
