#include <nuvek/filters/pixelwise/ValueReplacementFilter.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Nuvek {

namespace {

// Up to this many colours a scan of the map costs less than hashing each voxel.
constexpr std::size_t scanLimit = 2;

// -0 becomes +0, so that values that compare equal have equal bits.
std::uint64_t bitsOf(double value)
{
    double const canonical = value + 0.0;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &canonical, sizeof bits);
    return bits;
}

// Brings the high bits down before multiplying: colours of small whole numbers differ only in
// their high bits, and the table index is taken from the low ones.
std::uint64_t mix(std::uint64_t hash)
{
    hash ^= hash >> 32;
    hash *= 0xD6E8FEB86659FD93u;
    hash ^= hash >> 32;
    return hash;
}

std::uint64_t hashOf(double const* colour, long long numChannels)
{
    std::uint64_t hash = 0x243F6A8885A308D3u;
    for (long long c = 0; c < numChannels; ++c)
        hash = mix(hash ^ bitsOf(colour[c]));
    return mix(hash);
}

bool sameColour(double const* colour, double const* other, long long numChannels)
{
    for (long long c = 0; c < numChannels; ++c)
        if (!(colour[c] == other[c]))
            return false;
    return true;
}

// Plain pass: every voxel walks the map in key order and stops at the first colour that matches in
// every channel.
void replaceByScan(std::vector<double*> const& planes, long long size,
                   ValueReplacementFilter::Replacements const& replacements)
{
    long long const numChannels = static_cast<long long>(planes.size());
    for (long long i = 0; i < size; ++i)
        for (auto const& [colour, substitute] : replacements)
        {
            long long c = 0;
            while (c < numChannels && planes[c][i] == colour[static_cast<std::size_t>(c)])
                ++c;
            if (c < numChannels)
                continue;
            for (c = 0; c < numChannels; ++c)
                planes[c][i] = substitute[static_cast<std::size_t>(c)];
            break;
        }
}

// Fast pass: a voxel is looked up by its colour in a hash table that holds, for every colour, the
// first entry in map order that can match it; entries holding NaN are left out, since they never
// match. So the voxel gets the same replacement as by the scan. `Fixed` is the channel count when
// it is known at compile time (so that the per-voxel loops unroll), 0 otherwise.
template <long long Fixed>
void replaceByLookup(std::vector<double*> const& planes, long long size, std::vector<double> const& colours,
                     std::vector<double> const& substitutes, std::vector<long long> const& table)
{
    long long const numChannels = Fixed > 0 ? Fixed : static_cast<long long>(planes.size());
    std::uint64_t const mask = table.size() - 1;
    // A fixed count keeps the voxel in registers.
    double fixedVoxel[Fixed > 0 ? Fixed : 1];
    std::vector<double> anyVoxel(static_cast<std::size_t>(Fixed > 0 ? 0 : numChannels));
    double* const voxel = Fixed > 0 ? fixedVoxel : anyVoxel.data();
    double* const* plane = planes.data();
    for (long long i = 0; i < size; ++i)
    {
        bool hasNaN = false;
        for (long long c = 0; c < numChannels; ++c)
        {
            double const value = plane[c][i];
            voxel[c] = value;
            hasNaN |= std::isnan(value);
        }
        if (hasNaN)
            continue;
        for (std::uint64_t slot = hashOf(voxel, numChannels) & mask;; slot = (slot + 1) & mask)
        {
            long long const entry = table[slot];
            if (entry < 0)
                break;
            double const* colour = colours.data() + entry * numChannels;
            if (sameColour(voxel, colour, numChannels))
            {
                double const* substitute = substitutes.data() + entry * numChannels;
                for (long long c = 0; c < numChannels; ++c)
                    plane[c][i] = substitute[c];
                break;
            }
        }
    }
}

} // namespace

ValueReplacementFilter::ValueReplacementFilter(Image* input, bool ownsInput, Replacements replacements)
    : Filter(input, ownsInput), replacements(std::move(replacements))
{
    validate();
}

ValueReplacementFilter::ValueReplacementFilter(Image* input, bool ownsInput, std::vector<double> from,
                                               std::vector<double> to)
    : Filter(input, ownsInput)
{
    replacements.emplace(std::move(from), std::move(to));
    validate();
}

bool ValueReplacementFilter::isValid()
{
    std::size_t const count = static_cast<std::size_t>(getNumChannels());
    for (auto const& [colour, substitute] : replacements)
        if (colour.size() != count || substitute.size() != count)
            return false;
    return true;
}

void ValueReplacementFilter::validate()
{
    if (!isValid())
        throw std::runtime_error("Replacement color channels do not fit number of channels in image");
    numChannels = getNumChannels();
    if (replacements.size() > scanLimit)
        buildLookup();
}

void ValueReplacementFilter::buildLookup()
{
    std::size_t tableSize = 4;
    while (tableSize < 2 * replacements.size())
        tableSize *= 2;
    table.assign(tableSize, -1);
    std::uint64_t const mask = tableSize - 1;

    long long count = 0;
    for (auto const& [colour, substitute] : replacements)
    {
        bool hasNaN = false;
        for (double value : colour)
            hasNaN |= std::isnan(value);
        if (hasNaN)
            continue;
        for (std::uint64_t slot = hashOf(colour.data(), numChannels) & mask;; slot = (slot + 1) & mask)
        {
            long long const entry = table[slot];
            if (entry >= 0 && sameColour(colour.data(), colours.data() + entry * numChannels, numChannels))
                break;
            if (entry < 0)
            {
                table[slot] = count++;
                colours.insert(colours.end(), colour.begin(), colour.end());
                substitutes.insert(substitutes.end(), substitute.begin(), substitute.end());
                break;
            }
        }
    }
}

void ValueReplacementFilter::openRegion(double* out, long long level, Box const& box)
{
    input->openRegion(out, level, box);
    if (replacements.empty())
        return;
    if (getNumChannels() != numChannels)
        throw std::runtime_error("The input now has " + std::to_string(getNumChannels()) +
                                 " channels, but the replacement colours have " + std::to_string(numChannels) + ".");

    long long const size = box.getSize();
    std::vector<double*> planes(static_cast<std::size_t>(numChannels));
    for (long long c = 0; c < numChannels; ++c)
        planes[static_cast<std::size_t>(c)] = out + c * size;
    // Both passes give each voxel the first matching colour in map order.
    if (table.empty())
        replaceByScan(planes, size, replacements);
    else
        switch (numChannels)
        {
        case 1:
            replaceByLookup<1>(planes, size, colours, substitutes, table);
            break;
        case 2:
            replaceByLookup<2>(planes, size, colours, substitutes, table);
            break;
        case 3:
            replaceByLookup<3>(planes, size, colours, substitutes, table);
            break;
        case 4:
            replaceByLookup<4>(planes, size, colours, substitutes, table);
            break;
        default:
            replaceByLookup<0>(planes, size, colours, substitutes, table);
        }
}

} // namespace Nuvek
