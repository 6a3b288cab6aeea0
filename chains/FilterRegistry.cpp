#include <nuvek/chains/FilterRegistry.h>

#include <nuvek/Nuvek.h>

#include <cctype>
#include <map>
#include <sstream>
#include <stdexcept>

namespace Nuvek {

namespace {

// Builders: one per filter, each reading its parameters by name and refusing what the chain
// expression cannot express. Filters are built without ownership of their inputs; the chain owns them.

template <typename FilterType, typename... Rest>
Image* make(Chain& chain, Rest&&... rest)
{
    return chain.add(std::make_unique<FilterType>(std::forward<Rest>(rest)...));
}

Image* buildClamp(Chain& chain, Image* input, FilterArguments const&)
{
    return make<ClampingFilter>(chain, input, false);
}

Image* buildThreshold(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<ThresholdFilter>(chain, input, a.number("t"), a.number("low"), a.number("high"), false);
}

Image* buildAdd(Chain& chain, Image*, FilterArguments const& a)
{
    return make<AdditionFilter>(chain, a.chains[0], a.chains[1], false);
}

Image* buildDifference(Chain& chain, Image*, FilterArguments const& a)
{
    return make<DifferenceFilter>(chain, a.chains[0], a.chains[1], false);
}

Image* buildConcat(Chain& chain, Image*, FilterArguments const& a)
{
    return make<ConcatFilter>(chain, a.chains, false);
}

Image* buildChannel(Chain& chain, Image* input, FilterArguments const& a)
{
    std::string const& which = a.word("which");
    bool const isIndex = !which.empty() && which.find_first_not_of("-0123456789") == std::string::npos;
    if (!isIndex)
        return make<ChannelFilter>(chain, input, which, false);
    return make<ChannelFilter>(chain, input, a.integer("which"), a.integer("count"), false);
}

Image* buildHsv(Chain& chain, Image* input, FilterArguments const&)
{
    return make<RGBToHSVFilter>(chain, input, false);
}

Image* buildZSlice(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<ZStackFilter>(chain, input, a.integer("z"), false);
}

Image* buildVoxelSize(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<VoxelSizeModificationFilter>(chain, input, false,
                                             Vector(a.integer("x"), a.integer("y"), a.integer("z")));
}

Image* buildReplace(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<ValueReplacementFilter>(chain, input, false, a.numbers("from"), a.numbers("to"));
}

Image* buildBox(Chain& chain, Image* input, FilterArguments const& a)
{
    bool const normalize = a.choice("mode", {"mean", "sum"}) == "mean";
    bool const rounding = a.choice("rounding", {"exact", "round"}) == "round";
    return make<BoxFilter>(chain, input, a.integer("k"), normalize, rounding, false);
}

Image* buildConvolve(Chain& chain, Image* input, FilterArguments const& a)
{
    std::vector<double> const kx = a.numbers("kx");
    std::vector<double> const ky = a.word("ky") == "=kx" ? kx : a.numbers("ky");
    return make<SeparableConvolutionFilter>(chain, input, kx, ky, false);
}

Image* buildGaussian(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<GaussianBlurFilter>(chain, input, a.integer("k"), false);
}

Image* buildSobel(Chain& chain, Image* input, FilterArguments const& a)
{
    if (a.choice("output", {"vector", "magnitude"}) == "vector")
        return make<SobelVectorFilter>(chain, input, a.integer("k"), false);
    return make<SobelMagnitudeFilter>(chain, input, a.integer("k"), false);
}

Image* buildHarris(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<HarrisEigenvaluesFilter>(chain, input, a.integer("k"), false);
}

Image* buildLocalNorm(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<LocalNormalizationFilter>(chain, input, a.integer("level"), false);
}

Image* buildDistance(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<DistanceTransformFilter>(chain, input, a.number("value"), a.integer("max"), false);
}

Image* buildRadial(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<RadialSymmetryFilter>(chain, input, a.number("radius"), a.number("threshold"), false);
}

Image* buildHistogram(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<HistogramFilter>(chain, input, a.integer("k"), a.integer("bins"), false);
}

Image* buildLbp(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<LBPFilter>(chain, input, a.number("radius"), false);
}

Image* buildErode(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<ErosionFilter>(chain, input, a.integer("k"), false);
}

Image* buildDilate(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<DilationFilter>(chain, input, a.integer("k"), false);
}

Image* buildRank(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<RankFilter>(chain, input, a.integer("k"), a.integer("index"), false);
}

Image* buildMedian(Chain& chain, Image* input, FilterArguments const& a)
{
    long long const k = a.integer("k");
    return make<RankFilter>(chain, input, k, k * k / 2, false);
}

Image* buildDownsample(Chain& chain, Image* input, FilterArguments const& a)
{
    return make<DownsampleFilter>(chain, input, a.integer("level"), false);
}

Image* buildUpsample(Chain& chain, Image* input, FilterArguments const& a)
{
    auto const mode = a.choice("mode", {"bilinear", "nearest"}) == "bilinear"
                          ? UpsampleFilter::Interpolation::Bilinear
                          : UpsampleFilter::Interpolation::NearestNeighbor;
    return make<UpsampleFilter>(chain, input, a.integer("level"), mode, false);
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

std::vector<std::vector<double>> parseStains(FilterArguments const& a)
{
    std::vector<std::vector<double>> colors;
    std::stringstream stream(a.word("stains"));
    std::string item;
    while (std::getline(stream, item, '+'))
    {
        std::string name = item;
        for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        auto const preset = stainPresets().find(name);
        if (preset != stainPresets().end())
        {
            colors.push_back(preset->second);
            continue;
        }
        std::vector<double> color = a.numbersIn("stains", item);
        if (color.size() != 3)
            a.fail("a stain colour is a preset name (hematoxylin, eosin, dab) or r,g,b; got '" + item + "'.");
        colors.push_back(color);
    }
    if (colors.empty())
        a.fail("no stains given.");
    return colors;
}

Image* buildUnmix(Chain& chain, Image* input, FilterArguments const& a)
{
    std::vector<std::vector<double>> const colors = parseStains(a);
    long long const index = a.integer("index");
    if (index < 0 || index >= static_cast<long long>(colors.size()))
        a.fail("stain index " + std::to_string(index) + " is not among the " + std::to_string(colors.size()) +
               " stains.");
    if (input->getNumChannels() < 3)
        a.fail("the input needs three colour channels, it has " + std::to_string(input->getNumChannels()) + ".");
    ChannelBank* bank = chain.addBank(std::make_unique<ChannelBank>(input));
    std::vector<std::string> const names = {input->getChannelName(0), input->getChannelName(1),
                                            input->getChannelName(2)};
    if (names[0] == names[1] || names[1] == names[2] || names[0] == names[2])
        a.fail("the first three channels need distinct names.");
    auto filter = std::make_unique<ColorUnmixingFilter>(bank, names);
    filter->reinit(ColorUnmixingFilter::computeMatrixFromColors(colors)[static_cast<std::size_t>(index)]);
    return chain.add(std::move(filter));
}

// The table's rows, written one per filter below.

ParameterDomain choices(std::vector<std::string> words)
{
    return ParameterDomain{ParameterDomain::Kind::Choices, 0.0, 0.0, std::move(words)};
}

ParameterDomain integers(double low, double high)
{
    return ParameterDomain{ParameterDomain::Kind::Integers, low, high, {}};
}

ParameterDomain oddIntegers(double low, double high)
{
    return ParameterDomain{ParameterDomain::Kind::OddIntegers, low, high, {}};
}

ParameterDomain numbers(double low, double high)
{
    return ParameterDomain{ParameterDomain::Kind::Numbers, low, high, {}};
}

ParameterDomain channelIndex()
{
    return ParameterDomain{ParameterDomain::Kind::ChannelIndex, 0.0, 0.0, {}};
}

ParameterDomain perChannelIntegers(double low, double high)
{
    return ParameterDomain{ParameterDomain::Kind::PerChannelIntegers, low, high, {}};
}

FilterParameter integer(std::string name, std::string defaultValue, std::string help, ParameterDomain domain)
{
    return FilterParameter{std::move(name), ParameterKind::Integer, std::move(defaultValue), std::move(help),
                           std::move(domain)};
}

FilterParameter number(std::string name, std::string defaultValue, std::string help, ParameterDomain domain)
{
    return FilterParameter{std::move(name), ParameterKind::Number, std::move(defaultValue), std::move(help),
                           std::move(domain)};
}

FilterParameter word(std::string name, std::string defaultValue, std::string help, ParameterDomain domain)
{
    return FilterParameter{std::move(name), ParameterKind::Word, std::move(defaultValue), std::move(help),
                           std::move(domain)};
}

FilterParameter numberList(std::string name, std::string defaultValue, std::string help, ParameterDomain domain)
{
    return FilterParameter{std::move(name), ParameterKind::NumberList, std::move(defaultValue), std::move(help),
                           std::move(domain)};
}

/// A table row, filled in by name: Row("box", ..., buildBox).parameters({...}).examples({...}).
struct Row : FilterEntry
{
    Row(std::string name, std::string description, std::vector<std::string> classNames,
        decltype(FilterEntry::build) builder)
    {
        this->name = std::move(name);
        this->description = std::move(description);
        this->classNames = std::move(classNames);
        build = std::move(builder);
    }
    Row&& with(std::vector<FilterParameter> list) &&
    {
        parameters = std::move(list);
        return std::move(*this);
    }
    Row&& subChains(int least, int most) &&
    {
        minChains = least;
        maxChains = most;
        return std::move(*this);
    }
    Row&& notShareable() &&
    {
        shareable = false;
        return std::move(*this);
    }
    Row&& tilesDiffer(std::string why, double tolerance) &&
    {
        tileDependence = std::move(why);
        tileTolerance = tolerance;
        return std::move(*this);
    }
    Row&& examplesOn(long long channels, std::vector<std::string> list, std::string input = "") &&
    {
        inputChannels = channels;
        examples = std::move(list);
        exampleInput = std::move(input);
        return std::move(*this);
    }
};

std::vector<FilterEntry> makeTable()
{
    std::vector<FilterEntry> table;
    auto add = [&table](Row&& row) { table.push_back(std::move(row)); };
    std::string const odd = "odd window size";

    // Pixel-wise and channel filters.
    add(Row("clamp", "Repeats the nearest edge values outside the image (put it under neighbourhood filters).",
            {"ClampingFilter"}, buildClamp)
            .examplesOn(2, {""}));
    add(Row("threshold", "high where value >= t, else low.", {"ThresholdFilter"}, buildThreshold)
            .with({number("t", "", "threshold", numbers(-300, 300)),
                   number("low", "0", "output below t", numbers(-300, 300)),
                   number("high", "1", "output at or above t", numbers(-300, 300))})
            .examplesOn(2, {"0 -1 1", "100"}));
    add(Row("add", "Voxel-wise sum of two sub-chains, each applied to this stage's input: add (A) (B).",
            {"AdditionFilter"}, buildAdd)
            .subChains(2, 2)
            .examplesOn(2, {"() (gaussian 3)"}));
    add(Row("difference", "Voxel-wise difference A - B of two sub-chains: difference (A) (B).", {"DifferenceFilter"},
            buildDifference)
            .subChains(2, 2)
            .examplesOn(2, {"() (gaussian 3)", "(clamp) (erode 3)"}));
    add(Row("concat", "Channels of several sub-chains, one after another: concat (A) (B) ...", {"ConcatFilter"},
            buildConcat)
            .subChains(1, -1)
            .examplesOn(2, {"() (gaussian 3) ()"}));
    add(Row("channel", "Selects channels by index (with a count) or by name.", {"ChannelFilter"}, buildChannel)
            .with({word("which", "", "first channel index, or a channel name", channelIndex()),
                   integer("count", "1", "number of channels", integers(1, 1))})
            .examplesOn(3, {"1", "1 2"}));
    add(Row("hsv", "RGB to hue, saturation and value, each quantised to 0..255.", {"RGBToHSVFilter"}, buildHsv)
            .examplesOn(3, {""}));
    add(Row("zslice", "Presents one z slice.", {"ZStackFilter"}, buildZSlice)
            .with({integer("z", "", "slice index", integers(0, 1))})
            .examplesOn(2, {"0"}));
    add(Row("voxelsize", "Reports another level-0 voxel size (x, y, z integers).", {"VoxelSizeModificationFilter"},
            buildVoxelSize)
            .with({integer("x", "", "", integers(1, 3)), integer("y", "", "", integers(1, 3)),
                   integer("z", "", "", integers(1, 3))})
            .examplesOn(2, {"3 3 7"}));
    add(Row("replace", "Replaces one exact colour (all channels) by another: replace 255,255,255 0,0,0.",
            {"ValueReplacementFilter"}, buildReplace)
            .with({numberList("from", "", "values per channel", perChannelIntegers(0, 3)),
                   numberList("to", "", "values per channel", perChannelIntegers(0, 3))})
            .examplesOn(2, {"1,2 5,6"}));

    // Neighbourhood filters.
    add(Row("box", "Box mean (or sum) over a k x k window.", {"BoxFilter"}, buildBox)
            .with({integer("k", "", odd, oddIntegers(1, 9)),
                   word("mode", "mean", "mean or sum", choices({"mean", "sum"})),
                   word("rounding", "exact", "exact or round", choices({"exact", "round"}))})
            .tilesDiffer("running sums along y restart at every request, so the sums round differently", 1e-9)
            .examplesOn(2, {"5", "5 sum round"}));
    add(Row("convolve", "Separable convolution with kernels along x and y (comma-separated, odd length).",
            {"SeparableConvolutionFilter"}, buildConvolve)
            .with({numberList("kx", "", "kernel along x", choices({"1,-2,1", "0.25,0.5,0.25", "1,-2,4,-2,1"})),
                   numberList("ky", "=kx", "kernel along y", choices({"=kx", "0.5,1,0.5"}))})
            .examplesOn(2, {"1,-2,4,-2,1 0.5,1,2,1,0.5"}));
    add(Row("gaussian", "Gaussian blur with a k-tap kernel.", {"GaussianBlurFilter"}, buildGaussian)
            .with({integer("k", "", "odd kernel size", oddIntegers(1, 9))})
            .examplesOn(2, {"7", "3"}));
    add(Row("sobel", "Sobel gradients: 'vector' (gx, gy per channel) or 'magnitude' (gx^2 + gy^2).",
            {"SobelVectorFilter", "SobelMagnitudeFilter"}, buildSobel)
            .with({word("output", "magnitude", "vector or magnitude", choices({"vector", "magnitude"})),
                   integer("k", "3", "kernel size", oddIntegers(1, 7))})
            .examplesOn(2, {"vector 3", "magnitude 5"}));
    add(Row("harris", "Eigenvalues of the Gaussian-smoothed gradient tensor.", {"HarrisEigenvaluesFilter"}, buildHarris)
            .with({integer("k", "5", "blur size", oddIntegers(1, 7))})
            .examplesOn(1, {"5"}));
    add(Row("localnorm", "Background normalization against a coarser level of the same image.",
            {"LocalNormalizationFilter"}, buildLocalNorm)
            .with({integer("level", "4", "background level", integers(0, 3))})
            .examplesOn(2, {"2"}));
    add(Row("distance", "Euclidean distance to the nearest voxel of a value, capped at max.",
            {"DistanceTransformFilter"}, buildDistance)
            .with({number("value", "0", "the value distances are measured to", integers(0, 2)),
                   integer("max", "64", "cap in voxels", integers(0, 8))})
            .examplesOn(1, {"0 6"}, "threshold 128"));
    add(Row("radial", "Radial symmetry: gradient votes for centres of round structures.", {"RadialSymmetryFilter"},
            buildRadial)
            .with({number("radius", "", "expected radius in voxels", numbers(0.5, 8.0)),
                   number("threshold", "0", "minimum gradient magnitude", numbers(0.0, 5.0))})
            .tilesDiffer(
                "votes are clipped to the request box, and a clipped line is drawn from its clipped end points", -1.0)
            .examplesOn(1, {"3 0.5"}));

    // Rank, histogram and texture filters.
    add(Row("histogram", "Local histogram: one channel per bin, counts over a k x k window.", {"HistogramFilter"},
            buildHistogram)
            .with({integer("k", "", odd, oddIntegers(1, 7)), integer("bins", "16", "number of bins", integers(1, 20))})
            .examplesOn(1, {"5 6"}));
    add(Row("lbp", "Uniform local binary pattern classes.", {"LBPFilter"}, buildLbp)
            .with({number("radius", "1", "sampling radius", numbers(0.5, 4.0))})
            .examplesOn(1, {"1.5"}));
    add(Row("erode", "Grey-value erosion over a k x k square.", {"ErosionFilter"}, buildErode)
            .with({integer("k", "", odd, oddIntegers(1, 9))})
            .examplesOn(2, {"5"}));
    add(Row("dilate", "Grey-value dilation over a k x k square.", {"DilationFilter"}, buildDilate)
            .with({integer("k", "", odd, oddIntegers(1, 9))})
            .examplesOn(2, {"3"}));
    add(Row("rank", "The value at a rank (0 = minimum) of the k x k window.", {"RankFilter"}, buildRank)
            .with(
                {integer("k", "", odd, oddIntegers(1, 7)), integer("index", "", "rank, 0 .. k*k - 1", integers(0, 8))})
            .examplesOn(2, {"5 7"}));
    add(Row("median", "Median of the k x k window.", {"RankFilter"}, buildMedian)
            .with({integer("k", "", odd, oddIntegers(1, 9))})
            .examplesOn(2, {"5"}));

    // Resolution filters.
    add(Row("downsample", "Coarser levels computed by 2^n block means from one source level.", {"DownsampleFilter"},
            buildDownsample)
            .with({integer("level", "0", "source level", integers(0, 3))})
            .examplesOn(2, {"0"}));
    add(Row("upsample", "Finer levels enlarged from one source level.", {"UpsampleFilter"}, buildUpsample)
            .with({integer("level", "", "source level", integers(0, 3)),
                   word("mode", "bilinear", "bilinear or nearest", choices({"bilinear", "nearest"}))})
            .examplesOn(2, {"2", "1 nearest"}));

    // Colour.
    add(Row("unmix",
            "Colour unmixing of the first three channels into the amount (0..1) of one stain. Stains are joined by "
            "'+', each a preset (hematoxylin, eosin, dab) or an r,g,b transmitted colour.",
            {"ColorUnmixingFilter"}, buildUnmix)
            .with({word("stains", "hematoxylin+eosin", "reference colours",
                        choices({"hematoxylin+eosin", "hematoxylin+dab", "57.4,50.6,132.5+216.4,26.2,201"})),
                   integer("index", "0", "which stain to output", integers(0, 1))})
            .examplesOn(3, {"hematoxylin+eosin 0"}));
    return table;
}

// Fills in the defaults of the parameters the stage left out, and checks the sub-chain count and each
// typed parameter, so that a malformed one names itself before anything is built.
void completeArguments(FilterEntry const& entry, std::size_t given, FilterArguments& arguments)
{
    for (std::size_t next = given; next < entry.parameters.size(); ++next)
    {
        FilterParameter const& parameter = entry.parameters[next];
        if (parameter.defaultValue.empty())
            arguments.fail("parameter '" + parameter.name + "' is missing; usage: " + FilterRegistry::usage(entry));
        arguments.values[parameter.name] = parameter.defaultValue;
    }
    int const chains = static_cast<int>(arguments.chains.size());
    if (chains < entry.minChains || (entry.maxChains >= 0 && chains > entry.maxChains))
        arguments.fail(
            "takes " +
            (entry.maxChains < 0 ? "at least " + std::to_string(entry.minChains) : std::to_string(entry.maxChains)) +
            " sub-chain(s) in parentheses, got " + std::to_string(chains) + "; usage: " + FilterRegistry::usage(entry));
    for (FilterParameter const& parameter : entry.parameters)
    {
        if (parameter.kind == ParameterKind::Integer)
            arguments.integer(parameter.name);
        else if (parameter.kind == ParameterKind::Number)
            arguments.number(parameter.name);
        else if (parameter.kind == ParameterKind::NumberList && arguments.word(parameter.name) != "=kx")
            arguments.numbers(parameter.name);
    }
}

// Runs the entry's builder; a library error gets the filter's name in front.
Image* buildStage(FilterEntry const& entry, Chain& chain, Image* input, FilterArguments const& arguments)
{
    try
    {
        return entry.build(chain, input, arguments);
    }
    catch (std::runtime_error const& error)
    {
        std::string const message = error.what();
        if (message.rfind(entry.name + ": ", 0) == 0)
            throw;
        std::string trimmed = message;
        while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == ' '))
            trimmed.pop_back();
        throw std::runtime_error(entry.name + ": " + trimmed);
    }
}

Image* buildInto(Chain& chain, ChainExpression const& expression, Image* source)
{
    Image* current = source;
    for (Stage const& stage : expression.stages)
    {
        FilterEntry const& entry = FilterRegistry::find(stage.name);
        FilterArguments arguments;
        arguments.filterName = entry.name;
        std::size_t given = 0;
        for (StageArgument const& argument : stage.arguments)
        {
            if (argument.isChain())
            {
                arguments.chains.push_back(buildInto(chain, *argument.chain, current));
                continue;
            }
            if (given >= entry.parameters.size())
                arguments.fail("too many parameters; usage: " + FilterRegistry::usage(entry));
            arguments.values[entry.parameters[given++].name] = argument.word;
        }
        completeArguments(entry, given, arguments);
        current = buildStage(entry, chain, current, arguments);
        chain.shareable = chain.shareable && entry.shareable;
    }
    return current;
}

} // namespace

