// One large request, with a frame around the extent, must equal the same voxels taken from requests
// split at odd positions, on 1 to 4 threads, bit for bit, for every filter of the registry and for the
// file-backed sources; the exceptions are named in the filter list with the reason.
#include "reliability/FilterCases.h"

#include "support/NuvekTest.h"

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
            std::vector<double> const tiled = openTiled(image, level, box, {-2, 7, 30, 61, 64}, {3, 22, 45}, threads);
            std::string const context =
                name + ", level " + std::to_string(level) + ", threads " + std::to_string(threads);
            if (tolerance == 0.0)
            {
                EXPECT_TRUE(sameBitsAnyNaN(whole, tiled, box, context));
            }
            else if (tolerance > 0.0)
            {
                EXPECT_TRUE(nearlyEqual(whole, tiled, box, tolerance, context));
            }
        }
    }
}

} // namespace

TEST(Tiling, TilesAndThreadsAgreeWithOneLargeRequestForEveryFilter)
{
    for (FilterCase const& test : filterCases())
    {
        std::mt19937_64 random(4242);
        // NaN and infinities in the input, except where tiles may differ by rounding (one infinity
        // would turn the difference into NaN against a number) and in erosion and dilation, whose
        // NaN and -0.0 slots count from the start of the request's padding.
        bool const morphologic =
            test.expression.find("erode") != std::string::npos || test.expression.find("dilate") != std::string::npos;
        ValueMix const mix{0.0, 255.0, test.tileDependence.empty() && !morphologic ? 0.01 : 0.0};
        auto source = randomImage(random, Vector(131, 97, 1), test.channels, mix);
        source->setValueRange(Nuvek::ValueRange<double>(0, 255));
        std::unique_ptr<Image> filter = test.make(source.get());
        expectTilesAgree(*filter, test.shareable ? 4 : 1, test.tileDependence.empty() ? 0.0 : test.tileTolerance,
                         test.name, test.expression.find("distance") == std::string::npos);
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
