// libFuzzer target: random chains of the registry's filters with random valid parameters over random
// small sources, opened for random boxes and levels. Checks: no crash or sanitizer report, and
// determinism (the same request twice gives the same bytes). Names, parameters and their valid
// values come from the filter registry, so a filter added there is fuzzed without an edit here.
#include <nuvek/Nuvek.h>
#include <nuvek/NuvekChains.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string drawInteger(FuzzedDataProvider& data, double low, double high)
{
    return std::to_string(
        data.ConsumeIntegralInRange<long long>(static_cast<long long>(low), static_cast<long long>(high)));
}

// One value within the parameter's domain.
std::string drawValue(FuzzedDataProvider& data, Nuvek::ParameterDomain const& domain, long long channels)
{
    using Kind = Nuvek::ParameterDomain::Kind;
    switch (domain.kind)
    {
    case Kind::Choices:
        return domain.words[data.ConsumeIntegralInRange<std::size_t>(0, domain.words.size() - 1)];
    case Kind::Integers:
        return drawInteger(data, domain.low, domain.high);
    case Kind::OddIntegers:
        return std::to_string(2 * data.ConsumeIntegralInRange<long long>(static_cast<long long>(domain.low) / 2,
                                                                         static_cast<long long>(domain.high) / 2) +
                              1);
    case Kind::Numbers:
        return std::to_string(data.ConsumeFloatingPointInRange<double>(domain.low, domain.high));
    case Kind::ChannelIndex:
        return drawInteger(data, 0, static_cast<double>(channels - 1));
    case Kind::PerChannelIntegers:
    {
        std::string list;
        for (long long c = 0; c < channels; ++c)
            list += (c ? "," : "") + drawInteger(data, domain.low, domain.high);
        return list;
    }
    }
    return "";
}

std::string drawStage(FuzzedDataProvider& data, long long channels, int depth)
{
    std::vector<Nuvek::FilterEntry> const& entries = Nuvek::FilterRegistry::entries();
    Nuvek::FilterEntry const& entry = entries[data.ConsumeIntegralInRange<std::size_t>(0, entries.size() - 1)];
    std::string text = entry.name;
    // Every parameter, or the required ones and a random share of the optional ones, in order.
    std::size_t given = entry.parameters.size();
    while (given > 0 && !entry.parameters[given - 1].defaultValue.empty() && data.ConsumeBool())
        --given;
    for (std::size_t i = 0; i < given; ++i)
        text += " " + drawValue(data, entry.parameters[i].domain, channels);
    int const most = entry.maxChains < 0 ? entry.minChains + 2 : entry.maxChains;
    int const chains = data.ConsumeIntegralInRange<int>(entry.minChains, most);
    // Sub-chains in parentheses: empty (the stage's input itself) or one stage, nested at most twice.
    for (int i = 0; i < chains; ++i)
        text += depth >= 2 || data.ConsumeBool() ? " ()" : " (" + drawStage(data, channels, depth + 1) + ")";
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* bytes, std::size_t size)
{
    FuzzedDataProvider data(bytes, size);
    Nuvek::Vector const extent(data.ConsumeIntegralInRange<long long>(1, 40),
                               data.ConsumeIntegralInRange<long long>(1, 40),
                               data.ConsumeIntegralInRange<long long>(1, 2));
    long long const channels = data.ConsumeIntegralInRange<long long>(1, 3);
    std::vector<double> values(static_cast<std::size_t>(extent.prod() * channels));
    double const special[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                              -std::numeric_limits<double>::infinity()};
    for (double& value : values)
    {
        int const pick = data.ConsumeIntegralInRange<int>(0, 12);
        value = pick < 3 ? special[pick] : static_cast<double>(data.ConsumeIntegralInRange<int>(0, 255));
    }
    Nuvek::MemoryImage source(extent, channels, values);
    source.setValueRange(Nuvek::ValueRange<double>(0, 255));

    std::string text;
    int const stages = data.ConsumeIntegralInRange<int>(1, 4);
    for (int i = 0; i < stages; ++i)
        text += (i ? " | " : "") + drawStage(data, channels, 0);

    std::unique_ptr<Nuvek::Chain> chain;
    try
    {
        chain = Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(text), &source);
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
        Nuvek::Vector const size(data.ConsumeIntegralInRange<long long>(1, 24),
                                 data.ConsumeIntegralInRange<long long>(1, 24),
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
