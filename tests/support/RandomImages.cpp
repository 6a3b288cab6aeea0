#include "support/RandomImages.h"

#include <limits>

namespace NuvekTest {

std::vector<double> randomValues(std::mt19937_64& random, long long count, ValueMix const& mix)
{
    std::uniform_real_distribution<double> uniform(mix.low, mix.high);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    std::vector<double> values(static_cast<std::size_t>(count));
    for (double& value : values)
    {
        double const pick = chance(random);
        if (pick < mix.specialShare)
            value = std::numeric_limits<double>::quiet_NaN();
        else if (pick < 2 * mix.specialShare)
            value = std::numeric_limits<double>::infinity();
        else if (pick < 3 * mix.specialShare)
            value = -std::numeric_limits<double>::infinity();
        else
            value = uniform(random);
    }
    return values;
}

std::shared_ptr<Nuvek::MemoryImage> randomImage(std::mt19937_64& random, Nuvek::Vector const& extent,
                                                long long numChannels, ValueMix const& mix)
{
    return std::make_shared<Nuvek::MemoryImage>(extent, numChannels,
                                                randomValues(random, extent.prod() * numChannels, mix));
}

} // namespace NuvekTest
