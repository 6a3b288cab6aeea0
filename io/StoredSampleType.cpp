#include <nuvek/io/StoredSampleType.h>

#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffHandle.h>
#include <nuvek/io/TiffImage.h>

namespace Nuvek {

std::optional<TiffSampleType> storedSampleType(Image& image)
{
    if (dynamic_cast<SlideImage*>(&image) != nullptr)
        return TiffSampleType::UInt8;
    if (dynamic_cast<TiffImage*>(&image) == nullptr)
        return std::nullopt;
    // The first page fixes the sample format of every page TiffImage uses.
    TiffHandle handle(image.getURL(), "rm", "storedSampleType");
    std::uint16_t bits = 1;
    std::uint16_t format = SAMPLEFORMAT_UINT;
    TIFFGetFieldDefaulted(handle.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(handle.get(), TIFFTAG_SAMPLEFORMAT, &format);
    if (format == SAMPLEFORMAT_UINT && bits == 8)
        return TiffSampleType::UInt8;
    if (format == SAMPLEFORMAT_UINT && bits == 16)
        return TiffSampleType::UInt16;
    if (format == SAMPLEFORMAT_IEEEFP && bits == 32)
        return TiffSampleType::Float32;
    return std::nullopt;
}

} // namespace Nuvek
