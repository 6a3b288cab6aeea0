#include "FilterCatalogue.h"

#include <nuvek/Nuvek.h>

#include <cmath>
#include <sstream>
#include <stdexcept>

namespace NuvekTool {

namespace {

std::string lowerCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

[[noreturn]] void failArgument(std::string const& filter, std::string const& message)
{
    throw std::runtime_error(filter + ": " + message);
}

long long parseInteger(std::string const& filter, std::string const& name, std::string const& text)
{
    try
    {
        std::size_t used = 0;
        long long const value = std::stoll(text, &used);
        if (used == text.size())
            return value;
    }
    catch (std::exception const&)
    {
    }
    failArgument(filter, "parameter '" + name + "' must be a whole number, got '" + text + "'.");
}

double parseNumber(std::string const& filter, std::string const& name, std::string const& text)
{
    try
    {
        std::size_t used = 0;
        double const value = std::stod(text, &used);
        if (used == text.size())
            return value;
    }
    catch (std::exception const&)
    {
    }
    failArgument(filter, "parameter '" + name + "' must be a number, got '" + text + "'.");
}

std::vector<double> parseNumbers(std::string const& filter, std::string const& name, std::string const& text)
{
    std::vector<double> values;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ','))
        values.push_back(parseNumber(filter, name, item));
    if (values.empty())
        failArgument(filter, "parameter '" + name + "' must be a comma-separated list of numbers.");
    return values;
}

// Reference colours of common stains, as 8-bit transmitted RGB of the pure stain.
std::map<std::string, std::vector<double>> const& stainPresets()
{
    static std::map<std::string, std::vector<double>> const presets = {
        {"hematoxylin", {57.4, 50.6, 132.5}},
        {"eosin", {216.4, 26.2, 201.0}},
        {"dab", {138.2, 68.9, 42.9}},
    };
    return presets;
}

std::vector<std::vector<double>> parseStains(std::string const& filter, std::string const& text)
{
    std::vector<std::vector<double>> colors;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, '+'))
    {
        auto const preset = stainPresets().find(lowerCase(item));
        if (preset != stainPresets().end())
            colors.push_back(preset->second);
        else
        {
            std::vector<double> color = parseNumbers(filter, "stains", item);
            if (color.size() != 3)
                failArgument(filter, "a stain colour is a preset name (hematoxylin, eosin, dab) or r,g,b; got '" +
                                         item + "'.");
            colors.push_back(color);
        }
    }
    if (colors.empty())
        failArgument(filter, "no stains given.");
    return colors;
}

template <typename FilterType, typename... Rest>
Nuvek::Image* make(Chain& chain, Rest&&... rest)
{
    return chain.add(std::make_unique<FilterType>(std::forward<Rest>(rest)...));
}

Parameter integer(std::string name, std::string defaultValue, std::string help)
{
    return Parameter{std::move(name), ParameterKind::Integer, std::move(defaultValue), std::move(help)};
}

Parameter number(std::string name, std::string defaultValue, std::string help)
{
    return Parameter{std::move(name), ParameterKind::Number, std::move(defaultValue), std::move(help)};
}

Parameter word(std::string name, std::string defaultValue, std::string help)
{
    return Parameter{std::move(name), ParameterKind::Word, std::move(defaultValue), std::move(help)};
}

Parameter numberList(std::string name, std::string defaultValue, std::string help)
{
    return Parameter{std::move(name), ParameterKind::NumberList, std::move(defaultValue), std::move(help)};
}

std::string choose(Arguments const& arguments, std::string const& name, std::vector<std::string> const& choices)
{
    std::string const value = lowerCase(arguments.word(name));
    for (std::string const& choice : choices)
        if (value == choice)
            return value;
    std::string list;
    for (std::string const& choice : choices)
        list += (list.empty() ? "" : ", ") + choice;
    failArgument(arguments.filterName, "parameter '" + name + "' must be one of " + list + "; got '" +
                                           arguments.word(name) + "'.");
}

