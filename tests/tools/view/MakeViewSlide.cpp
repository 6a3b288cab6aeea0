// Writes the browser test's slide: a pyramidal RGB TIFF of 128 x 128 blocks of flat colours, so that
// every level shows the same colours at the same places (a block's mean is its colour down to
// level 7). Usage: make_view_slide OUTPUT.tif
#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <cstdio>
#include <exception>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: make_view_slide OUTPUT.tif\n");
        return 2;
    }
    long long const width = 1536;
    long long const height = 1024;
    long long const block = 128;
    std::vector<double> values(static_cast<std::size_t>(width * height * 3));
    for (long long y = 0; y < height; ++y)
        for (long long x = 0; x < width; ++x)
        {
            // The same formula as the test script's expected colours.
            long long const bx = x / block;
            long long const by = y / block;
            double const rgb[3] = {double((40 + 20 * bx) % 256), double((30 + 28 * by) % 256),
                                   double((220 + 37 * (bx + by)) % 256)};
            for (int c = 0; c < 3; ++c)
                values[static_cast<std::size_t>(c * width * height + y * width + x)] = rgb[c];
        }
    try
    {
        Nuvek::MemoryImage image(Nuvek::Vector(width, height, 1), 3, values);
        image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
        image.setVoxelSize(Nuvek::Vector(500, 500, 1));
        Nuvek::PyramidalTiffOptions options;
        options.tileSize = 256;
        return Nuvek::writePyramidalTiff(image, argv[1], options) ? 0 : 1;
    }
    catch (std::exception const& error)
    {
        std::fprintf(stderr, "make_view_slide: %s\n", error.what());
        return 1;
    }
}
