#include "Commands.h"

#include "AutoRange.h"
#include "OutputWriter.h"
#include "Preview.h"
#include "Progress.h"
#include "SyntheticSlide.h"

#include <nuvek/chains/ChainExpression.h>
#include <nuvek/chains/ChainImage.h>
#include <nuvek/chains/FilterRegistry.h>
#include <nuvek/chains/NumberText.h>
#include <nuvek/io/ImageFormats.h>
#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/StoredSampleType.h>
#include <nuvek/io/TileCacheSize.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

namespace NuvekTool {

namespace {

// Set by SIGINT; polled by the writer between tiles.
std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int)
{
    interrupted.store(true);
}

// Ctrl-C requests a clean stop for as long as this lives.
class InterruptScope
{
public:
    InterruptScope() { previous = std::signal(SIGINT, onInterrupt); }
    ~InterruptScope() { std::signal(SIGINT, previous); }
    InterruptScope(InterruptScope const&) = delete;
    InterruptScope& operator=(InterruptScope const&) = delete;

private:
    void (*previous)(int) = SIG_DFL;
};

int defaultThreads()
{
    return static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

// --name value, --name=value and bare flags; positional arguments in order.
struct Options
{
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::set<std::string> flags;

    bool has(std::string const& name) const { return values.count(name) != 0; }
    std::string get(std::string const& name, std::string const& fallback) const
    {
        auto const found = values.find(name);
        return found == values.end() ? fallback : found->second;
    }
    long long integer(std::string const& name, long long fallback, long long minimum) const
    {
        if (!has(name))
            return fallback;
        std::string const& text = values.at(name);
        std::optional<long long> const value = Nuvek::NumberText::integer(text);
        if (value && *value >= minimum)
            return *value;
        throw std::runtime_error("--" + name + " must be a whole number of at least " + std::to_string(minimum) +
                                 ", got '" + text + "'.");
    }
};

Options parseOptions(std::vector<std::string> const& arguments, std::set<std::string> const& valueOptions,
                     std::set<std::string> const& flagOptions)
{
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i)
    {
        std::string const& argument = arguments[i];
        if (argument.size() < 2 || argument.compare(0, 2, "--") != 0)
        {
            options.positional.push_back(argument);
            continue;
        }
        std::string name = argument.substr(2);
        std::string value;
        bool const inlineValue = name.find('=') != std::string::npos;
        if (inlineValue)
        {
            value = name.substr(name.find('=') + 1);
            name = name.substr(0, name.find('='));
        }
        if (flagOptions.count(name) != 0 && !inlineValue)
        {
            options.flags.insert(name);
            continue;
        }
        if (valueOptions.count(name) == 0)
            throw std::runtime_error("unknown option --" + name + ".");
        if (!inlineValue)
        {
            if (i + 1 >= arguments.size())
                throw std::runtime_error("--" + name + " needs a value.");
            value = arguments[++i];
        }
        options.values[name] = value;
    }
    return options;
}

bool wantsHelp(std::vector<std::string> const& arguments)
{
    return std::find(arguments.begin(), arguments.end(), "--help") != arguments.end() ||
           std::find(arguments.begin(), arguments.end(), "-h") != arguments.end();
}

Nuvek::Box parseBox(std::string const& text, Nuvek::Vector const& extent)
{
    std::vector<long long> numbers;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ','))
    {
        std::optional<long long> const number = Nuvek::NumberText::integer(item);
        if (!number)
        {
            numbers.clear();
            break;
        }
        numbers.push_back(*number);
    }
    if (numbers.size() != 4 || numbers[2] < 1 || numbers[3] < 1)
        throw std::runtime_error("--box takes X,Y,WIDTH,HEIGHT with positive width and height, got '" + text + "'.");
    return Nuvek::Box(Nuvek::Vector(numbers[0], numbers[1], 0),
                      Nuvek::Vector(numbers[0] + numbers[2] - 1, numbers[1] + numbers[3] - 1, extent.z - 1));
}

struct RunResult
{
    long long voxels = 0;
    double seconds = 0.0;
};