std::vector<FilterEntry> makeCatalogue()
{
    using Nuvek::Image;
    std::vector<FilterEntry> entries;
    auto add = [&entries](FilterEntry entry) { entries.push_back(std::move(entry)); };

    // Pixel-wise and channel filters.
    add({"clamp", "Repeats the nearest edge values outside the image (put it under neighbourhood filters).", {}, 0, 0,
         true, [](Chain& chain, Image* input, Arguments const&) { return make<Nuvek::ClampingFilter>(chain, input, false); }});
    add({"threshold", "high where value >= t, else low.",
         {number("t", "", "threshold"), number("low", "0", "output below t"), number("high", "1", "output at or above t")},
         0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::ThresholdFilter>(chain, input, a.number("t"), a.number("low"), a.number("high"), false);
         }});
    add({"add", "Voxel-wise sum of two sub-chains, each applied to this stage's input: add (A) (B).", {}, 2, 2, true,
         [](Chain& chain, Image*, Arguments const& a) {
             return make<Nuvek::AdditionFilter>(chain, a.chains[0], a.chains[1], false);
         }});
    add({"difference", "Voxel-wise difference A - B of two sub-chains: difference (A) (B).", {}, 2, 2, true,
         [](Chain& chain, Image*, Arguments const& a) {
             return make<Nuvek::DifferenceFilter>(chain, a.chains[0], a.chains[1], false);
         }});
    add({"concat", "Channels of several sub-chains, one after another: concat (A) (B) ...", {}, 1, -1, true,
         [](Chain& chain, Image*, Arguments const& a) { return make<Nuvek::ConcatFilter>(chain, a.chains, false); }});
    add({"channel", "Selects channels by index (with a count) or by name.",
         {word("which", "", "first channel index, or a channel name"), integer("count", "1", "number of channels")}, 0,
         0, true,
         [](Chain& chain, Image* input, Arguments const& a) -> Image* {
             std::string const& which = a.word("which");
             bool const isIndex = !which.empty() && which.find_first_not_of("-0123456789") == std::string::npos;
             if (!isIndex)
                 return make<Nuvek::ChannelFilter>(chain, input, which, false);
             return make<Nuvek::ChannelFilter>(chain, input, a.integer("which"), a.integer("count"), false);
         }});
    add({"hsv", "RGB to hue, saturation and value, each quantised to 0..255.", {}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const&) { return make<Nuvek::RGBToHSVFilter>(chain, input, false); }});
    add({"zslice", "Presents one z slice.", {integer("z", "", "slice index")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::ZStackFilter>(chain, input, a.integer("z"), false);
         }});
    add({"voxelsize", "Reports another level-0 voxel size (x, y, z integers).",
         {integer("x", "", ""), integer("y", "", ""), integer("z", "", "")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::VoxelSizeModificationFilter>(
                 chain, input, false, Nuvek::Vector(a.integer("x"), a.integer("y"), a.integer("z")));
         }});
    add({"replace", "Replaces one exact colour (all channels) by another: replace 255,255,255 0,0,0.",
         {numberList("from", "", "values per channel"), numberList("to", "", "values per channel")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::ValueReplacementFilter>(chain, input, false, a.numbers("from"), a.numbers("to"));
         }});

    // Neighbourhood filters.
    add({"box", "Box mean (or sum) over a k x k window.",
         {integer("k", "", "odd window size"), word("mode", "mean", "mean or sum"),
          word("rounding", "exact", "exact or round")},
         0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             bool const normalize = choose(a, "mode", {"mean", "sum"}) == "mean";
             bool const rounding = choose(a, "rounding", {"exact", "round"}) == "round";
             return make<Nuvek::BoxFilter>(chain, input, a.integer("k"), normalize, rounding, false);
         }});
    add({"convolve", "Separable convolution with kernels along x and y (comma-separated, odd length).",
         {numberList("kx", "", "kernel along x"), numberList("ky", "=kx", "kernel along y")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             std::vector<double> const kx = a.numbers("kx");
             std::vector<double> const ky = a.word("ky") == "=kx" ? kx : a.numbers("ky");
             return make<Nuvek::SeparableConvolutionFilter>(chain, input, kx, ky, false);
         }});
    add({"gaussian", "Gaussian blur with a k-tap kernel.", {integer("k", "", "odd kernel size")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::GaussianBlurFilter>(chain, input, a.integer("k"), false);
         }});
    add({"sobel", "Sobel gradients: 'vector' (gx, gy per channel) or 'magnitude' (gx^2 + gy^2).",
         {word("output", "magnitude", "vector or magnitude"), integer("k", "3", "kernel size")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) -> Image* {
             if (choose(a, "output", {"vector", "magnitude"}) == "vector")
                 return make<Nuvek::SobelVectorFilter>(chain, input, a.integer("k"), false);
             return make<Nuvek::SobelMagnitudeFilter>(chain, input, a.integer("k"), false);
         }});
    add({"harris", "Eigenvalues of the Gaussian-smoothed gradient tensor.", {integer("k", "5", "blur size")}, 0, 0,
         true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::HarrisEigenvaluesFilter>(chain, input, a.integer("k"), false);
         }});
    add({"localnorm", "Background normalization against a coarser level of the same image.",
         {integer("level", "4", "background level")}, 0, 0, false,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::LocalNormalizationFilter>(chain, input, a.integer("level"), false);
         }});
    add({"distance", "Euclidean distance to the nearest voxel of a value, capped at max.",
         {number("value", "0", "the value distances are measured to"), integer("max", "64", "cap in voxels")}, 0, 0,
         true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::DistanceTransformFilter>(chain, input, a.number("value"), a.integer("max"), false);
         }});
    add({"radial", "Radial symmetry: gradient votes for centres of round structures.",
         {number("radius", "", "expected radius in voxels"), number("threshold", "0", "minimum gradient magnitude")}, 0,
         0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::RadialSymmetryFilter>(chain, input, a.number("radius"), a.number("threshold"), false);
         }});

    // Rank, histogram and texture filters.
    add({"histogram", "Local histogram: one channel per bin, counts over a k x k window.",
         {integer("k", "", "odd window size"), integer("bins", "16", "number of bins")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::HistogramFilter>(chain, input, a.integer("k"), a.integer("bins"), false);
         }});
    add({"lbp", "Uniform local binary pattern classes.", {number("radius", "1", "sampling radius")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::LBPFilter>(chain, input, a.number("radius"), false);
         }});
    add({"erode", "Grey-value erosion over a k x k square.", {integer("k", "", "odd window size")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::ErosionFilter>(chain, input, a.integer("k"), false);
         }});
    add({"dilate", "Grey-value dilation over a k x k square.", {integer("k", "", "odd window size")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::DilationFilter>(chain, input, a.integer("k"), false);
         }});
    add({"rank", "The value at a rank (0 = minimum) of the k x k window.",
         {integer("k", "", "odd window size"), integer("index", "", "rank, 0 .. k*k - 1")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::RankFilter>(chain, input, a.integer("k"), a.integer("index"), false);
         }});
    add({"median", "Median of the k x k window.", {integer("k", "", "odd window size")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             long long const k = a.integer("k");
             return make<Nuvek::RankFilter>(chain, input, k, k * k / 2, false);
         }});

    // Resolution filters.
    add({"downsample", "Coarser levels computed by 2^n block means from one source level.",
         {integer("level", "0", "source level")}, 0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) {
             return make<Nuvek::DownsampleFilter>(chain, input, a.integer("level"), false);
         }});
    add({"upsample", "Finer levels enlarged from one source level.",
         {integer("level", "", "source level"), word("mode", "bilinear", "bilinear or nearest")}, 0, 0, false,
         [](Chain& chain, Image* input, Arguments const& a) {
             auto const mode = choose(a, "mode", {"bilinear", "nearest"}) == "bilinear"
                                   ? Nuvek::UpsampleFilter::Interpolation::Bilinear
                                   : Nuvek::UpsampleFilter::Interpolation::NearestNeighbor;
             return make<Nuvek::UpsampleFilter>(chain, input, a.integer("level"), mode, false);
         }});

    // Colour.
    add({"unmix",
         "Colour unmixing of the first three channels into the amount (0..1) of one stain. Stains are joined by '+', "
         "each a preset (hematoxylin, eosin, dab) or an r,g,b transmitted colour.",
         {word("stains", "hematoxylin+eosin", "reference colours"), integer("index", "0", "which stain to output")},
         0, 0, true,
         [](Chain& chain, Image* input, Arguments const& a) -> Image* {
             std::vector<std::vector<double>> const colors = parseStains(a.filterName, a.word("stains"));
             long long const index = a.integer("index");
             if (index < 0 || index >= static_cast<long long>(colors.size()))
                 failArgument(a.filterName, "stain index " + std::to_string(index) + " is not among the " +
                                                std::to_string(colors.size()) + " stains.");
             if (input->getNumChannels() < 3)
                 failArgument(a.filterName, "the input needs three colour channels, it has " +
                                                std::to_string(input->getNumChannels()) + ".");
             Nuvek::ChannelBank* bank = chain.addBank(std::make_unique<Nuvek::ChannelBank>(input));
             std::vector<std::string> const names = {input->getChannelName(0), input->getChannelName(1),
                                                     input->getChannelName(2)};
             if (names[0] == names[1] || names[1] == names[2] || names[0] == names[2])
                 failArgument(a.filterName, "the first three channels need distinct names.");
             auto filter = std::make_unique<Nuvek::ColorUnmixingFilter>(bank, names);
             filter->reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(colors)[static_cast<std::size_t>(index)]);
             return chain.add(std::move(filter));
         }});
    return entries;
}

