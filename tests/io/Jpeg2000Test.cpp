#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/Messages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>
#include <openjpeg.h>
#include <tiffio.h>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::SlideImage;
using Nuvek::TiffImage;
using Nuvek::Vector;

namespace {

// Sample c of voxel (x, y) of page p: exact in 8 bits, different between neighbours and channels.
unsigned char sampleOf(long long p, long long x, long long y, long long c)
{
    return static_cast<unsigned char>((x * 7 + y * 13 + c * 50 + p * 31) % 256);
}

OPJ_SIZE_T appendBytes(void* buffer, OPJ_SIZE_T bytes, void* user)
{
    auto& out = *static_cast<std::vector<unsigned char>*>(user);
    out.insert(out.end(), static_cast<unsigned char*>(buffer), static_cast<unsigned char*>(buffer) + bytes);
    return bytes;
}

// A lossless raw J2K codestream of one tile; component c is sampled every `step[c]` voxels.
std::vector<unsigned char> encodeTile(long long width, long long height, int bits,
                                      std::function<int(long long, long long, long long)> const& value,
                                      std::vector<int> const& step)
{
    std::vector<opj_image_cmptparm_t> parameters(step.size());
    for (std::size_t c = 0; c < step.size(); ++c)
    {
        std::memset(&parameters[c], 0, sizeof(opj_image_cmptparm_t));
        parameters[c].dx = static_cast<OPJ_UINT32>(step[c]);
        parameters[c].dy = static_cast<OPJ_UINT32>(step[c]);
        parameters[c].w = static_cast<OPJ_UINT32>((width + step[c] - 1) / step[c]);
        parameters[c].h = static_cast<OPJ_UINT32>((height + step[c] - 1) / step[c]);
        parameters[c].prec = static_cast<OPJ_UINT32>(bits);
    }
    opj_image_t* image =
        opj_image_create(static_cast<OPJ_UINT32>(step.size()), parameters.data(), OPJ_CLRSPC_UNSPECIFIED);
    image->x1 = static_cast<OPJ_UINT32>(width);
    image->y1 = static_cast<OPJ_UINT32>(height);
    for (std::size_t c = 0; c < step.size(); ++c)
        for (long long y = 0; y < parameters[c].h; ++y)
            for (long long x = 0; x < parameters[c].w; ++x)
                image->comps[c].data[y * parameters[c].w + x] =
                    value(x * step[c], y * step[c], static_cast<long long>(c));
    opj_cparameters_t settings;
    opj_set_default_encoder_parameters(&settings);
    settings.tcp_numlayers = 1;
    settings.tcp_rates[0] = 0;
    settings.cp_disto_alloc = 1;
    settings.numresolution = 3;
    opj_codec_t* codec = opj_create_compress(OPJ_CODEC_J2K);
    opj_setup_encoder(codec, &settings, image);
    std::vector<unsigned char> bytes;
    opj_stream_t* stream = opj_stream_default_create(OPJ_FALSE);
    opj_stream_set_user_data(stream, &bytes, nullptr);
    opj_stream_set_write_function(stream, appendBytes);
    bool const ok =
        opj_start_compress(codec, image, stream) && opj_encode(codec, stream) && opj_end_compress(codec, stream);
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    if (!ok)
        throw std::runtime_error("encoding a JPEG 2000 tile failed");
    return bytes;
}

struct J2kPage
{
    std::uint32_t width;
    std::uint32_t height;
};

// A tiled RGB TIFF whose tiles are J2K codestreams of `compression` (33003, 33005 or 34712).
void writeJpeg2000Tiff(std::string const& path, std::vector<J2kPage> const& pages, std::uint16_t compression, int bits,
                       std::string const& description, std::vector<int> const& step,
                       std::function<int(long long, long long, long long, long long)> const& value)
{
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    for (std::size_t p = 0; p < pages.size(); ++p)
    {
        TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, p == 0 ? 0 : FILETYPE_REDUCEDIMAGE);
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, pages[p].width);
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, pages[p].height);
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 64u);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, 64u);
        ASSERT_EQ(TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression), 1);
        if (p == 0 && !description.empty())
            TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
        for (std::uint32_t tileY = 0; tileY < pages[p].height; tileY += 64)
            for (std::uint32_t tileX = 0; tileX < pages[p].width; tileX += 64)
            {
                auto tileValue = [&](long long x, long long y, long long c) {
                    return value(static_cast<long long>(p), tileX + x, tileY + y, c);
                };
                std::vector<unsigned char> bytes = encodeTile(64, 64, bits, tileValue, step);
                ttile_t const index = TIFFComputeTile(tiff, tileX, tileY, 0, 0);
                ASSERT_GE(TIFFWriteRawTile(tiff, index, bytes.data(), static_cast<tmsize_t>(bytes.size())), 0);
            }
        TIFFWriteDirectory(tiff);
    }
    TIFFClose(tiff);
}