// Parses --range: "auto", "LO,HI" or "LO,HI;LO,HI;..." (one per channel). An empty result is auto.
std::vector<Nuvek::ValueRange<double>> parseRanges(std::string const& text)
{
    std::vector<Nuvek::ValueRange<double>> ranges;
    if (text == "auto")
        return ranges;
    std::stringstream stream(text);
    std::string item;
    auto const bad = [&]() {
        return std::runtime_error("--range takes LO,HI with LO < HI, one such pair per channel separated by ';', or "
                                  "auto; got '" +
                                  text + "'.");
    };
    auto const number = [&](std::string const& word) {
        std::size_t used = 0;
        double value = 0.0;
        try
        {
            value = std::stod(word, &used);
        }
        catch (std::exception const&)
        {
            throw bad();
        }
        if (used != word.size() || !std::isfinite(value))
            throw bad();
        return value;
    };
    while (std::getline(stream, item, ';'))
    {
        std::size_t const comma = item.find(',');
        if (comma == std::string::npos)
            throw bad();
        double const low = number(item.substr(0, comma));
        double const high = number(item.substr(comma + 1));
        if (!(high > low))
            throw bad();
        ranges.emplace_back(low, high);
    }
    if (ranges.empty() || text.back() == ';')
        throw bad();
    return ranges;
}

// One line on the standard error stream when integer output with the default range hides the data.
void hintAtRange(Nuvek::SampleStatistics const& statistics, Nuvek::TiffSampleType type)
{
    double const top = type == Nuvek::TiffSampleType::UInt8 ? 255.0 : 65535.0;
    if (statistics.samples == 0)
        return;
    if (statistics.saturated * 2 > statistics.samples)
        std::fprintf(stderr,
                     "nuvek run: hint: %.0f%% of the samples lie outside the value range and are stored as 0 "
                     "or %.0f; --range LO,HI or --range auto sets the range to map.\n",
                     100.0 * static_cast<double>(statistics.saturated) / static_cast<double>(statistics.samples), top);
    else if (statistics.highestStored - statistics.lowestStored < top / 16.0)
        std::fprintf(stderr,
                     "nuvek run: hint: the output uses only the values %.0f to %.0f of 0 to %.0f; --range "
                     "LO,HI or --range auto sets the range to map.\n",
                     statistics.lowestStored, statistics.highestStored, top);
}

// Writes the chain's result at a level and box to `output`; throws Interrupted when Ctrl-C stopped it.
RunResult runChain(Nuvek::Image& source, std::string const& chainText, std::string const& output, long long level,
                   Nuvek::Box const* requested, OutputSettings const& givenSettings, bool quiet,
                   std::string const& label, bool autoRange = false)
{
    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression(chainText);
    if (level < 0 || level >= source.getNumLevels())
        throw std::runtime_error("--level " + std::to_string(level) + " is not among the input's " +
                                 std::to_string(source.getNumLevels()) + " levels.");
    Nuvek::Vector const extent = source.getExtent(level);
    Nuvek::Box const box = requested != nullptr ? *requested : Nuvek::Box(extent);
    if (box.isEmpty())
        throw std::runtime_error("the region to process is empty.");
    Nuvek::ChainImage image(expression, &source, level, box);
    OutputSettings settings = givenSettings;
    bool const integer = settings.type != Nuvek::TiffSampleType::Float32;
    if (autoRange && integer)
        settings.ranges = estimateChannelRanges(expression, source, level, box);
    if (settings.ranges.size() > 1 && static_cast<long long>(settings.ranges.size()) != image.getNumChannels())
        throw std::runtime_error("--range gives " + std::to_string(settings.ranges.size()) +
                                 " ranges, the output has " + std::to_string(image.getNumChannels()) + " channels.");
    Nuvek::SampleStatistics statistics;
    settings.statistics = &statistics;

    Progress progress(label, quiet);
    std::atomic<long long> voxelsDone{0};
    bool const finished = writeOutput(
        image, output, settings,
        [&](long long tilesDone, long long tilesTotal, long long voxels) {
            voxelsDone = voxels;
            progress.update(tilesDone, tilesTotal, voxels);
        },
        interrupted);
    if (!finished)
        throw Interrupted();
    long long const voxels = box.getSize() * image.getNumChannels();
    progress.finish(voxels);
    if (integer && givenSettings.ranges.empty() && !autoRange)
        hintAtRange(statistics, settings.type);
    return RunResult{voxels, progress.elapsedSeconds()};
}

