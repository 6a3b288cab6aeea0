// libFuzzer target: ZarrImage given arbitrary metadata and chunk bytes must either read them or
// throw std::runtime_error; any crash, sanitizer report, other exception or differing second read
// is a finding. The input is split at zero bytes: the array's ".zarray", then (when not empty) a
// group's ".zattrs" whose datasets may name the array "0", then the bytes of the array's first chunk.
#include <nuvek/io/ZarrImage.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::filesystem::path const& folder()
{
    static std::filesystem::path const path = "/tmp/nuvek-fuzz-zarr-" + std::to_string(getpid());
    return path;
}

void writeFile(std::filesystem::path const& path, std::string const& bytes)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

// The first chunk under the "."-separated key of a 2- to 5-dimensional array, and under the
// "/"-separated key of a 4-dimensional one (as OME-Zarr groups store them); the nested keys of
// other dimensions would need "0/0" to be both a file and a folder.
void writeFirstChunk(std::filesystem::path const& array, std::string const& chunk)
{
    for (char const* key : {"0.0", "0.0.0", "0.0.0.0", "0.0.0.0.0", "0/0/0/0"})
        writeFile(array / key, chunk);
}

void readSome(Nuvek::ZarrImage& image)
{
    long long const channels = image.getNumChannels();
    Nuvek::Vector const tile = image.getTileExtent();
    if (channels > 16 || tile.x * tile.y * tile.z > (1LL << 20))
        return;
    for (long long level = 0; level < std::min(image.getNumLevels(), 3LL); ++level)
    {
        Nuvek::Vector const extent = image.getExtent(level);
        std::vector<Nuvek::Box> const boxes = {
            Nuvek::Box(Nuvek::Vector(0, 0, 0),
                       Nuvek::Vector(std::min(extent.x, 20LL) - 1, std::min(extent.y, 20LL) - 1, 0)),
            Nuvek::Box(Nuvek::Vector(extent.x - 3, extent.y - 2, std::max(0LL, extent.z - 1)),
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
    image.getValueRange();
    image.getVoxelSize(0);
    for (long long c = 0; c < channels; ++c)
        image.getChannelName(c);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::vector<std::string> parts(1);
    for (std::size_t i = 0; i < size; ++i)
    {
        if (data[i] == 0 && parts.size() < 3)
            parts.emplace_back();
        else
            parts.back().push_back(static_cast<char>(data[i]));
    }
    parts.resize(3);
    std::error_code ignored;
    std::filesystem::remove_all(folder(), ignored);
    bool const group = !parts[1].empty();
    std::filesystem::path const array = group ? folder() / "0" : folder();
    writeFile(array / ".zarray", parts[0]);
    if (group)
        writeFile(folder() / ".zattrs", parts[1]);
    writeFirstChunk(array, parts[2]);
    try
    {
        Nuvek::ZarrImage image(folder().string());
        readSome(image);
    }
    catch (std::runtime_error const&)
    {
    }
    std::filesystem::remove_all(folder(), ignored);
    return 0;
}
