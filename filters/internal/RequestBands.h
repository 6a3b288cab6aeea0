#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>

#include <functional>

namespace Nuvek {

/// \brief Computes one large request as a series of smaller ones: bands of whole rows of the box,
/// each spanning all of its slices.
///
/// A filter whose values do not depend on the box asked for gives the same bits either way, but a
/// band's temporaries (the filter's own and those of every filter below it, which are asked for the
/// band grown by their margins) stay in the processor's caches and are reused from the heap, where
/// those of one large request are mapped afresh and fault in page by page. Only requests that lie
/// inside the image are split: outside it some inputs give values that depend on the box.
class RequestBands
{
public:
    /// Values (all channels) a band aims at: about a 512 x 512 tile of one channel.
    static constexpr long long bandValues = 1LL << 18;
    /// Requests of more values than this are split.
    static constexpr long long largeRequestValues = 2 * bandValues;

    /// Computes a band: fills bandOut, a region buffer of band, with all of the filter's channels.
    using Compute = std::function<void(double* bandOut, Box const& band)>;

    /// Whether a request for box of an image with numChannels channels and the given extent at the
    /// requested level is split: it is large, lies inside the image, holds more than one band, and the
    /// filter's input gives the same bits in row bands (RowBandExactness), so that the bands it is
    /// asked for change nothing below.
    static bool splits(Image const* input, Box const& box, long long numChannels, Vector const& levelExtent,
                       long long rowMultiple = 1);

    /// The rows of box a band holds: about bandValues values, but at least 64 rows, so that the rows a
    /// filter reads beyond a band (its margin) do not outweigh the band itself; a multiple of
    /// rowMultiple (at least one), for filters whose results depend on a row's place modulo it.
    static long long rowsPerBand(Box const& box, long long numChannels, long long rowMultiple = 1);

    /// Fills out, a region buffer of box with numChannels channels, band by band in order of y, each
    /// band starting a multiple of rowMultiple rows below the box's first row. A single channel of a
    /// single slice is computed in place; otherwise every band goes through a buffer of its own and is
    /// copied into out.
    static void run(double* out, Box const& box, long long numChannels, Compute const& compute,
                    long long rowMultiple = 1);
};

} // namespace Nuvek
