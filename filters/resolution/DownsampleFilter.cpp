#include <nuvek/filters/resolution/DownsampleFilter.h>

#include <nuvek/core/Conversions.h>

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

} // namespace Nuvek
