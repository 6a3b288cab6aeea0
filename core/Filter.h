#pragma once

#include <nuvek/core/Image.h>

namespace Nuvek {

/// \brief Base of every filter: an image computed from an input image.
///
/// Every operation is forwarded to the input with the same arguments; a filter overrides only what
/// it changes. getHash returns the input's stamp, so it changes exactly when the input's does.
/// When ownsInput is true the input is deleted with the filter. A filter is not copyable.
class Filter : public Image
{
public:
    /// Throws std::runtime_error when input is null.
    Filter(Image* input, bool ownsInput);
    Filter(Filter const&) = delete;
    Filter& operator=(Filter const&) = delete;
    ~Filter() override;

    std::string getURL() const override;
    Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    ValueRange<double> getValueRange() const override;
    Vector getVoxelSize(long long level) const override;
    Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getSliceName(long long index) override;
    std::string getChannelName(long long index) override;
    std::string getId() const override;
    std::string getGroupId() const override;
    std::uint64_t getHash() override;
    Image* getViewableRepresentation() override;

protected:
    Image* input;
    bool ownsInput;
};

} // namespace Nuvek
