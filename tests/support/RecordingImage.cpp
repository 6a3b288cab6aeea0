#include "support/RecordingImage.h"

namespace NuvekTest {

RecordingImage::RecordingImage(std::shared_ptr<Nuvek::MemoryImage> source) : source(std::move(source))
{
}

Nuvek::Vector RecordingImage::getExtent(long long level) const
{
    return source->getExtent(level);
}

long long RecordingImage::getNumChannels() const
{
    return source->getNumChannels();
}

long long RecordingImage::getNumLevels() const
{
    return source->getNumLevels();
}

Nuvek::ValueRange<double> RecordingImage::getValueRange() const
{
    return source->getValueRange();
}

Nuvek::Vector RecordingImage::getVoxelSize(long long level) const
{
    return source->getVoxelSize(level);
}

void RecordingImage::openRegion(double* out, long long level, Nuvek::Box const& box)
{
    {
        std::lock_guard<std::mutex> guard(mutex);
        log.push_back(Request{level, box});
    }
    source->openRegion(out, level, box);
}

std::string RecordingImage::getChannelName(long long index)
{
    return source->getChannelName(index);
}

std::uint64_t RecordingImage::getHash()
{
    return stamp;
}

std::vector<Request> RecordingImage::requests() const
{
    std::lock_guard<std::mutex> guard(mutex);
    return log;
}

void RecordingImage::clearRequests()
{
    std::lock_guard<std::mutex> guard(mutex);
    log.clear();
}

void RecordingImage::touch()
{
    ++stamp;
}

} // namespace NuvekTest
