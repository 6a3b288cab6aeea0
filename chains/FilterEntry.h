#pragma once

#include <nuvek/chains/Chain.h>
#include <nuvek/chains/FilterArguments.h>
#include <nuvek/chains/FilterParameter.h>

#include <functional>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief One filter of the registry: how a chain expression names and parameterises it, how it is
/// built, and what it promises.
///
/// Everything that lists filters (the nuvek tool, the Python package, the tests and the fuzzer)
/// reads these entries, so a filter added to the registry reaches all of them.
struct FilterEntry
{
    std::string name;
    std::string description;
    std::vector<FilterParameter> parameters;
    /// How many sub-chains in parentheses the filter takes: at least / at most (-1: any number).
    int minChains = 0;
    int maxChains = 0;
    /// Whether the built filter's openRegion may run on several threads at once.
    bool shareable = true;
    /// Empty when tiles inside the image give the same bits as one large request; otherwise why not.
    std::string tileDependence;
    /// With a tileDependence: the largest absolute difference between tiles and one request, or
    /// negative when none can be promised.
    double tileTolerance = 0.0;
    /// Argument texts that build a typical filter, e.g. "5" and "5 sum round" for the box filter.
    std::vector<std::string> examples;
    /// Stages that make a random input fit for the examples ("" or e.g. "threshold 128" for a mask).
    std::string exampleInput;
    /// How many channels the input of the examples has.
    long long inputChannels = 1;
    /// The C++ classes the entry builds (for the Python bindings, which bind each by this name).
    std::vector<std::string> classNames;
    /// Builds the filter over input (sub-chains arrive in arguments.chains) and adds it to chain.
    std::function<Image*(Chain& chain, Image* input, FilterArguments const& arguments)> build;
};

} // namespace Nuvek
