#pragma once

#include <nuvek/core/Box.h>
#include <nuvek/core/Image.h>
#include <nuvek/core/Vector.h>
#include <nuvek/filters/framework/ValueRange.h>

namespace Nuvek {

/// \brief Counts, for every voxel of a box, how many values of the k x k window centred on it (x and
/// y, within the voxel's own z slice) fall into each of numBins bins.
///
/// Bin b covers [min + b * w, min + (b + 1) * w) with w = (range.max - range.min + 1) / numBins; a
/// value below the first bin, and NaN, count in bin 0, a value above the last bin counts in the last.
/// The result is numBins planes of counts stored as doubles, plane b for bin b.
///
/// compute(out, input, box, level) asks the input's first channel for the box grown by k / 2 in x and
/// y at the same level, not clipped to the image: border counts are made of whatever the input
/// delivers there. Where the box reaches outside the image, bin 0 is then set to 0 over slabs that
/// run along each crossed face: a low slab covers the outside strip and one more position, a high slab
/// starts at image extent + 1 - box.max in box coordinates, so it may cover more than lies outside.
/// The other bins keep their counts there.
///
/// Every column of the padded region keeps the bins of its last k values in a ring, so each input
/// value is binned once; the horizontal sum over k columns is kept running along the row, so the cost
/// per voxel does not grow with k. The counts are exact integers and equal those of a direct count.
///
/// The computer holds no state that compute changes: compute may run on several threads at once. A
/// negative kernel size is accepted by the constructor (only even sizes are rejected) but compute
/// refuses it with std::runtime_error.
class HistogramComputer
{
public:
    /// Throws std::runtime_error for an even kernel size, then for numBins <= 0.
    HistogramComputer(long long kernelSize, long long numBins, ValueRange<double> range);

    /// The bin of a value: (value - min) / binWidth truncated toward zero, at most numBins - 1, at
    /// least 0; NaN gives 0. Quotients beyond the integers saturate the same way.
    long long valueToBin(double value) const;

    /// The counts of box at level, from the input's first channel, into out (numBins * box.getSize()
    /// values). out is cleared first. An empty box leaves out and the input untouched.
    void compute(double* out, Image* input, Box box, long long level) const;

    /// Adds the counts to out without clearing it. `in` is one padded plane of (extent.x + k - 1) x
    /// (extent.y + k - 1) x extent.z values; out has numBins planes of extent.prod() values.
    void compute(double* out, double* in, Vector extent) const;

    long long getKernelSize() const;
    long long getNumBins() const;

private:
    // The kernel of compute: adds the counts to out, or stores them when add is false.
    void countWindows(double* out, double const* in, Vector const& extent, bool add) const;

    long long kernelSize;
    long long numBins;
    double binWidth;
    double minValue;
};

} // namespace Nuvek