// An option whose value names an enumerator; the message names the option ("--type must be ...").
template <typename Parse>
auto namedOption(Options const& options, std::string const& name, std::string const& fallback, Parse parse)
{
    try
    {
        return parse(options.get(name, fallback));
    }
    catch (std::runtime_error const& error)
    {
        std::string const message = error.what();
        throw std::runtime_error("--" + name + message.substr(message.find(" must ")));
    }
}

// Whether the chain only selects and clamps, so that its values are the input's.
bool keepsValues(Nuvek::ChainExpression const& expression)
{
    for (Nuvek::Stage const& stage : expression.stages)
        if (stage.name != "clamp" && stage.name != "channel" && stage.name != "zslice")
            return false;
    return true;
}

OutputSettings outputSettings(Options const& options)
{
    OutputSettings settings;
    settings.tileSize = options.integer("tile", 512, 16);
    settings.threads = static_cast<int>(options.integer("threads", defaultThreads(), 1));
    settings.type = namedOption(options, "type", "float32", Nuvek::ImageFormats::parseSampleType);
    settings.compression = namedOption(options, "compression", "deflate", Nuvek::ImageFormats::parseCompression);
    bool const zstd = settings.compression == Nuvek::TiffCompression::Zstd;
    std::string const compressionName = Nuvek::ImageFormats::toString(settings.compression);
    settings.compressionLevel = static_cast<int>(options.integer("compression-level", 0, 1));
    if (options.has("compression-level") && settings.compression != Nuvek::TiffCompression::Deflate && !zstd)
        throw std::runtime_error("--compression-level applies to deflate (1 to 12) and zstd (1 to 22) only.");
    if (settings.compressionLevel > (zstd ? 22 : 12))
        throw std::runtime_error("--compression-level must be from 1 to " + std::string(zstd ? "22" : "12") + " for " +
                                 compressionName + ", got " + std::to_string(settings.compressionLevel) + ".");
    settings.quality = static_cast<int>(options.integer("quality", 90, 1));
    if (options.has("quality") && settings.compression != Nuvek::TiffCompression::JPEG)
        throw std::runtime_error("--quality applies to jpeg compression only.");
    if (settings.quality > 100)
        throw std::runtime_error("--quality must be from 1 to 100, got " + std::to_string(settings.quality) + ".");
    if (options.has("range"))
        settings.ranges = parseRanges(options.get("range", ""));
    return settings;
}

// Whether every output tile asks the source for its own box or the blocks of 2^n x 2^n voxels it
// averages, which no other output tile asks for.
bool readsDisjointBoxes(Nuvek::ChainExpression const& expression)
{
    for (Nuvek::Stage const& stage : expression.stages)
        if (stage.name != "clamp" && stage.name != "channel" && stage.name != "zslice" && stage.name != "downsample")
            return false;
    return true;
}

