// One large request, with a frame around the extent, must equal the same voxels taken from requests
// split at odd positions, bit for bit, for every filter of the registry and for the file-backed
// sources; the exceptions are named in the filter list with the reason. Shareable images are also
// opened on 2 to 4 threads at once, each thread taking its own grid of tiles, so that equal,
// overlapping and disjoint requests run together (under ThreadSanitizer in CI).
#include "reliability/FilterCases.h"

#include "support/NuvekTest.h"

#include <atomic>
#include <future>

#ifdef NUVEK_TEST_IO
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include <filesystem>
#include <unistd.h>
#endif

using namespace NuvekTest;

namespace {

// Whole against tiled at levels 0 and 1, a frame of five voxels around the extent in x and y and one
// slice before it in z. The distance transform goes without the frame: it writes the overlap with the
// image from the box's first voxel, so its voxels outside the image depend on the box.
void expectTilesAgree(Image& image, int maxThreads, double tolerance, std::string const& name, bool frame = true)
{
    for (long long level = 0; level < 2; ++level)
    {
        Box box(image.getExtent(level));
        if (frame)
        {
            box = box.expanded(Vector(5, 5, 0));
            box.min.z -= 1;
        }
        std::vector<double> const whole = openWhole(image, level, box);
        for (int threads = 1; threads <= maxThreads; ++threads)
        {
            std::vector<std::future<std::vector<double>>> tiled;
            for (long long t = 0; t < threads; ++t)
                tiled.push_back(std::async(std::launch::async, [&, t]() {
                    return openTiled(image, level, box, {-2 + t, 7 + t, 30, 61 - t, 64}, {3 + t, 22, 45 - t});
                }));
            for (int t = 0; t < threads; ++t)
            {
                std::vector<double> const tiles = tiled[static_cast<std::size_t>(t)].get();
                std::string const context = name + ", level " + std::to_string(level) + ", thread " +
                                            std::to_string(t + 1) + " of " + std::to_string(threads);
                if (tolerance >= 0.0)
                {
                    EXPECT_TRUE(tolerance == 0.0 ? sameBitsAnyNaN(whole, tiles, box, context)
                                                 : nearlyEqual(whole, tiles, box, tolerance, context));
                }
            }
        }
    }
}

// Serves a MemoryImage's values, but the first openRegion call waits (at most 30 seconds) until a
// second call has arrived; later calls pass straight through.
struct MeetingImage : public Nuvek::Filter
{
    explicit MeetingImage(std::shared_ptr<MemoryImage> source) : Filter(source.get(), false), source(source) {}

    void openRegion(double* out, long long level, Box const& box) override
    {
        long long const arrival = ++arrived;
        if (arrival == 2)
            second.set_value();
        else if (arrival == 1)
            met = secondArrived.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
        Filter::openRegion(out, level, box);
    }

    std::shared_ptr<MemoryImage> source;
    std::atomic<long long> arrived{0};
    std::promise<void> second;
    std::shared_future<void> secondArrived = second.get_future().share();
    std::atomic<bool> met{false};
};

} // namespace

TEST(Tiling, TilesAndThreadsAgreeWithOneLargeRequestAndCallsRunAtOnceForEveryFilter)
{
    for (FilterCase const& test : filterCases())
    {
        // NaN and infinities in the input, except where tiles may differ by rounding (one infinity
        // would turn the difference into NaN against a number) and in erosion and dilation, whose
        // NaN and -0.0 slots count from the start of the request's padding.
        bool const morphologic =
            test.expression.find("erode") != std::string::npos || test.expression.find("dilate") != std::string::npos;
        auto source = test.source(Vector(131, 97, 1), 4242, test.tileDependence.empty() && !morphologic ? 0.01 : 0.0);
        std::unique_ptr<Image> filter = test.make(source.get());
        expectTilesAgree(*filter, test.shareable ? 4 : 1, test.tileDependence.empty() ? 0.0 : test.tileTolerance,
                         test.name, test.expression.find("distance") == std::string::npos);
        if (!test.shareable)
            continue;
        // The source holds the first call that reaches it until a second call has reached it too. A
        // filter that let only one call at a time reach its input would keep the second one out until
        // the first gave up waiting.
        MeetingImage meeting(test.source(Vector(64, 48, 1), 2000));
        std::unique_ptr<Image> shared = test.make(&meeting);
        Box const box(Vector(-2, 3, 0), Vector(40, 30, 0));
        auto other = std::async(std::launch::async, [&]() { return openWhole(*shared, 0, box); });
        std::vector<double> const first = openWhole(*shared, 0, box);
        EXPECT_TRUE(sameBits(first, other.get(), box, test.name));
        EXPECT_TRUE(meeting.met) << test.name << ": the second call did not reach the input while the first was inside";
    }
}

#ifdef NUVEK_TEST_IO
TEST(Tiling, TilesAndThreadsAgreeWithOneLargeRequestForFileSources)
{
    std::filesystem::path const folder =
        std::filesystem::temp_directory_path() / ("nuvek-tiling-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::mt19937_64 random(4343);
    std::vector<double> samples = randomValues(random, 150 * 120 * 3, {0.0, 256.0, 0.0});
    for (double& value : samples)
        value = std::floor(value);
    auto values = std::make_shared<MemoryImage>(Vector(150, 120, 1), 3, samples);
    values->setValueRange({0.0, 255.0});
    std::string const tiff = (folder / "image.tif").string();
    std::string const zarr = (folder / "image.zarr").string();
    Nuvek::PyramidalTiffOptions tiffOptions;
    tiffOptions.tileSize = 64;
    ASSERT_TRUE(Nuvek::writePyramidalTiff(*values, tiff, tiffOptions));
    Nuvek::OmeZarrOptions zarrOptions;
    zarrOptions.chunkSize = 64;
    ASSERT_TRUE(Nuvek::writeOmeZarr(*values, zarr, zarrOptions));
    {
        Nuvek::TiffImage tiffImage(tiff);
        Nuvek::ZarrImage zarrImage(zarr);
        Nuvek::SlideImage slideImage(tiff);
        expectTilesAgree(tiffImage, 4, 0.0, "TiffImage");
        expectTilesAgree(zarrImage, 4, 0.0, "ZarrImage");
        expectTilesAgree(slideImage, 4, 0.0, "SlideImage");
    }
    std::filesystem::remove_all(folder);
}
#endif