FilterEntry const& findFilter(std::string const& name)
{
    for (FilterEntry const& entry : filterCatalogue())
        if (entry.name == name)
            return entry;
    throw std::runtime_error("Unknown filter '" + name + "'. 'nuvek filters' lists them.");
}

std::string usage(FilterEntry const& entry)
{
    std::string text = entry.name;
    for (Parameter const& parameter : entry.parameters)
        text += parameter.defaultValue.empty() ? " " + parameter.name
                                               : " [" + parameter.name + "=" + parameter.defaultValue + "]";
    if (entry.maxChains != 0)
        text += entry.maxChains < 0 ? " (CHAIN)..." : std::string(" (CHAIN)") + (entry.maxChains > 1 ? " (CHAIN)" : "");
    return text;
}

Nuvek::Image* buildInto(Chain& chain, ChainExpression const& expression, Nuvek::Image* source)
{
    Nuvek::Image* current = source;
    for (Stage const& stage : expression.stages)
    {
        FilterEntry const& entry = findFilter(stage.name);
        Arguments arguments;
        arguments.filterName = entry.name;
        std::size_t next = 0;
        for (StageArgument const& argument : stage.arguments)
        {
            if (argument.isChain())
            {
                arguments.chains.push_back(buildInto(chain, *argument.chain, current));
                continue;
            }
            if (next >= entry.parameters.size())
                failArgument(entry.name, "too many parameters; usage: " + usage(entry));
            arguments.values[entry.parameters[next++].name] = argument.word;
        }
        for (; next < entry.parameters.size(); ++next)
        {
            Parameter const& parameter = entry.parameters[next];
            if (parameter.defaultValue.empty())
                failArgument(entry.name, "parameter '" + parameter.name + "' is missing; usage: " + usage(entry));
            arguments.values[parameter.name] = parameter.defaultValue;
        }
        int const chains = static_cast<int>(arguments.chains.size());
        if (chains < entry.minChains || (entry.maxChains >= 0 && chains > entry.maxChains))
            failArgument(entry.name, "takes " +
                                         (entry.maxChains < 0 ? "at least " + std::to_string(entry.minChains)
                                                              : std::to_string(entry.maxChains)) +
                                         " sub-chain(s) in parentheses, got " + std::to_string(chains) +
                                         "; usage: " + usage(entry));
        // Check the typed parameters before building, so that a malformed one names itself.
        for (Parameter const& parameter : entry.parameters)
        {
            std::string const& value = arguments.values[parameter.name];
            if (parameter.kind == ParameterKind::Integer)
                parseInteger(entry.name, parameter.name, value);
            else if (parameter.kind == ParameterKind::Number)
                parseNumber(entry.name, parameter.name, value);
            else if (parameter.kind == ParameterKind::NumberList && value != "=kx")
                parseNumbers(entry.name, parameter.name, value);
        }
        try
        {
            current = entry.build(chain, current, arguments);
        }
        catch (std::runtime_error const& error)
        {
            std::string const message = error.what();
            if (message.rfind(entry.name + ": ", 0) == 0)
                throw;
            // The library's own message, with the filter named.
            std::string trimmed = message;
            while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == ' '))
                trimmed.pop_back();
            throw std::runtime_error(entry.name + ": " + trimmed);
        }
        chain.shareable = chain.shareable && entry.shareable;
    }
    return current;
}

