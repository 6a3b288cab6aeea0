#pragma once

#include <nuvek/filters/colour/PixelProcessingFilter.h>

#include <array>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief The amount of one reference colour in a colour image, by optical-density unmixing.
///
/// The selected channels of the bank are the colour components, taken on an 8-bit scale with 256 as
/// full transmission. Each value v becomes the optical density OD(v) = -log10(max(1, v) / 256), so
/// values below 1, and NaN, count as 1. An output voxel is 1 - min(1, 10^-d) with
/// d = sum over i of weights[i] * OD(values[i]): 0.0 where the colour is absent (or d is not
/// positive, or NaN), approaching 1.0 for strong absorption. The weights are one row of the matrix
/// that computeMatrixFromColors builds from the reference colours; until reinit gives them, the
/// weights are empty and the output is 0.0. processPixel throws std::runtime_error when it receives
/// fewer values than there are weights.
///
/// The filter reads the selected channels for the requested box and level; voxels outside the image
/// are 0.0. Every reinit raises getHash by one. openRegion may run on several threads at once when
/// the bank's image allows it; reinit must not run concurrently with it.
class ColorUnmixingFilter : public PixelProcessingFilter
{
public:
    /// Throws std::runtime_error naming the first channel the bank does not hold.
    ColorUnmixingFilter(ChannelBank* bank, std::vector<std::string> const& channelNames);

    long long getNumChannels() const override;
    /// (0, 1).
    ValueRange<double> getValueRange() const override;
    /// "" for channel 0; throws std::runtime_error for any other index.
    std::string getChannelName(long long index) override;

    double processPixel(std::vector<double> const& values) const override;

    /// Replaces the weights, one per selected channel in selection order, and raises the hash.
    virtual void reinit(std::vector<double> const& weights);

    /// The unmixing matrix of the reference colours: one row per colour, one column per colour
    /// component. Row k is the weight vector that unmixes colour k. The optical densities of each
    /// colour are scaled to unit length; the matrix is then (OD * OD^T)^-1 * OD. A colour of no density
    /// (all components 256), or colours that are linearly dependent, give infinite or NaN
    /// weights without an error.
    static std::vector<std::vector<double>> computeMatrixFromColors(std::vector<std::vector<double>> const& colors);

protected:
    /// The values of processPixel, a block of voxels at a time: the same operations per voxel in the
    /// same order, so the same bits, without a call per voxel. A subclass's own processPixel is
    /// called per voxel instead.
    void processRow(double const* const* planes, double* out, long long count,
                    std::vector<double>& values) const override;

private:
    /// log10(max(1, value) / 256) * weights[channel], the term of one channel in the density.
    double weightedLogarithm(std::size_t channel, double value) const;

    std::vector<double> weights;
    // log10(max(1, v) / 256) of the integers v = 0 .. 256, the values of 8-bit colour channels.
    std::array<double, 257> integerLogs;
    // integerLogs[v] * weights[c] at c * 257 + v: the density terms of integer values.
    std::vector<double> weightedLogs;
};

} // namespace Nuvek
