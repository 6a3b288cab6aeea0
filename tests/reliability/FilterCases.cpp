#include "reliability/FilterCases.h"

#include <nuvek/NuvekChains.h>
#include <nuvek/core/Filter.h>

namespace NuvekTest {

namespace {

/// A built chain as one image: passes everything to the chain's output and owns the chain.
class OwnedChain : public Nuvek::Filter
{
public:
    explicit OwnedChain(std::unique_ptr<Nuvek::Chain> built)
        : Nuvek::Filter(built->output, false), chain(std::move(built))
    {
    }

private:
    std::unique_ptr<Nuvek::Chain> chain;
};

std::vector<FilterCase> makeCases()
{
    std::vector<FilterCase> cases;
    for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
        for (std::string const& example : entry.examples)
        {
            FilterCase test;
            test.name = entry.name + (example.empty() ? "" : " " + example);
            test.channels = entry.inputChannels;
            test.shareable = entry.shareable;
            test.tileDependence = entry.tileDependence;
            test.tileTolerance = entry.tileTolerance;
            test.expression = (entry.exampleInput.empty() ? "" : entry.exampleInput + " | ") + test.name;
            cases.push_back(test);
        }
    return cases;
}

} // namespace

std::unique_ptr<Nuvek::Image> FilterCase::make(Nuvek::Image* input) const
{
    return std::make_unique<OwnedChain>(
        Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(expression), input));
}

std::vector<FilterCase> const& filterCases()
{
    static std::vector<FilterCase> const cases = makeCases();
    return cases;
}

} // namespace NuvekTest
