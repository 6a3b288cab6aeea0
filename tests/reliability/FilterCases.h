#pragma once

#include <nuvek/core/Image.h>

#include <memory>
#include <string>
#include <vector>

namespace NuvekTest {

/// One example of a filter of the registry, built over a given input, with what the filter promises
/// about threads and tiles.
struct FilterCase
{
    /// The stage as a chain expression writes it, e.g. "box 5 sum round".
    std::string name;
    /// Channels the source should have.
    long long channels;
    /// The chain over input: stages that prepare the input, then the filter. The returned image
    /// owns the chain (input not included).
    std::unique_ptr<Nuvek::Image> make(Nuvek::Image* input) const;
    /// Whether openRegion may run on several threads at once.
    bool shareable = true;
    /// Empty when tiles inside the image give the same bits as one large request; otherwise why not,
    /// and the test then compares within `tileTolerance` (or not at all when it is negative).
    std::string tileDependence;
    double tileTolerance = 0.0;
    /// The whole expression make() builds.
    std::string expression;
};

/// Every example of every filter of the registry, in registry order.
std::vector<FilterCase> const& filterCases();

} // namespace NuvekTest