std::vector<FilterEntry> const& FilterRegistry::entries()
{
    static std::vector<FilterEntry> const table = makeTable();
    return table;
}

FilterEntry const& FilterRegistry::find(std::string const& name)
{
    for (FilterEntry const& entry : entries())
        if (entry.name == name)
            return entry;
    throw std::runtime_error("Unknown filter '" + name + "'. 'nuvek filters' lists them.");
}

std::string FilterRegistry::usage(FilterEntry const& entry)
{
    std::string text = entry.name;
    for (FilterParameter const& parameter : entry.parameters)
        text += parameter.defaultValue.empty() ? " " + parameter.name
                                               : " [" + parameter.name + "=" + parameter.defaultValue + "]";
    if (entry.maxChains != 0)
        text += entry.maxChains < 0 ? " (CHAIN)..." : std::string(" (CHAIN)") + (entry.maxChains > 1 ? " (CHAIN)" : "");
    return text;
}

std::string FilterRegistry::describe()
{
    std::string text;
    for (FilterEntry const& entry : entries())
    {
        text += "  " + usage(entry) + "\n      " + entry.description + "\n";
        for (FilterParameter const& parameter : entry.parameters)
            if (!parameter.help.empty())
                text += "      " + parameter.name + ": " + parameter.help + "\n";
    }
    return text;
}

std::unique_ptr<Chain> FilterRegistry::buildChain(ChainExpression const& expression, Image* source)
{
    auto chain = std::make_unique<Chain>();
    chain->output = buildInto(*chain, expression, source);
    return chain;
}

bool FilterRegistry::isShareable(ChainExpression const& expression)
{
    for (Stage const& stage : expression.stages)
    {
        if (!find(stage.name).shareable)
            return false;
        for (StageArgument const& argument : stage.arguments)
            if (argument.isChain() && !isShareable(*argument.chain))
                return false;
    }
    return true;
}

} // namespace Nuvek
