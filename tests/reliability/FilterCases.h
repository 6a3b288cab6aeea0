#pragma once

#include <nuvek/core/Image.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace NuvekTest {

/// Objects a filter under test needs besides its input (a channel bank, a second chain), kept alive
/// as long as the filter.
struct Keep
{
    std::vector<std::shared_ptr<void>> objects;
};

/// One filter of the library, built over a given input, with what it promises about threads and tiles.
struct FilterCase
{
    std::string name;
    /// Channels the source should have.
    long long channels;
    std::function<std::unique_ptr<Nuvek::Image>(Nuvek::Image* input, Keep& keep)> make;
    /// Whether openRegion may run on several threads at once.
    bool shareable = true;
    /// Empty when tiles inside the image give the same bits as one large request; otherwise why not,
    /// and the test then compares within `tileTolerance` (or not at all when it is negative).
    std::string tileDependence;
    double tileTolerance = 0.0;
};

/// Every filter class of the library, with typical parameters, in one list.
std::vector<FilterCase> const& filterCases();

} // namespace NuvekTest
