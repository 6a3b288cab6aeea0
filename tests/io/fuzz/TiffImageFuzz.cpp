// libFuzzer target: TiffImage given arbitrary bytes must either read them or throw
// std::runtime_error naming the file; any crash, sanitizer report, other exception or differing
// second read is a finding.
#include <nuvek/io/TiffImage.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    static std::string const path = "/tmp/nuvek-fuzz-tiff-" + std::to_string(getpid()) + ".tif";
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try
    {
        Nuvek::TiffImage image(path);
        long long const channels = image.getNumChannels();
        for (long long level = 0; level < std::min(image.getNumLevels(), 3LL) && channels <= 16; ++level)
        {
            if (!image.hasLevel(level))
                continue;
            // Up to 40 x 40 voxels of the last slice, across its far border.
            Nuvek::Vector const extent = image.getExtent(level);
            long long const z = std::max(0LL, extent.z - 1);
            Nuvek::Box const box(Nuvek::Vector(extent.x - 40, extent.y - 40, z),
                                 Nuvek::Vector(extent.x + 2, extent.y + 1, z));
            std::vector<double> first(static_cast<std::size_t>(box.getSize() * channels));
            std::vector<double> second(first.size());
            image.openRegion(first.data(), level, box);
            image.openRegion(second.data(), level, box);
            if (std::memcmp(first.data(), second.data(), first.size() * sizeof(double)) != 0)
                std::abort();
        }
    }
    catch (std::runtime_error const& error)
    {
        if (std::string(error.what()).rfind("TiffImage: " + path + ": ", 0) != 0)
            std::abort();
    }
    return 0;
}