// The RGB region buffer of `box` over a page of width x height voxels, 0 outside.
std::vector<double> expectedRgb(Box const& box, long long width, long long height,
                                std::function<double(long long, long long, long long)> const& value)
{
    std::vector<double> values;
    for (long long c = 0; c < 3; ++c)
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                {
                    bool const inside = z == 0 && x >= 0 && y >= 0 && x < width && y < height;
                    values.push_back(inside ? value(x, y, c) : 0.0);
                }
    return values;
}

} // namespace

// Lossless JPEG 2000 tiles of each kind read exactly at every level, 0 outside: RGB (33005),
// YCbCr with half-resolution chroma (33003; neutral chroma makes every channel the luma) and plain
// codestreams (34712); and an Aperio slide whose level 1 is no exact power of two, read through its
// page (one thread: OpenSlide 3's JPEG 2000 path frees under glib's futex locks, which
// ThreadSanitizer cannot see).
TEST(Jpeg2000, LosslessTilesOfEveryKindReadExactly)
{
    struct Case
    {
        std::uint16_t compression;
        std::vector<J2kPage> pages;
        std::vector<int> step;
        bool slide;
        int bits = 8;
    };
    std::string const aperio = "Aperio Image Library v12.0.15\r\n301x261 [0,0 301x261] (64x64) J2K/KDU Q=70|MPP = 0.5";
    std::vector<Case> const cases = {
        {33005, {{150, 100}, {75, 50}}, {1, 1, 1}, false},
        {34712, {{150, 100}, {75, 50}}, {1, 1, 1}, false},
        {33003, {{100, 70}}, {1, 2, 2}, false},
        {33005, {{301, 261}, {150, 130}}, {1, 1, 1}, true},
        {33005, {{90, 70}}, {1, 1, 1}, false, 16},
    };
    NuvekTest::TemporaryDirectory directory;
    for (Case const& test : cases)
    {
        bool const subsampled = test.step[1] > 1;
        // 16-bit samples reach past 8 bits in every byte.
        int const scale = test.bits == 16 ? 199 : 1;
        auto value = [subsampled, scale](long long p, long long x, long long y, long long c) {
            return subsampled && c > 0 ? 128 : scale * sampleOf(p, x, y, c) + (scale > 1 ? static_cast<int>(c) : 0);
        };
        std::string const name =
            std::to_string(test.compression) + (test.slide ? " slide" : "") + " " + std::to_string(test.bits) + " bits";
        std::string const path = directory.path(name + (test.slide ? ".svs" : ".tif"));
        writeJpeg2000Tiff(path, test.pages, test.compression, test.bits, test.slide ? aperio : "", test.step, value);
        std::unique_ptr<Nuvek::Image> image;
        if (test.slide)
        {
            auto slide = std::make_unique<SlideImage>(path);
            ASSERT_EQ(slide->getProperty("openslide.vendor"), "aperio");
            image = std::move(slide);
        }
        else
            image = std::make_unique<TiffImage>(path);
        ASSERT_EQ(image->getNumChannels(), 3) << name;
        ASSERT_EQ(image->getNumLevels(), static_cast<long long>(test.pages.size())) << name;
        for (long long level = 0; level < image->getNumLevels(); ++level)
        {
            Vector const extent = image->getExtent(level);
            Box const box = Box(extent).expanded(Vector(3, 2, 0));
            auto stored = [&](long long x, long long y, long long c) {
                return static_cast<double>(value(level, x, y, subsampled ? 0 : c));
            };
            EXPECT_TRUE(
                NuvekTest::sameBits(expectedRgb(box, extent.x, extent.y, stored),
                                    NuvekTest::openTiled(*image, level, box, {17, 64}, {9, 70}, test.slide ? 1 : 2),
                                    box, name + " level " + std::to_string(level)));
        }
    }
}

TEST(Jpeg2000, DamagedCodestreamsFailNamingTheBlock)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("damaged.tif");
    auto value = [](long long p, long long x, long long y, long long c) { return sampleOf(p, x, y, c); };
    writeJpeg2000Tiff(path, {{64, 64}}, 33005, 8, "", {1, 1, 1}, value);
    std::vector<unsigned char> bytes = NuvekTest::readBytes(path);
    // The codestream follows the 8-byte header: break its first marker segment.
    for (std::size_t i = 8; i < 40; ++i)
        bytes[i] = 0x5a;
    NuvekTest::writeBytes(path, bytes);
    TiffImage image(path);
    std::string const message = NuvekTest::messageOf([&] { NuvekTest::openWhole(image, 0, Box(Vector(64, 64, 1))); });
    EXPECT_EQ(message.rfind("TiffImage: " + path + ": cannot decode block 0: JPEG 2000: ", 0), 0u) << message;
}
