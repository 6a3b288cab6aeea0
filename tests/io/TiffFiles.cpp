#include "TiffFiles.h"

#include <tiffio.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>

namespace NuvekTest {

namespace {

template <typename Sample>
void put(std::vector<unsigned char>& bytes, std::size_t index, double value)
{
    Sample const sample = static_cast<Sample>(value);
    std::memcpy(bytes.data() + index * sizeof(Sample), &sample, sizeof(Sample));
}

void putValue(TiffLayout const& layout, bool odd, std::vector<unsigned char>& bytes, std::size_t index, double value)
{
    if (odd)
        put<std::uint8_t>(bytes, index, value);
    else if (layout.floating)
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
    bool const odd = page.oddSamples;
    std::uint16_t const samples = odd ? 1 : layout.samples;
    std::uint16_t const bits = odd ? 8 : layout.bits;
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, page.reduced ? FILETYPE_REDUCEDIMAGE : 0);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
    std::uint16_t const format =
        odd ? SAMPLEFORMAT_UINT
            : (layout.floating ? SAMPLEFORMAT_IEEEFP : (layout.isSigned ? SAMPLEFORMAT_INT : SAMPLEFORMAT_UINT));
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, format);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, layout.planar ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, layout.rgb && !odd ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    if (layout.palette && !odd)
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
    if (!odd && samples > (layout.rgb ? 3 : 1))
    {
        std::vector<std::uint16_t> extra(samples - (layout.rgb ? 3u : 1u), EXTRASAMPLE_UNSPECIFIED);
        if (layout.alpha)
            extra[0] = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, static_cast<std::uint16_t>(extra.size()), extra.data());
    }
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, layout.compression);
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

    std::size_t const bytesPerSample = bits / 8;
    std::uint16_t const planes = layout.planar ? samples : 1;
    std::uint16_t const perPlane = layout.planar ? 1 : samples;
    auto value = [&](long long x, long long y, long long c) {
        return odd ? 7.0 : storedValue(layout, pageIndex, x, y, c);
    };
    if (layout.tileWidth > 0)
    {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, layout.tileWidth);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, layout.tileHeight);
        std::vector<unsigned char> tile(layout.tileWidth * layout.tileHeight * perPlane * bytesPerSample);
        for (std::uint16_t plane = 0; plane < planes; ++plane)
            for (std::uint32_t tileY = 0; tileY < page.height; tileY += layout.tileHeight)
                for (std::uint32_t tileX = 0; tileX < page.width; tileX += layout.tileWidth)
                {
                    std::fill(tile.begin(), tile.end(), 0);
                    for (std::uint32_t y = 0; y < layout.tileHeight && tileY + y < page.height; ++y)
                        for (std::uint32_t x = 0; x < layout.tileWidth && tileX + x < page.width; ++x)
                            for (std::uint16_t s = 0; s < perPlane; ++s)
                                putValue(layout, odd, tile, (y * layout.tileWidth + x) * perPlane + s,
                                         value(tileX + x, tileY + y, layout.planar ? plane : s));
                    check(TIFFWriteTile(tiff, tile.data(), tileX, tileY, 0, plane) >= 0, "TIFFWriteTile failed");
                }
    }
    else
    {
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, layout.rowsPerStrip);
        std::vector<unsigned char> row(page.width * perPlane * bytesPerSample);
        for (std::uint16_t plane = 0; plane < planes; ++plane)
            for (std::uint32_t y = 0; y < page.height; ++y)
            {
                for (std::uint32_t x = 0; x < page.width; ++x)
                    for (std::uint16_t s = 0; s < perPlane; ++s)
                        putValue(layout, odd, row, x * perPlane + s, value(x, y, layout.planar ? plane : s));
                check(TIFFWriteScanline(tiff, row.data(), y, plane) >= 0, "TIFFWriteScanline failed");
            }
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

void writeTiff(std::string const& path, TiffLayout const& layout)
{
    TIFF* tiff = TIFFOpen(path.c_str(), layout.bigTiff ? "w8" : "w");
    check(tiff != nullptr, "cannot create " + path);
    std::unique_ptr<TIFF, void (*)(TIFF*)> closer(tiff, TIFFClose);
    long long const mainPages = static_cast<long long>(layout.pages.size());
    for (long long p = 0; p < mainPages; ++p)
    {
        int const subIfds = p == 0 ? static_cast<int>(layout.subPages.size()) : 0;
        writePage(tiff, layout, layout.pages[static_cast<std::size_t>(p)], p, subIfds);
        if (p == 0)
            for (long long k = 0; k < static_cast<long long>(layout.subPages.size()); ++k)
                writePage(tiff, layout, layout.subPages[static_cast<std::size_t>(k)], mainPages + k, 0);
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
    std::random_device device;
    std::filesystem::path const base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt)
    {
        std::filesystem::path const candidate = base / ("nuvek-io-test-" + std::to_string(device()));
        if (std::filesystem::create_directory(candidate))
        {
            root = candidate.string();
            return;
        }
    }
    throw std::runtime_error("cannot create a temporary directory");
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