// The decoded input tiles to keep so that the workers decode each once, or nearly. The writer
// computes the output in column stripes of writerStripeTiles tiles, top to bottom in rows of tiles, each reaching
// into the rows above and below; least recently used out, that needs three bands of an output
// tile's height (at least one input tile tall) across a stripe and its margins held, and a few
// tiles for each thread running ahead. Where two stripes meet, the input tiles under the margin
// are decoded once for each. Samples count at their stored size (8 bytes when it is unknown), and
// nothing beyond that is kept: the cache would fill up to any larger bound. The bound depends on
// the tile sizes, not on the image's width or height.
// A chain that only selects, clamps and averages blocks asks for disjoint boxes, so where the
// output tiles cover whole input tiles no two output tiles need the same input tile. Without
// downsampling each thread keeps only the input tiles under its output tile, which the writer asks
// for in bands of rows. Downsampling asks for an output tile's blocks in bands of rows, a
// few of them in each row of input tiles: each thread needs the input tiles across its output tile
// held, two rows of them (the row it finishes and the next), and one row more for the threads
// taking turns.
std::size_t inputCacheBytes(Nuvek::Image& source, Nuvek::ChainExpression const& expression, long long level,
                            Nuvek::Vector const& origin, OutputSettings const& settings)
{
    Nuvek::Vector const tile = source.getTileExtent();
    Nuvek::Vector const extent = source.getExtent(level);
    long long const tileX = std::max(1LL, tile.x);
    long long const tileY = std::max(1LL, tile.y);
    std::optional<Nuvek::TiffSampleType> const type = Nuvek::storedSampleType(source);
    long long const sampleBytes =
        !type ? 8 : (*type == Nuvek::TiffSampleType::UInt8 ? 1 : (*type == Nuvek::TiffSampleType::UInt16 ? 2 : 4));
    double const tileBytes = static_cast<double>(tileX) * static_cast<double>(tileY) *
                             static_cast<double>(std::max(1LL, tile.z)) *
                             static_cast<double>(source.getNumChannels() * sampleBytes);
    if (readsDisjointBoxes(expression) && settings.tileSize % tileX == 0 && settings.tileSize % tileY == 0 &&
        origin.x % tileX == 0 && origin.y % tileY == 0)
    {
        bool const downsamples = std::any_of(expression.stages.begin(), expression.stages.end(),
                                             [](Nuvek::Stage const& stage) { return stage.name == "downsample"; });
        if (!downsamples)
        {
            // The writer asks for an output tile in bands of rows: the input tiles under it stay
            // held until its last band, one output tile per thread.
            double const under =
                static_cast<double>(settings.tileSize / tileX) * static_cast<double>(settings.tileSize / tileY);
            return static_cast<std::size_t>(
                std::min(tileBytes * under * static_cast<double>(settings.threads), 4.0 * 1024 * 1024 * 1024));
        }
        double const across =
            std::ldexp(static_cast<double>(settings.tileSize), static_cast<int>(std::min(level, 40LL))) /
            static_cast<double>(tileX);
        double const bytes = tileBytes * std::ceil(across) * static_cast<double>(2 * settings.threads + 1);
        return static_cast<std::size_t>(std::min(bytes, 4.0 * 1024 * 1024 * 1024));
    }
    long long const stripe = (Nuvek::writerStripeTiles * settings.tileSize + tileX - 1) / tileX + 2;
    long long const across = std::min((extent.x + tileX - 1) / tileX, stripe);
    long long const rows = (3 * std::max(settings.tileSize, tileY) + tileY - 1) / tileY;
    double const bytes = tileBytes * static_cast<double>(across * rows + 4LL * settings.threads);
    return static_cast<std::size_t>(std::min(bytes, 4.0 * 1024 * 1024 * 1024));
}

char const* const runHelp = R"(Usage: nuvek run INPUT OUTPUT --chain EXPR [options]

Runs a filter chain over INPUT (TIFF, BigTIFF, a whole-slide file or a zarr folder) and writes the
result as a tiled pyramid. Tiles are computed on a pool of worker threads and written in order. The
output's name chooses the format: .tif, .tiff, .btf or .tf8 a plain pyramid (which OpenSlide opens); .ome.tif
or .ome.tiff OME-TIFF (levels as SubIFDs, OME-XML with channel names and physical sizes; channels
and z slices as separate pages unless the output is 3-channel uint8, stored as RGB); .ome.zarr or
.zarr an OME-Zarr group (NGFF 0.4, zarr v2; --compression none, deflate or zstd).

Chain expressions: filters separated by '|' apply left to right, each with its parameters:
    clamp | gaussian 5 | sobel magnitude 3
Filters with several inputs take sub-chains in parentheses; each sub-chain starts from the image
that flows into the filter, and () is that image itself:
    clamp | difference (gaussian 3) (gaussian 9)
    concat (channel 0) (channel 2 | gaussian 5)
'nuvek filters' lists every filter with its parameters and defaults.

