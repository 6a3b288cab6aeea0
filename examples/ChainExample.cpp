// Builds a small chain over an in-memory image (source, clamp-to-edge, threshold), opens a box that
// reaches beyond the image on every side, and prints what came back.
#include <nuvek/Nuvek.h>

#include <cmath>
#include <cstdio>
#include <vector>

int main()
{
    // An 8 x 6 image with one channel: a bright disc on a dark ramp.
    Nuvek::Vector const extent(8, 6, 1);
    std::vector<double> values;
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
        {
            double const distance = std::hypot(static_cast<double>(x) - 5.0, static_cast<double>(y) - 3.0);
            values.push_back(distance < 2.0 ? 200.0 : 10.0 * static_cast<double>(x));
        }
    Nuvek::MemoryImage source(extent, 1, values);
    source.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));

    // The clamping filter repeats edge values outside the image; the threshold marks bright voxels.
    Nuvek::ClampingFilter clamp(&source, false);
    Nuvek::ThresholdFilter threshold(&clamp, 60.0, 0.0, 1.0, false);

    Nuvek::Box const box(Nuvek::Vector(-2, -2, 0), Nuvek::Vector(extent.x + 1, extent.y + 1, 0));
    Nuvek::Vector const size = box.getExtent();
    std::vector<double> clamped(static_cast<std::size_t>(box.getSize()));
    std::vector<double> marked(static_cast<std::size_t>(box.getSize()));
    clamp.openRegion(clamped.data(), 0, box);
    threshold.openRegion(marked.data(), 0, box);

    std::printf("Source %lld x %lld, box (%lld, %lld) to (%lld, %lld) at level 0\n", extent.x, extent.y, box.min.x,
                box.min.y, box.max.x, box.max.y);
    std::printf("\nClamped values (the outer two rows and columns repeat the edge):\n");
    for (long long y = 0; y < size.y; ++y)
    {
        for (long long x = 0; x < size.x; ++x)
            std::printf("%5.0f", clamped[static_cast<std::size_t>(y * size.x + x)]);
        std::printf("\n");
    }
    std::printf("\nThreshold at 60 (# = 1):\n");
    long long count = 0;
    for (long long y = 0; y < size.y; ++y)
    {
        for (long long x = 0; x < size.x; ++x)
        {
            bool const high = marked[static_cast<std::size_t>(y * size.x + x)] == 1.0;
            count += high ? 1 : 0;
            std::printf("%s", high ? " #" : " .");
        }
        std::printf("\n");
    }
    std::printf("\n%lld of %lld voxels at or above the threshold; value range of the result (%g, %g)\n", count,
                box.getSize(), threshold.getValueRange().min, threshold.getValueRange().max);
    return 0;
}
