#include "support/RecordingImage.h"

namespace NuvekTest {

void RecordingImage::openRegion(double* out, long long level, Nuvek::Box const& box)
{
    {
        std::lock_guard<std::mutex> guard(mutex);
        log.push_back(Request{level, box});
    }
    source->openRegion(out, level, box);
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

} // namespace NuvekTest
