#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/MemoryImage.h>

#include <memory>
#include <mutex>
#include <vector>

namespace NuvekTest {

/// One openRegion call as a RecordingImage saw it.
struct Request
{
    long long level;
    Nuvek::Box box;
};

/// An image that implements only the eight pure operations of Image, serves the values of a
/// MemoryImage and logs every (level, box) it is asked for. Being a user-defined image, it also
/// shows that filters need nothing beyond those eight operations.
class RecordingImage : public Nuvek::Image
{
public:
    explicit RecordingImage(std::shared_ptr<Nuvek::MemoryImage> source) : source(std::move(source)) {}

    Nuvek::Vector getExtent(long long level) const override { return source->getExtent(level); }
    long long getNumChannels() const override { return source->getNumChannels(); }
    long long getNumLevels() const override { return source->getNumLevels(); }
    Nuvek::ValueRange<double> getValueRange() const override { return source->getValueRange(); }
    Nuvek::Vector getVoxelSize(long long level) const override { return source->getVoxelSize(level); }
    void openRegion(double* out, long long level, Nuvek::Box const& box) override;
    std::string getChannelName(long long index) override { return source->getChannelName(index); }
    std::uint64_t getHash() override { return stamp; }

    std::vector<Request> requests() const;
    void clearRequests();
    /// Raised by one on every call, so that filters see a new stamp.
    void touch() { ++stamp; }

private:
    std::shared_ptr<Nuvek::MemoryImage> source;
    mutable std::mutex mutex;
    std::vector<Request> log;
    std::uint64_t stamp = 0;
};

} // namespace NuvekTest
