// libFuzzer target: random chains of the tool's filters with random valid parameters over random
// small sources, opened for random boxes and levels. Checks: no crash or sanitizer report, and
// determinism (the same request twice gives the same bytes).
#include "ChainExpression.h"
#include "FilterCatalogue.h"

#include <nuvek/Nuvek.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string oddSize(FuzzedDataProvider& data, int largest)
{
    return std::to_string(2 * data.ConsumeIntegralInRange<int>(0, largest / 2) + 1);
}

// Parameters within each filter's documented preconditions.
std::string stageFor(FuzzedDataProvider& data, long long channels)
{
    static char const* const names[] = {"clamp",   "threshold", "add",      "difference", "concat",   "channel",
                                        "hsv",     "zslice",    "voxelsize", "replace",    "box",      "convolve",
                                        "gaussian", "sobel",    "harris",   "localnorm",  "distance", "radial",
                                        "histogram", "lbp",     "erode",    "dilate",     "rank",     "median",
                                        "downsample", "upsample", "unmix"};
    std::string const name = names[data.ConsumeIntegralInRange<std::size_t>(0, sizeof names / sizeof names[0] - 1)];
    auto number = [&data]() { return std::to_string(data.ConsumeFloatingPointInRange<double>(-300.0, 300.0)); };
    if (name == "threshold")
        return name + " " + number() + " " + number() + " " + number();
    if (name == "add" || name == "difference")
        return name + " (gaussian 3) (" + (data.ConsumeBool() ? "clamp" : "erode 3") + ")";
    if (name == "concat")
        return "concat () (clamp | box 3)";
    if (name == "channel")
        return "channel " + std::to_string(data.ConsumeIntegralInRange<long long>(0, channels - 1));
    if (name == "zslice")
        return "zslice " + std::to_string(data.ConsumeIntegralInRange<int>(0, 1));
    if (name == "voxelsize")
        return "voxelsize 1 2 3";
    if (name == "replace")
    {
        std::string from, to;
        for (long long c = 0; c < channels; ++c)
        {
            from += (c ? "," : "") + std::to_string(data.ConsumeIntegralInRange<int>(0, 3));
            to += (c ? "," : "") + std::to_string(data.ConsumeIntegralInRange<int>(0, 3));
        }
        return "replace " + from + " " + to;
    }
    if (name == "box")
        return "box " + oddSize(data, 9) + (data.ConsumeBool() ? " sum" : " mean") + (data.ConsumeBool() ? " round" : "");
    if (name == "convolve")
        return "convolve 1,-2,1 0.5,1,0.5";
    if (name == "gaussian" || name == "erode" || name == "dilate" || name == "median")
        return name + " " + oddSize(data, 9);
    if (name == "sobel")
        return std::string("sobel ") + (data.ConsumeBool() ? "vector " : "magnitude ") + oddSize(data, 7);
    if (name == "harris")
        return "harris " + oddSize(data, 7);
    if (name == "localnorm")
        return "localnorm " + std::to_string(data.ConsumeIntegralInRange<int>(0, 3));
    if (name == "distance")
        return "distance " + std::to_string(data.ConsumeIntegralInRange<int>(0, 2)) + " " +
               std::to_string(data.ConsumeIntegralInRange<int>(0, 8));
    if (name == "radial")
        return "radial " + std::to_string(data.ConsumeFloatingPointInRange<double>(0.5, 8.0)) + " " +
               std::to_string(data.ConsumeFloatingPointInRange<double>(0.0, 5.0));
    if (name == "histogram")
        return "histogram " + oddSize(data, 7) + " " + std::to_string(data.ConsumeIntegralInRange<int>(1, 20));
    if (name == "lbp")
        return "lbp " + std::to_string(data.ConsumeFloatingPointInRange<double>(0.5, 4.0));
    if (name == "rank")
    {
        int const k = 2 * data.ConsumeIntegralInRange<int>(0, 3) + 1;
        return "rank " + std::to_string(k) + " " + std::to_string(data.ConsumeIntegralInRange<int>(0, k * k - 1));
    }
    if (name == "downsample" || name == "upsample")
        return name + " " + std::to_string(data.ConsumeIntegralInRange<int>(0, 3));
    return name;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size)
{
    FuzzedDataProvider data(bytes, size);
    Nuvek::Vector const extent(data.ConsumeIntegralInRange<long long>(1, 40), data.ConsumeIntegralInRange<long long>(1, 40),
                               data.ConsumeIntegralInRange<long long>(1, 2));
    long long const channels = data.ConsumeIntegralInRange<long long>(1, 3);
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * channels));
    for (double& value : values)
    {
        switch (data.ConsumeIntegralInRange<int>(0, 12))
        {
        case 0: value = std::numeric_limits<double>::quiet_NaN(); break;
        case 1: value = std::numeric_limits<double>::infinity(); break;
        case 2: value = -std::numeric_limits<double>::infinity(); break;
        default: value = static_cast<double>(data.ConsumeIntegralInRange<int>(0, 255)); break;
        }
    }
    Nuvek::MemoryImage source(extent, channels, values);
    source.setValueRange(Nuvek::ValueRange<double>(0, 255));

    std::string text;
    int const stages = data.ConsumeIntegralInRange<int>(1, 4);
    for (int i = 0; i < stages; ++i)
        text += (i ? " | " : "") + stageFor(data, channels);

    std::unique_ptr<NuvekTool::Chain> chain;
    try
    {
        chain = NuvekTool::buildChain(NuvekTool::parseChainExpression(text), &source);
    }
    catch (std::runtime_error const&)
    {
        return 0; // a refused combination, e.g. a histogram of three channels
    }
    Nuvek::Image& image = *chain->output;
    int const requests = data.ConsumeIntegralInRange<int>(1, 4);
    for (int r = 0; r < requests; ++r)
    {
        long long const level = data.ConsumeIntegralInRange<long long>(0, 2);
        Nuvek::Vector const levelExtent = image.getExtent(level);
        Nuvek::Vector const min(data.ConsumeIntegralInRange<long long>(-8, levelExtent.x + 2),
                                data.ConsumeIntegralInRange<long long>(-8, levelExtent.y + 2),
                                data.ConsumeIntegralInRange<long long>(0, extent.z - 1));
        Nuvek::Vector const size(data.ConsumeIntegralInRange<long long>(1, 24), data.ConsumeIntegralInRange<long long>(1, 24),
                                 data.ConsumeIntegralInRange<long long>(1, extent.z - min.z));
        Nuvek::Box const box(min, min + size - Nuvek::Vector(1, 1, 1));
        std::size_t const count = static_cast<std::size_t>(box.getSize() * image.getNumChannels());
        std::vector<double> first(count, 0.0), second(count, 0.0);
        try
        {
            image.openRegion(first.data(), level, box);
        }
        catch (std::runtime_error const&)
        {
            continue;
        }
        image.openRegion(second.data(), level, box);
        if (std::memcmp(first.data(), second.data(), count * sizeof(double)) != 0)
        {
            std::fprintf(stderr, "Not deterministic: '%s' at level %lld\n", text.c_str(), level);
            std::abort();
        }
    }
    return 0;
}