bool shareableInto(ChainExpression const& expression)
{
    for (Stage const& stage : expression.stages)
    {
        if (!findFilter(stage.name).shareable)
            return false;
        for (StageArgument const& argument : stage.arguments)
            if (argument.isChain() && !shareableInto(*argument.chain))
                return false;
    }
    return true;
}

} // namespace

Chain::~Chain()
{
    while (!owned.empty())
        owned.pop_back();
}

Nuvek::Image* Chain::add(std::unique_ptr<Nuvek::Image> image)
{
    Nuvek::Image* raw = image.get();
    owned.push_back(std::shared_ptr<Nuvek::Image>(std::move(image)));
    output = raw;
    return raw;
}

Nuvek::ChannelBank* Chain::addBank(std::unique_ptr<Nuvek::ChannelBank> bank)
{
    Nuvek::ChannelBank* raw = bank.get();
    owned.push_back(std::shared_ptr<Nuvek::ChannelBank>(std::move(bank)));
    return raw;
}

long long Arguments::integer(std::string const& name) const
{
    return parseInteger(filterName, name, word(name));
}

double Arguments::number(std::string const& name) const
{
    return parseNumber(filterName, name, word(name));
}

std::string const& Arguments::word(std::string const& name) const
{
    auto const found = values.find(name);
    if (found == values.end())
        throw std::logic_error(filterName + ": no parameter '" + name + "'");
    return found->second;
}

std::vector<double> Arguments::numbers(std::string const& name) const
{
    return parseNumbers(filterName, name, word(name));
}

std::vector<FilterEntry> const& filterCatalogue()
{
    static std::vector<FilterEntry> const catalogue = makeCatalogue();
    return catalogue;
}

std::unique_ptr<Chain> buildChain(ChainExpression const& expression, Nuvek::Image* source)
{
    auto chain = std::make_unique<Chain>();
    chain->output = buildInto(*chain, expression, source);
    return chain;
}

bool isShareable(ChainExpression const& expression)
{
    return shareableInto(expression);
}

std::string describeFilters()
{
    std::string text;
    for (FilterEntry const& entry : filterCatalogue())
    {
        text += "  " + usage(entry) + "\n      " + entry.description + "\n";
        for (Parameter const& parameter : entry.parameters)
            if (!parameter.help.empty())
                text += "      " + parameter.name + ": " + parameter.help + "\n";
    }
    return text;
}

} // namespace NuvekTool
