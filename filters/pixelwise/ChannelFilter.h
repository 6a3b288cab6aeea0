#pragma once

#include <nuvek/core/Filter.h>
#include <nuvek/core/RowBandExactness.h>

#include <string>

namespace Nuvek {

/// \brief Presents a contiguous run of the input's channels as an image of its own: one channel
/// chosen by index or by name, or a block chosen by first index and count.
///
/// The filter asks its input for the requested box at the requested level, with all its channels,
/// and copies the selected planes, which are contiguous, in one block. An empty box returns at once
/// without asking the input. The constructors do not compare the indices with the input's channel
/// count; openRegion does, and throws std::runtime_error instead of reading channels the input does
/// not have.
///
/// getChannelName(index) accepts 0 to getNumChannels() inclusive, the count itself on purpose, and
/// returns the input's name of channel index - firstChannel: for a selection starting at channel 0,
/// getChannelName(1) is the input's channel 1 name. Extent, levels, voxel size, value range and
/// hash are the input's. openRegion may run on several threads at once when the input allows it.
class ChannelFilter : public Filter, public RowBandExactness
{
public:
    /// Each value depends only on the input's values, so bands are exact when they are exact below.
    bool splitsExactlyInRowBands() const override { return RowBandExactness::splitsExactly(input); }

    ChannelFilter(Image* input, long long channel, bool ownsInput);
    ChannelFilter(Image* input, long long firstChannel, long long numChannels, bool ownsInput);
    /// Selects the first input channel whose name equals channelName exactly; throws
    /// std::runtime_error with the message No channel named "<channelName>" found. when none does.
    ChannelFilter(Image* input, std::string const& channelName, bool ownsInput);

    long long getNumChannels() const override;
    void openRegion(double* out, long long level, Box const& box) override;
    std::string getChannelName(long long index) override;

private:
    long long firstChannel;
    long long numChannels;
};

} // namespace Nuvek
