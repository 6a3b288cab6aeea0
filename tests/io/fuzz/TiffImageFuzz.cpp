// libFuzzer target: TiffImage given arbitrary bytes must either read them or throw
// std::runtime_error; any crash, sanitizer report, other exception or differing second read is a
// finding.
#include <nuvek/io/TiffImage.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string const& inputPath()
{
    static std::string const path = "/tmp/nuvek-fuzz-tiff-" + std::to_string(getpid()) + ".tif";
    return path;
}

void readSome(Nuvek::TiffImage& image)
{
    long long const channels = image.getNumChannels();
    if (channels > 16)
        return;
    for (long long level = 0; level < std::min(image.getNumLevels(), 3LL); ++level)
    {
        if (!image.hasLevel(level))
            continue;
        Nuvek::Vector const extent = image.getExtent(level);
        // A corner inside, and a box across the far border.
        std::vector<Nuvek::Box> const boxes = {
            Nuvek::Box(Nuvek::Vector(0, 0, 0),
                       Nuvek::Vector(std::min(extent.x, 40LL) - 1, std::min(extent.y, 40LL) - 1, 0)),
            Nuvek::Box(Nuvek::Vector(extent.x - 5, extent.y - 3, std::max(0LL, extent.z - 1)),
                       Nuvek::Vector(extent.x + 2, extent.y + 1, std::max(0LL, extent.z - 1)))};
        for (Nuvek::Box const& box : boxes)
        {
            if (box.isEmpty())
                continue;
            std::vector<double> first(static_cast<std::size_t>(box.getSize() * channels));
            image.openRegion(first.data(), level, box);
            std::vector<double> second(first.size());
            image.openRegion(second.data(), level, box);
            for (std::size_t i = 0; i < first.size(); ++i)
                if (!(first[i] == second[i] || (first[i] != first[i] && second[i] != second[i])))
                    std::abort();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    FILE* file = std::fopen(inputPath().c_str(), "wb");
    if (file == nullptr)
        return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try
    {
        Nuvek::TiffImage image(inputPath());
        readSome(image);
    }
    catch (std::runtime_error const& error)
    {
        std::string const message = error.what();
        if (message.rfind("TiffImage: " + inputPath() + ": ", 0) != 0)
            std::abort();
    }
    return 0;
}
