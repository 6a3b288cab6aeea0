#include <nuvek/io/ImageOpener.h>

#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include <openslide.h>

#include <filesystem>
#include <stdexcept>

namespace Nuvek {

namespace {

// OpenSlide's name for a vendor format it reads, or "" for a plain TIFF (its "generic-tiff") and
// for anything it does not recognise.
std::string vendorOf(std::string const& path)
{
    char const* vendor = openslide_detect_vendor(path.c_str());
    if (vendor == nullptr || std::string(vendor) == "generic-tiff")
        return "";
    return vendor;
}

} // namespace

std::unique_ptr<Image> openImage(std::string const& path, long long timePoint, std::size_t cacheBytes)
{
    if (ZarrImage::isZarr(path))
    {
        if (timePoint != 0)
            throw std::runtime_error("ZarrImage: " + path + ": only time point 0 is read, not " +
                                     std::to_string(timePoint));
        return std::make_unique<ZarrImage>(path, cacheBytes);
    }
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        throw std::runtime_error("cannot read " + path + ": no such file.");
    if (vendorOf(path).empty())
        return std::make_unique<TiffImage>(path, timePoint, cacheBytes);
    if (timePoint != 0)
        throw std::runtime_error("SlideImage: " + path + ": there is no time point " + std::to_string(timePoint) +
                                 " (a slide has one)");
    return std::make_unique<SlideImage>(path, cacheBytes);
}

std::string describeReader(Image const& image)
{
    if (dynamic_cast<TiffImage const*>(&image) != nullptr)
        return "TiffImage";
    if (auto const* slide = dynamic_cast<SlideImage const*>(&image))
        return "SlideImage (" + slide->getProperty("openslide.vendor") + ")";
    if (dynamic_cast<ZarrImage const*>(&image) != nullptr)
        return "ZarrImage";
    return "other";
}

bool knowsVoxelSize(Image const& image)
{
    if (auto const* tiff = dynamic_cast<TiffImage const*>(&image))
        return tiff->knowsVoxelSize();
    if (auto const* slide = dynamic_cast<SlideImage const*>(&image))
        return slide->knowsVoxelSize();
    return true;
}

} // namespace Nuvek
