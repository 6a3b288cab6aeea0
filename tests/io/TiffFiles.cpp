#include "TiffFiles.h"

#include <tiffio.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace NuvekTest {

namespace {

template <typename Sample>
void put(std::vector<unsigned char>& bytes, std::size_t index, double value)
{
    Sample const sample = static_cast<Sample>(value);
    std::memcpy(bytes.data() + index * sizeof(Sample), &sample, sizeof(Sample));
}

void putValue(TiffLayout const& layout, std::vector<unsigned char>& bytes, std::size_t index, double value)
{
    if (layout.floating)
        layout.bits == 64 ? put<double>(bytes, index, value) : put<float>(bytes, index, value);
    else if (layout.bits == 32)
        layout.isSigned ? put<std::int32_t>(bytes, index, value) : put<std::uint32_t>(bytes, index, value);
    else if (layout.bits == 16)
        layout.isSigned ? put<std::int16_t>(bytes, index, value) : put<std::uint16_t>(bytes, index, value);
    else
        layout.isSigned ? put<std::int8_t>(bytes, index, value) : put<std::uint8_t>(bytes, index, value);
}

void check(bool ok, std::string const& what)
{
    if (!ok)
        throw std::runtime_error("writeTiff: " + what);
}

void writePage(TIFF* tiff, TiffLayout const& layout, PageShape const& page, long long pageIndex, int subIfds)
{
    std::uint16_t const samples = layout.samples;
    std::uint16_t const bits = layout.bits;
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, page.reduced ? FILETYPE_REDUCEDIMAGE : 0);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT,
                 layout.floating ? SAMPLEFORMAT_IEEEFP : (layout.isSigned ? SAMPLEFORMAT_INT : SAMPLEFORMAT_UINT));
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, layout.planar ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC,
                 layout.ycbcr ? PHOTOMETRIC_YCBCR : (layout.rgb ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK));
    if (layout.palette)
    {
        // A colour map that is no identity, so that a reader applying it would be caught.
        std::vector<std::uint16_t> map(std::size_t{1} << bits);
        for (std::size_t i = 0; i < map.size(); ++i)
            map[i] = static_cast<std::uint16_t>(65535 - i);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
        TIFFSetField(tiff, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
    }
    if (!layout.description.empty() && pageIndex == 0)
        TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, layout.description.c_str());
    std::uint16_t const colours = layout.rgb || layout.ycbcr ? 3 : 1;
    if (samples > colours)
    {
        std::vector<std::uint16_t> const extra(samples - colours, EXTRASAMPLE_UNSPECIFIED);
        TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<std::uint16_t>(extra.size()), extra.data());
    }
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, layout.compression);
    if (layout.ycbcr && layout.compression == COMPRESSION_JPEG)
    {
        // Tables inline, so that every strip is a complete JPEG stream.
        TIFFSetField(tiff, TIFFTAG_JPEGQUALITY, 95);
        TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        TIFFSetField(tiff, TIFFTAG_JPEGTABLESMODE, 0);
    }
    if (!page.name.empty())
        TIFFSetField(tiff, TIFFTAG_PAGENAME, page.name.c_str());
    if (layout.resolutionUnit != 0)
    {
        TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, layout.resolutionUnit);
        TIFFSetField(tiff, TIFFTAG_XRESOLUTION, static_cast<double>(layout.resolution));
        TIFFSetField(tiff, TIFFTAG_YRESOLUTION, static_cast<double>(layout.resolution) * 2.0);
    }
    if (layout.sampleMin < layout.sampleMax)
    {
        TIFFSetField(tiff, TIFFTAG_SMINSAMPLEVALUE, layout.sampleMin);
        TIFFSetField(tiff, TIFFTAG_SMAXSAMPLEVALUE, layout.sampleMax);
    }
    if (subIfds > 0)
    {
        std::vector<toff_t> offsets(static_cast<std::size_t>(subIfds), 0);
        TIFFSetField(tiff, TIFFTAG_SUBIFD, static_cast<std::uint16_t>(subIfds), offsets.data());
    }

    // Tiles, or strips as blocks the width of the page; the last strip holds only its own rows.
    bool const tiled = layout.tileWidth > 0;
    std::uint32_t const blockWidth = tiled ? layout.tileWidth : page.width;
    std::uint32_t const blockHeight = tiled ? layout.tileHeight : layout.rowsPerStrip;
    if (tiled)
    {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, blockWidth);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, blockHeight);
    }
    else
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, blockHeight);
    std::uint16_t const planes = layout.planar ? samples : 1;
    std::uint16_t const perPlane = layout.planar ? 1 : samples;
    std::size_t const rowBytes = blockWidth * perPlane * (bits / 8u);
    std::vector<unsigned char> block(rowBytes * blockHeight);
    for (std::uint16_t plane = 0; plane < planes; ++plane)
        for (std::uint32_t top = 0; top < page.height; top += blockHeight)
            for (std::uint32_t left = 0; left < page.width; left += blockWidth)
            {
                std::fill(block.begin(), block.end(), 0);
                for (std::uint32_t y = 0; y < blockHeight && top + y < page.height; ++y)
                    for (std::uint32_t x = 0; x < blockWidth && left + x < page.width; ++x)
                        for (std::uint16_t s = 0; s < perPlane; ++s)
                        {
                            double const value =
                                storedValue(layout, pageIndex, left + x, top + y, layout.planar ? plane : s);
                            putValue(layout, block, (y * blockWidth + x) * perPlane + s, value);
                        }
                auto const rows = tiled ? blockHeight : std::min(blockHeight, page.height - top);
                auto const size = static_cast<tmsize_t>(rowBytes * rows);
                check((tiled
                           ? TIFFWriteEncodedTile(tiff, TIFFComputeTile(tiff, left, top, 0, plane), block.data(), size)
                           : TIFFWriteEncodedStrip(tiff, TIFFComputeStrip(tiff, top, plane), block.data(), size)) >= 0,
                      "cannot write a tile or strip");
            }
    check(TIFFWriteDirectory(tiff) == 1, "TIFFWriteDirectory failed");
}

} // namespace

