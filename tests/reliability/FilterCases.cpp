#include "reliability/FilterCases.h"

#include <nuvek/NuvekChains.h>
#include <nuvek/core/Filter.h>

#include "support/RandomImages.h"

namespace NuvekTest {

namespace {

/// A built chain as one image: passes everything to the chain's output and owns the chain.
class OwnedChain : public Nuvek::Filter
{
public:
    explicit OwnedChain(std::unique_ptr<Nuvek::Chain> built) : Filter(built->output, false), chain(std::move(built)) {}

private:
    std::unique_ptr<Nuvek::Chain> chain;
};

} // namespace

std::unique_ptr<Nuvek::Image> FilterCase::make(Nuvek::Image* input) const
{
    return std::make_unique<OwnedChain>(
        Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(expression), input));
}

std::shared_ptr<Nuvek::MemoryImage> FilterCase::source(Nuvek::Vector const& extent, unsigned seed,
                                                       double specialShare) const
{
    std::mt19937_64 random(seed);
    auto image = randomImage(random, extent, channels, {0.0, 255.0, specialShare});
    image->setValueRange({0.0, 255.0});
    return image;
}

std::vector<FilterCase> const& filterCases()
{
    static std::vector<FilterCase> const cases = [] {
        std::vector<FilterCase> all;
        for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
            for (std::string const& example : entry.examples)
            {
                std::string const name = entry.name + (example.empty() ? "" : " " + example);
                all.push_back({name, entry.inputChannels, entry.shareable, entry.tileDependence, entry.tileTolerance,
                               (entry.exampleInput.empty() ? "" : entry.exampleInput + " | ") + name});
            }
        return all;
    }();
    return cases;
}

} // namespace NuvekTest