Options:
  --chain EXPR          the filter chain (required)
  --level L             resolution level to process (default 0); the output's level 0 is that level
  --time T              time point of an OME or ImageJ file with several (default 0, the first)
  --box X,Y,W,H         process only this box at that level (default: the whole image)
  --tile N              output tile size in voxels, a multiple of 16 (default 512)
  --threads N           worker threads (default: all cores)
  --cache-mb N          MiB of decoded input tiles kept for the workers, so that each input tile
                        is decoded once although neighbouring output tiles and threads need it
                        (default: what the run needs, three bands of output tile rows across
                        a stripe of 8 output tiles and its margins, at the input's stored sample
                        size, and a few tiles per thread: 26 MiB for 512 x 512 RGB tiles and one
                        thread, whatever the image's size; the input tiles under one output
                        tile per thread for a chain that only selects and clamps on whole input
                        tiles, and two rows of the input tiles under
                        an output tile per thread for one that downsamples; 0 keeps none and
                        decodes an input tile for every output tile touching it)
  --type T              uint8, uint16 or float32. Default: the input's own sample type when the chain
                        only selects and clamps ('clamp', 'channel', 'zslice', or '()'), so that
                        values stay as they were; float32 for every other chain
  --range R             for uint8 and uint16: the values that map linearly onto 0..255 or
                        0..65535 (below: 0, above: the maximum). LO,HI for every channel;
                        LO,HI;LO,HI;... one per channel; or auto: per channel, from the 0.1st to
                        the 99.9th percentile of the chain's finite output values, computed at the
                        finest level of the input at which the region holds at most 4 Mvoxels (an
                        estimate: filters then see coarser voxels). Default: the chain's value range;
                        a hint names --range when that leaves more than half of the samples
                        saturated or uses less than 1/16 of the integer range
  --compression C       none, deflate, lzw, zstd or jpeg (default deflate). jpeg is lossy, for
                        uint8 output of 1 (grey) or 3 (RGB) channels, as slide scanners store tiles
  --compression-level N deflate: 1 (fastest) to 12 (smallest), default 6; zstd: 1 to 22, default 3
  --quality Q           jpeg quality, 1 to 100 (default 90)
  --preview FILE.png    also write a small PNG preview of the output
  --quiet               no progress bar and no summary

Threads: the libraries create none; this tool runs tiles on its own pool. The chain is built once
and shared by the workers: every filter may serve several threads at once.

The output appears only when complete: errors and Ctrl-C leave nothing behind. Exit status 2 for
bad usage, unreadable input, an invalid chain or an unwritable output; 130 when interrupted.
)";

struct Centre
{
    long long x, y;
};

// Local maxima of the first channel of level 0 that reach `threshold` and are the largest value
// within `radius` voxels (ties: the first in reading order), read in strips of rows.
std::vector<Centre> findCentres(Nuvek::Image& image, double threshold, long long radius)
{
    std::vector<Centre> centres;
    Nuvek::Vector const extent = image.getExtent(0);
    long long const strip = 256;
    for (long long y0 = 0; y0 < extent.y; y0 += strip)
    {
        long long const y1 = std::min(extent.y, y0 + strip) - 1;
        Nuvek::Box const box(Nuvek::Vector(-radius, y0 - radius, 0),
                             Nuvek::Vector(extent.x - 1 + radius, y1 + radius, 0));
        std::vector<double> values(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), 0.0);
        image.openRegion(values.data(), 0, box);
        long long const width = box.getExtent().x;
        auto at = [&](long long x, long long y) {
            return values[static_cast<std::size_t>((y - box.min.y) * width + (x - box.min.x))];
        };
        for (long long y = y0; y <= y1; ++y)
            for (long long x = 0; x < extent.x; ++x)
            {
                double const value = at(x, y);
                if (!(value >= threshold))
                    continue;
                bool peak = true;
                for (long long dy = -radius; dy <= radius && peak; ++dy)
                    for (long long dx = -radius; dx <= radius && peak; ++dx)
                    {
                        if (dx * dx + dy * dy > radius * radius || (dx == 0 && dy == 0))
                            continue;
                        double const other = at(x + dx, y + dy);
                        bool const before = dy < 0 || (dy == 0 && dx < 0);
                        peak = before ? other < value : other <= value;
                    }
                if (peak)
                    centres.push_back(Centre{x, y});
            }
    }
    return centres;
}

// How many true nuclei have a found centre within `distance` voxels, each centre used once.
long long matchCentres(std::vector<SyntheticSlide::Nucleus> const& truth, std::vector<Centre> const& found,
                       double distance)
{
    std::vector<bool> used(found.size(), false);
    long long matched = 0;
    for (SyntheticSlide::Nucleus const& nucleus : truth)
    {
        std::size_t best = found.size();
        double bestDistance = distance * distance;
        for (std::size_t i = 0; i < found.size(); ++i)
        {
            double const dx = static_cast<double>(found[i].x) + 0.5 - nucleus.x;
            double const dy = static_cast<double>(found[i].y) + 0.5 - nucleus.y;
            if (!used[i] && dx * dx + dy * dy <= bestDistance)
            {
                best = i;
                bestDistance = dx * dx + dy * dy;
            }
        }
        if (best < found.size())
        {
            used[best] = true;
            ++matched;
        }
    }
    return matched;
}

