#include <nuvek/io/ImageFile.h>

#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <stdexcept>

namespace Nuvek {

std::unique_ptr<Image> ImageFile::open(std::string const& path)
{
    if (!std::filesystem::exists(path))
        throw std::runtime_error("cannot read " + path + ": no such file.");
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    static char const* const slideExtensions[] = {".svs", ".ndpi", ".mrxs", ".scn", ".vms", ".vmu", ".bif", ".svslide"};
    for (char const* slideExtension : slideExtensions)
        if (extension == slideExtension)
            return std::make_unique<SlideImage>(path);
    return std::make_unique<TiffImage>(path);
}

} // namespace Nuvek
