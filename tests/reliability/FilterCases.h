#pragma once

#include <nuvek/core/Image.h>
#include <nuvek/core/MemoryImage.h>

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
    /// Whether openRegion may run on several threads at once.
    bool shareable = true;
    /// Empty when tiles inside the image give the same bits as one large request; otherwise why not,
    /// and the test then compares within `tileTolerance` (or not at all when it is negative).
    std::string tileDependence;
    double tileTolerance = 0.0;
    /// The whole expression make() builds: stages that prepare the input, then the filter.
    std::string expression;

    /// The chain over input; the returned image owns the chain (input not included).
    std::unique_ptr<Nuvek::Image> make(Nuvek::Image* input) const;
    /// A source of `channels` random values in [0, 255) with the given share of NaN and of each
    /// infinity, and the value range [0, 255].
    std::shared_ptr<Nuvek::MemoryImage> source(Nuvek::Vector const& extent, unsigned seed,
                                               double specialShare = 0.0) const;
};

/// Every example of every filter of the registry, in registry order.
std::vector<FilterCase> const& filterCases();

} // namespace NuvekTest
