#pragma once

#include <nuvek/core/Filter.h>

#include <map>
#include <vector>

namespace Nuvek {

/// \brief Replaces whole colours: a voxel whose channel values equal a given colour exactly in every
/// channel gets all its channels overwritten with that colour's replacement; other voxels pass
/// through unchanged.
///
/// The filter asks its input for the requested box at the requested level, straight into the
/// caller's buffer, and replaces in place. Equality is exact and per channel: -0 equals +0, a NaN on
/// either side never matches, and a partial match replaces nothing. When several colours match, the
/// first in the map's order wins. Every colour and every replacement must hold one value per input
/// channel; the constructors check this through isValid and throw std::runtime_error otherwise.
/// Channel count, names, value range (the replacements are not taken into account), extent, levels,
/// voxel size and hash are the input's. openRegion may run on several threads at once when the
/// input allows it.
class ValueReplacementFilter : public Filter
{
public:
    using Replacements = std::map<std::vector<double>, std::vector<double>>;

    ValueReplacementFilter(Image* input, bool ownsInput, Replacements replacements);
    /// One colour and its replacement.
    ValueReplacementFilter(Image* input, bool ownsInput, std::vector<double> from, std::vector<double> to);

    void openRegion(double* out, long long level, Box const& box) override;

    /// True when every colour and every replacement holds exactly getNumChannels() values; true for
    /// an empty map.
    virtual bool isValid();

private:
    void validate();
    void buildLookup();

    Replacements replacements;
    // The channel count the colours were checked against.
    long long numChannels = 0;
    // The colours that can match anything, first of their kind in map order, with their
    // replacements, numChannels values each; and an open-addressing table of their indices.
    std::vector<double> colours;
    std::vector<double> substitutes;
    std::vector<long long> table;
};

} // namespace Nuvek
