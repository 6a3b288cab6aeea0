#include <nuvek/filters/resolution/DownsampleFilter.h>

#include <nuvek/core/Conversions.h>

#include <nuvek/core/RowBandExactness.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace Nuvek {

DownsampleFilter::DownsampleFilter(Image* input, long long sourceLevel, bool ownsInput)
    : Filter(input, ownsInput), sourceLevel(sourceLevel)
{
}

void DownsampleFilter::openRegion(double* out, long long level, Box const& box)
{
    if (sourceLevel >= level)
    {
        input->openRegion(out, level, box);
        return;
    }
    openRegionDownsampled(out, level, box);
}

void DownsampleFilter::openRegionDownsampled(double* out, long long level, Box const& box)
{
    Vector const boxExtent = box.getExtent();
    long long const numChannels = input->getNumChannels();
    Box const clipped = box.intersected(Box(input->getExtent(level)));
    // Nothing of the box lies inside the image, so nothing is written and nothing needs reading.
    if (clipped.isEmpty())
        return;
    if (level - sourceLevel > 62)
        throw std::runtime_error("DownsampleFilter: cannot average blocks of more than 2^62 voxels per axis.");
    Vector const clippedExtent = clipped.getExtent();

    // The same area at sourceLevel: exactly 2^(level - sourceLevel) times the clipped extent in x and y.
    Box const sourceBox = convertToLevel(clipped, level, sourceLevel);
    Vector const sourceExtent = sourceBox.getExtent();

    if (clipped == box && inBands(box, level))
    {
        openRegionInBands(out, level, box);
        return;
    }
    std::vector<double> work(static_cast<std::size_t>(sourceBox.getSize() * numChannels), 0.0);
    input->openRegion(work.data(), sourceLevel, sourceBox);

    // A box wholly inside the image has the clipped box's layout, so the block means can go straight
    // into out: the same sums, one copy fewer.
    if (clipped == box)
    {
        downsampleBufferFullLevel(work.data(), out, sourceExtent, numChannels, level - sourceLevel);
        return;
    }
    // Reduced in place: the means of the blocks now open the buffer with the strides of clippedExtent.
    downsampleBufferFullLevel(work.data(), work.data(), sourceExtent, numChannels, level - sourceLevel);
    copyImageBuffer(work.data(), clippedExtent, Box(clippedExtent), out, boxExtent, clipped.min - box.min, numChannels);
}

long long DownsampleFilter::rowsPerBand(Box const& box, long long level) const
{
    // Each output row reads 2^(level - sourceLevel) rows of that many times its width.
    double const sourceRowValues = std::ldexp(static_cast<double>(box.getExtent().x * box.getExtent().z),
                                              2 * static_cast<int>(level - sourceLevel)) *
                                   static_cast<double>(input->getNumChannels());
    return std::max(1LL, static_cast<long long>(static_cast<double>(bandSourceValues) / sourceRowValues));
}

bool DownsampleFilter::inBands(Box const& box, long long level) const
{
    return level - sourceLevel <= 16 && box.getExtent().y > rowsPerBand(box, level) &&
           RowBandExactness::splitsExactly(input);
}

void DownsampleFilter::openRegionInBands(double* out, long long level, Box const& box)
{
    // Every output row is the mean of its own block rows, so bands of output rows give the same
    // bits as the whole box over an input that gives the same bits in bands, while the source
    // values held at once stay about bandSourceValues instead of 4^(level - sourceLevel) times the box.
    long long const numChannels = input->getNumChannels();
    Vector const extent = box.getExtent();
    long long const rows = rowsPerBand(box, level);
    std::vector<double> work;
    std::vector<double> bandOut;
    for (long long y = box.min.y; y <= box.max.y; y += rows)
    {
        Box const band(Vector(box.min.x, y, box.min.z),
                       Vector(box.max.x, std::min(box.max.y, y + rows - 1), box.max.z));
        Box const sourceBand = convertToLevel(band, level, sourceLevel);
        work.assign(static_cast<std::size_t>(sourceBand.getSize() * numChannels), 0.0);
        input->openRegion(work.data(), sourceLevel, sourceBand);
        bandOut.resize(static_cast<std::size_t>(band.getSize() * numChannels));
        downsampleBufferFullLevel(work.data(), bandOut.data(), sourceBand.getExtent(), numChannels,
                                  level - sourceLevel);
        copyImageBuffer(bandOut.data(), band.getExtent(), Box(band.getExtent()), out, extent, band.min - box.min,
                        numChannels);
    }
}

} // namespace Nuvek
