#include <nuvek/io/StoredSampleType.h>

#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include "io/internal/TiffHandle.h"

namespace Nuvek {

std::optional<TiffSampleType> storedSampleType(Image& image)
{
    if (dynamic_cast<SlideImage*>(&image) != nullptr)
        return TiffSampleType::UInt8;
    if (auto* zarr = dynamic_cast<ZarrImage*>(&image))
    {
        std::string const type = zarr->getDataType();
        if (type == "|u1")
            return TiffSampleType::UInt8;
        if (type == "<u2" || type == ">u2")
            return TiffSampleType::UInt16;
        if (type == "<f4" || type == ">f4")
            return TiffSampleType::Float32;
        return std::nullopt;
    }
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
