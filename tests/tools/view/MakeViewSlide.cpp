// Writes the browser test's slide: a pyramidal RGB TIFF of 128 x 128 blocks of flat colours, so that
// every level shows the same colours at the same places (a block's mean is its colour down to
// level 7). Usage: make_view_slide OUTPUT.tif
#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/PyramidalTiffWriter.h>

#include <vector>

int main(int argc, char** argv)
{
    long long const width = 1536;
    long long const height = 1024;
    std::vector<double> values(static_cast<std::size_t>(width * height * 3));
    for (long long y = 0; y < height; ++y)
        for (long long x = 0; x < width; ++x)
        {
            // The same formula as the test script's blockColour.
            long long const bx = x / 128;
            long long const by = y / 128;
            long long const rgb[3] = {(40 + 20 * bx) % 256, (30 + 28 * by) % 256, (220 + 37 * (bx + by)) % 256};
            for (long long c = 0; c < 3; ++c)
                values[static_cast<std::size_t>(c * width * height + y * width + x)] = static_cast<double>(rgb[c]);
        }
    Nuvek::MemoryImage image(Nuvek::Vector(width, height, 1), 3, values);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    image.setVoxelSize(Nuvek::Vector(500, 500, 1));
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = 256;
    return argc == 2 && Nuvek::writePyramidalTiff(image, argv[1], options) ? 0 : 1;
}
