#include <nuvek/io/ImageFormats.h>

#include <stdexcept>

namespace Nuvek {

namespace {

TiffSampleType const sampleTypes[] = {TiffSampleType::UInt8, TiffSampleType::UInt16, TiffSampleType::Float32};
TiffCompression const compressions[] = {TiffCompression::None, TiffCompression::Deflate, TiffCompression::LZW,
                                        TiffCompression::JPEG, TiffCompression::Zstd};
ZarrCompression const zarrCompressions[] = {ZarrCompression::None, ZarrCompression::Zlib, ZarrCompression::Zstd};

} // namespace

TiffSampleType ImageFormats::parseSampleType(std::string const& name)
{
    for (TiffSampleType type : sampleTypes)
        if (name == toString(type))
            return type;
    throw std::runtime_error("the sample type must be uint8, uint16 or float32, got '" + name + "'.");
}

TiffCompression ImageFormats::parseCompression(std::string const& name)
{
    for (TiffCompression compression : compressions)
        if (name == toString(compression))
            return compression;
    throw std::runtime_error("the compression must be none, deflate, lzw, jpeg or zstd, got '" + name + "'.");
}

ZarrCompression ImageFormats::parseZarrCompression(std::string const& name)
{
    for (ZarrCompression compression : zarrCompressions)
        if (name == toString(compression))
            return compression;
    throw std::runtime_error("the compression must be none, zlib or zstd, got '" + name + "'.");
}

std::string ImageFormats::toString(TiffSampleType type)
{
    switch (type)
    {
    case TiffSampleType::UInt8:
        return "uint8";
    case TiffSampleType::UInt16:
        return "uint16";
    case TiffSampleType::Float32:
        return "float32";
    }
    throw std::logic_error("unknown sample type");
}

std::string ImageFormats::toString(TiffCompression compression)
{
    switch (compression)
    {
    case TiffCompression::None:
        return "none";
    case TiffCompression::Deflate:
        return "deflate";
    case TiffCompression::LZW:
        return "lzw";
    case TiffCompression::JPEG:
        return "jpeg";
    case TiffCompression::Zstd:
        return "zstd";
    }
    throw std::logic_error("unknown compression");
}

std::string ImageFormats::toString(ZarrCompression compression)
{
    switch (compression)
    {
    case ZarrCompression::None:
        return "none";
    case ZarrCompression::Zlib:
        return "zlib";
    case ZarrCompression::Zstd:
        return "zstd";
    }
    throw std::logic_error("unknown compression");
}

} // namespace Nuvek