char const* const demoHelp = R"(Usage: nuvek demo [DIR] [--size N] [--threads N] [--slide-only] [--quiet]

Makes a synthetic brightfield slide (RGB, N x N voxels, N at least 2048, 4096 by default:
hematoxylin-stained nuclei on paler eosin-stained tissue), writes it as a tiled pyramidal TIFF,
then finds the nuclei with one filter chain, stage by stage, each stage reading the previous
stage's file:

  unmix hematoxylin+eosin 0   amount of the nuclear stain (0..1)
  clamp | gaussian 5          smoothing, with edge values repeated at the border
  downsample 2 | localnorm 6  background removed against level 6 (64 x 64 means) of the same image
  threshold 0.6               nuclei mask
  distance 1 16               distance to the nearest background voxel, capped at 16
  radial 12 0.5 | gaussian 9  radial symmetry votes, smoothed: peaks at nucleus centres

It then counts the peaks and compares them with the nuclei the slide was made with.

Every output gets a small PNG preview beside it. DIR defaults to ./nuvek-demo. --slide-only stops
after the slide (a large test input: --size 16384 --slide-only).
)";

// Where and how the demo writes its files.
struct DemoSettings
{
    std::filesystem::path directory;
    bool quiet = false;
    OutputSettings output;
};

// The demo's first file: the synthetic slide as 8-bit RGB, with its preview. Returns its path.
std::string writeDemoSlide(SyntheticSlide& slide, DemoSettings const& demo)
{
    std::string const slidePath = (demo.directory / "0-slide.tif").string();
    OutputSettings slideSettings = demo.output;
    slideSettings.type = Nuvek::TiffSampleType::UInt8;
    Progress progress("0-slide.tif", demo.quiet);
    if (!writeOutput(
            slide, slidePath, slideSettings,
            [&](long long done, long long total, long long voxels) { progress.update(done, total, voxels); },
            interrupted))
        throw Interrupted();
    progress.finish(slide.getExtent(0).prod() * 3);
    std::unique_ptr<Nuvek::Image> written = Nuvek::openImage(slidePath);
    writePreview(*written, (demo.directory / "0-slide.png").string());
    std::printf("  %-24s %6.2f s  synthetic slide with %zu nuclei\n", "0-slide.tif", progress.elapsedSeconds(),
                slide.nuclei().size());
    return slidePath;
}

// The nuclei-finding chain, one stage per file, each stage reading the previous stage's file, each
// with its preview. Returns the last file's path; pipeline receives the whole chain as one expression.
std::string runDemoStages(std::string const& slidePath, DemoSettings const& demo, std::string& pipeline)
{
    struct StageRun
    {
        char const* file;
        char const* chain;
        char const* what;
    };
    // The background is level 6 (voxels of 64 x 64, several nuclei wide), computed by block means
    // from level 2 of the file, which every demo size has.
    StageRun const stages[] = {
        {"1-hematoxylin.tif", "unmix hematoxylin+eosin 0", "nuclear stain amount"},
        {"2-smoothed.tif", "clamp | gaussian 5", "smoothed"},
        {"3-normalized.tif", "downsample 2 | localnorm 6", "background removed"},
        {"4-mask.tif", "threshold 0.6", "nuclei mask"},
        {"5-distance.tif", "distance 1 16", "distance inside nuclei"},
        {"6-centres.tif", "radial 12 0.5 | gaussian 9", "radial symmetry: nucleus centres"},
    };
    std::string previous = slidePath;
    for (StageRun const& stage : stages)
    {
        std::string const output = (demo.directory / stage.file).string();
        std::unique_ptr<Nuvek::Image> source = Nuvek::openImage(previous);
        RunResult const result =
            runChain(*source, stage.chain, output, 0, nullptr, demo.output, demo.quiet, stage.file);
        std::unique_ptr<Nuvek::Image> written = Nuvek::openImage(output);
        std::string const preview = (std::filesystem::path(output).replace_extension(".png")).string();
        writePreview(*written, preview);
        std::printf("  %-24s %6.2f s  %-34s %.1f Mvoxel/s  (nuvek run %s %s --chain '%s')\n", stage.file,
                    result.seconds, stage.what, static_cast<double>(result.voxels) / result.seconds / 1e6,
                    std::filesystem::path(previous).filename().string().c_str(), stage.file, stage.chain);
        pipeline += (pipeline.empty() ? "" : " | ") + std::string(stage.chain);
        previous = output;
    }
    return previous;
}