double storedValue(TiffLayout const& layout, long long page, long long x, long long y, long long c)
{
    if (layout.floating)
    {
        double const value = static_cast<double>(x) * 0.25 - static_cast<double>(y) * 1.5 +
                             static_cast<double>(c) * 100.0 + static_cast<double>(page) * 0.125;
        // float64 gets a part that float32 cannot hold.
        return layout.bits == 64 ? value + static_cast<double>(x) * 1e-9 : value;
    }
    if (layout.bits == 32)
    {
        long long const value = (x * 100003 + y * 30000017 + c * 1000000007LL + page * 11) % 4294967296LL;
        return static_cast<double>(layout.isSigned ? value - 2147483648LL : value);
    }
    long long const modulus = layout.bits == 16 ? 65536 : 256;
    long long const value = layout.bits == 16 ? (x * 301 + y * 53 + c * 7001 + page * 1000) % 65536
                                              : (x * 3 + y * 5 + c * 71 + page * 17) % 256;
    return static_cast<double>(layout.isSigned ? value - modulus / 2 : value);
}

TiffLayout tiledRgb(std::vector<PageShape> pages)
{
    TiffLayout layout;
    layout.samples = 3;
    layout.rgb = true;
    layout.tileWidth = 64;
    layout.tileHeight = 64;
    layout.compression = COMPRESSION_ADOBE_DEFLATE;
    layout.pages = std::move(pages);
    return layout;
}

void writeTiff(std::string const& path, TiffLayout const& layout)
{
    TIFF* tiff = TIFFOpen(path.c_str(), layout.bigTiff ? "w8" : "w");
    check(tiff != nullptr, "cannot create " + path);
    std::unique_ptr<TIFF, void (*)(TIFF*)> closer(tiff, TIFFClose);
    // A page of other samples is a mask: one 8-bit grey sample in strips, two when the file has one.
    TiffLayout mask;
    mask.samples = layout.samples == 1 ? 2 : 1;
    auto const write = [&](PageShape const& page, long long index, int subIfds) {
        writePage(tiff, page.oddSamples ? mask : layout, page, index, subIfds);
    };
    long long const mainPages = static_cast<long long>(layout.pages.size());
    for (long long p = 0; p < mainPages; ++p)
    {
        write(layout.pages[static_cast<std::size_t>(p)], p, p == 0 ? static_cast<int>(layout.subPages.size()) : 0);
        for (long long k = 0; p == 0 && k < static_cast<long long>(layout.subPages.size()); ++k)
            write(layout.subPages[static_cast<std::size_t>(k)], mainPages + k, 0);
    }
}

std::vector<unsigned char> readBytes(std::string const& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void writeBytes(std::string const& path, std::vector<unsigned char> const& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::map<std::string, std::vector<unsigned char>> contentsOf(std::string const& folder)
{
    std::map<std::string, std::vector<unsigned char>> contents;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            contents[std::filesystem::relative(entry.path(), folder).string()] = readBytes(entry.path().string());
    return contents;
}

std::vector<unsigned char> rawTiff(std::vector<RawEntry> entries, std::vector<unsigned char> const& data)
{
    std::sort(entries.begin(), entries.end(), [](RawEntry const& a, RawEntry const& b) { return a.tag < b.tag; });
    std::vector<unsigned char> bytes(8 + data.size(), 0);
    unsigned char const header[] = {'I', 'I', 42, 0};
    std::memcpy(bytes.data(), header, sizeof header);
    std::copy(data.begin(), data.end(), bytes.begin() + 8);
    if (bytes.size() % 2 == 1)
        bytes.push_back(0);
    std::uint32_t const ifd = static_cast<std::uint32_t>(bytes.size());
    std::memcpy(bytes.data() + 4, &ifd, 4);
    auto append = [&bytes](std::uint32_t value, int size) {
        for (int i = 0; i < size; ++i)
            bytes.push_back(static_cast<unsigned char>((value >> (8 * i)) & 0xff));
    };
    append(static_cast<std::uint32_t>(entries.size()), 2);
    for (RawEntry const& entry : entries)
    {
        append(entry.tag, 2);
        append(entry.type, 2);
        append(entry.count, 4);
        // SHORT values sit in the first two bytes of the value field.
        append(entry.value, 4);
    }
    append(0, 4);
    return bytes;
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "nuvek-io-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot create a temporary directory");
    root = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

std::string TemporaryDirectory::path(std::string const& name) const
{
    return root + "/" + name;
}

std::vector<std::string> TemporaryDirectory::files() const
{
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(root))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace NuvekTest