// How well the peaks of the centres file match the nuclei the slide was made with.
void reportDemoNuclei(std::string const& centresPath, SyntheticSlide const& slide)
{
    std::unique_ptr<Nuvek::Image> centresImage = Nuvek::openImage(centresPath);
    std::vector<Centre> const centres = findCentres(*centresImage, 5.0, 5);
    std::vector<SyntheticSlide::Nucleus> const truth = slide.nuclei();
    long long const matched = matchCentres(truth, centres, 6.0);
    std::printf("\nNuclei: %zu centres found (peaks of at least 5, 5 voxels apart); %lld of the %zu nuclei the slide\n"
                "was made with have one within 6 voxels (recall %.1f%%, precision %.1f%%).\n",
                centres.size(), matched, truth.size(),
                100.0 * static_cast<double>(matched) / static_cast<double>(truth.size()),
                centres.empty() ? 0.0 : 100.0 * static_cast<double>(matched) / static_cast<double>(centres.size()));
}

} // namespace

int filtersCommand(std::vector<std::string> const& arguments)
{
    if (wantsHelp(arguments))
    {
        std::printf("Usage: nuvek filters\n\nLists every filter with its parameters ([name=default] are optional).\n");
        return 0;
    }
    std::printf("Filters (parameters in order; [name=default] may be left out):\n\n%s",
                Nuvek::FilterRegistry::describe().c_str());
    return 0;
}

int infoCommand(std::vector<std::string> const& arguments)
{
    if (wantsHelp(arguments))
    {
        std::printf("Usage: nuvek info FILE [--time T]\n\nPrints the reader chosen for the file, the levels with their "
                    "extents, the\n"
                    "channels and their names, the value range, the voxel size (\"unknown\" where the\n"
                    "file does not give it) and the tile size of an image file. --time picks the time\n"
                    "point of a file with several (default 0, the first).\n");
        return 0;
    }
    Options const options = parseOptions(arguments, {"time"}, {});
    if (options.positional.size() != 1)
        throw std::runtime_error("expected one file; 'nuvek info --help' shows the usage.");
    std::unique_ptr<Nuvek::Image> image = Nuvek::openImage(options.positional[0], options.integer("time", 0, 0));
    bool const knowsSize = Nuvek::knowsVoxelSize(*image);
    std::printf("File:        %s\n", options.positional[0].c_str());
    std::printf("Reader:      %s\n", Nuvek::describeReader(*image).c_str());
    std::printf("Levels:      %lld\n", image->getNumLevels());
    for (long long level = 0; level < image->getNumLevels(); ++level)
    {
        Nuvek::Vector const extent = image->getExtent(level);
        Nuvek::Vector const voxel = image->getVoxelSize(level);
        std::string const size = knowsSize ? std::to_string(voxel.x) + " x " + std::to_string(voxel.y) + " x " +
                                                 std::to_string(voxel.z) + " nm"
                                           : "unknown";
        std::printf("  level %-3lld %lld x %lld x %lld voxels, voxel size %s\n", level, extent.x, extent.y, extent.z,
                    size.c_str());
    }
    std::printf("Channels:    %lld\n", image->getNumChannels());
    for (long long c = 0; c < image->getNumChannels(); ++c)
        std::printf("  %lld: %s\n", c, image->getChannelName(c).c_str());
    Nuvek::ValueRange<double> const range = image->getValueRange();
    std::printf("Value range: %g to %g\n", range.min, range.max);
    Nuvek::Vector const tile = image->getTileExtent();
    std::printf("Tile size:   %lld x %lld x %lld\n", tile.x, tile.y, tile.z);
    return 0;
}

int runCommand(std::vector<std::string> const& arguments)
{
    if (wantsHelp(arguments))
    {
        std::fputs(runHelp, stdout);
        return 0;
    }
    Options const options = parseOptions(arguments,
                                         {"chain", "level", "time", "box", "tile", "threads", "cache-mb", "type",
                                          "compression", "compression-level", "quality", "range", "preview"},
                                         {"quiet"});
    if (options.positional.size() != 2)
        throw std::runtime_error("expected INPUT and OUTPUT.tif; 'nuvek run --help' shows the usage.");
    if (!options.has("chain"))
        throw std::runtime_error("--chain is missing; 'nuvek run --help' shows the usage.");
    OutputSettings settings = outputSettings(options);
    outputFormatOf(options.positional[1]);
    long long const level = options.integer("level", 0, 0);
    // Parse the chain before touching any file, so that a typo costs nothing.
    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression(options.get("chain", ""));
    long long const cacheMegabytes = options.integer("cache-mb", 0, 0);
    if (cacheMegabytes > (1LL << 20))
        throw std::runtime_error("--cache-mb must be at most 1048576 (1 TiB), got " + std::to_string(cacheMegabytes) +
                                 ".");
    long long const time = options.integer("time", 0, 0);
    std::unique_ptr<Nuvek::Image> source = Nuvek::openImage(options.positional[0], time, 0);
    if (!options.has("type"))
        settings.type = keepsValues(expression)
                            ? Nuvek::storedSampleType(*source).value_or(Nuvek::TiffSampleType::Float32)
                            : Nuvek::TiffSampleType::Float32;
    if (options.has("range") && settings.type == Nuvek::TiffSampleType::Float32)
        throw std::runtime_error("--range applies to uint8 and uint16 output only; float32 stores values as they are.");
    std::unique_ptr<Nuvek::Box> box;
    if (options.has("box"))
        box = std::make_unique<Nuvek::Box>(parseBox(options.get("box", ""), source->getExtent(level)));
    std::size_t const cacheBytes =
        options.has("cache-mb")
            ? static_cast<std::size_t>(cacheMegabytes) << 20
            : inputCacheBytes(*source, expression, level, box ? box->min : Nuvek::Vector(), settings);
    if (cacheBytes > 0)
        source = Nuvek::openImage(options.positional[0], time, cacheBytes);
    InterruptScope const interruptScope;
    bool const quiet = options.flags.count("quiet") != 0;
    runChain(*source, options.get("chain", ""), options.positional[1], level, box.get(), settings, quiet,
             options.positional[1], options.get("range", "") == "auto");
    if (options.has("preview"))
    {
        std::unique_ptr<Nuvek::Image> written = Nuvek::openImage(options.positional[1]);
        writePreview(*written, options.get("preview", ""));
    }
    return 0;
}

int demoCommand(std::vector<std::string> const& arguments)
{
    if (wantsHelp(arguments))
    {
        std::fputs(demoHelp, stdout);
        return 0;
    }
    Options const options = parseOptions(arguments, {"size", "threads"}, {"quiet", "slide-only"});
    if (options.positional.size() > 1)
        throw std::runtime_error("expected at most one directory; 'nuvek demo --help' shows the usage.");
    DemoSettings demo;
    demo.directory = options.positional.empty() ? "nuvek-demo" : options.positional[0];
    long long const size = options.integer("size", 4096, 2048);
    demo.quiet = options.flags.count("quiet") != 0;
    demo.output.threads = static_cast<int>(options.integer("threads", defaultThreads(), 1));
    std::filesystem::create_directories(demo.directory);
    InterruptScope const interruptScope;

    auto const start = std::chrono::steady_clock::now();
    std::printf("Nuvek demo: a %lld x %lld brightfield slide, %d threads, output in %s\n\n", size, size,
                demo.output.threads, demo.directory.string().c_str());
    SyntheticSlide slide(size, 20261121);
    std::string const slidePath = writeDemoSlide(slide, demo);
    if (options.flags.count("slide-only") != 0)
        return 0;
    std::string pipeline;
    std::string const centresPath = runDemoStages(slidePath, demo, pipeline);
    reportDemoNuclei(centresPath, slide);

    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("\nThe whole chain in one go: nuvek run 0-slide.tif nuclei.tif --chain '%s'\n", pipeline.c_str());
    std::printf("Look at it over the slide in a browser, computed only where you look:\n  nuvek view %s --chain '%s'\n",
                slidePath.c_str(), pipeline.c_str());
    std::printf("Done in %.1f s. PNG previews are beside each .tif in %s.\n", seconds, demo.directory.string().c_str());
    return 0;
}

} // namespace NuvekTool
