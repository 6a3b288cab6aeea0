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
std::vector<unsigned char> encodeTile(long long width, long long height,
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
        parameters[c].prec = 8;
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
void writeJpeg2000Tiff(std::string const& path, std::vector<J2kPage> const& pages, std::uint16_t compression,
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
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
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
                std::vector<unsigned char> bytes = encodeTile(64, 64, tileValue, step);
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

TEST(Jpeg2000, LosslessTilesOfEveryKindReadExactly)
{
    NuvekTest::TemporaryDirectory directory;
    auto value = [](long long p, long long x, long long y, long long c) { return sampleOf(p, x, y, c); };
    for (std::uint16_t compression : {33005, 34712})
    {
        std::string const path = directory.path("j2k" + std::to_string(compression) + ".tif");
        writeJpeg2000Tiff(path, {{150, 100}, {75, 50}}, compression, "", {1, 1, 1}, value);
        TiffImage image(path);
        ASSERT_EQ(image.getNumChannels(), 3);
        ASSERT_EQ(image.getNumLevels(), 2);
        for (long long level : {0, 1})
        {
            Box const box = Box(image.getExtent(level)).expanded(Vector(3, 2, 0));
            auto stored = [level](long long x, long long y, long long c) { return sampleOf(level, x, y, c); };
            Vector const extent = image.getExtent(level);
            EXPECT_TRUE(NuvekTest::sameBits(expectedRgb(box, extent.x, extent.y, stored),
                                            NuvekTest::openTiled(image, level, box, {17, 64}, {9, 70}, 2), box,
                                            "compression " + std::to_string(compression)));
        }
    }
}

TEST(Jpeg2000, AperioYCbCrWithSubsampledChromaBecomesRgb)
{
    NuvekTest::TemporaryDirectory directory;
    // Neutral chroma (Cb = Cr = 128) at half resolution: every channel is the luma.
    std::string const path = directory.path("ycbcr.tif");
    auto value = [](long long p, long long x, long long y, long long c) { return c == 0 ? sampleOf(p, x, y, 0) : 128; };
    writeJpeg2000Tiff(path, {{100, 70}}, 33003, "", {1, 2, 2}, value);
    TiffImage image(path);
    Box const box(Vector(-1, 0, 0), Vector(100, 69, 0));
    auto luma = [](long long x, long long y, long long) { return static_cast<double>(sampleOf(0, x, y, 0)); };
    EXPECT_TRUE(NuvekTest::sameBits(expectedRgb(box, 100, 70, luma), NuvekTest::openWhole(image, 0, box), box,
                                    "neutral chroma"));
}

TEST(Jpeg2000, DamagedCodestreamsFailNamingTheBlock)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("damaged.tif");
    auto value = [](long long p, long long x, long long y, long long c) { return sampleOf(p, x, y, c); };
    writeJpeg2000Tiff(path, {{64, 64}}, 33005, "", {1, 1, 1}, value);
    std::vector<unsigned char> bytes = NuvekTest::readBytes(path);
    // The codestream follows the 8-byte header: break its first marker segment.
    for (std::size_t i = 8; i < 40; ++i)
        bytes[i] = 0x5a;
    NuvekTest::writeBytes(path, bytes);
    TiffImage image(path);
    std::string const message = NuvekTest::messageOf([&] { NuvekTest::openWhole(image, 0, Box(Vector(64, 64, 1))); });
    EXPECT_EQ(message.rfind("TiffImage: " + path + ": cannot decode block 0: JPEG 2000: ", 0), 0u) << message;
}

TEST(Jpeg2000, SlideLevelsOfNoExactPowerOfTwoReadThroughTheirPages)
{
    NuvekTest::TemporaryDirectory directory;
    std::string const path = directory.path("aperio.svs");
    auto value = [](long long p, long long x, long long y, long long c) { return sampleOf(p, x, y, c); };
    // Downsample about 2.007: OpenSlide reads level 0, the TIFF page level 1. One thread: OpenSlide
    // 3's JPEG 2000 path frees under glib's futex locks, which ThreadSanitizer cannot see.
    writeJpeg2000Tiff(path, {{301, 261}, {150, 130}}, 33005,
                      "Aperio Image Library v12.0.15\r\n301x261 [0,0 301x261] (64x64) J2K/KDU Q=70|MPP = 0.5",
                      {1, 1, 1}, value);
    SlideImage slide(path);
    ASSERT_EQ(slide.getProperty("openslide.vendor"), "aperio");
    ASSERT_EQ(slide.getNumLevels(), 2);
    for (long long level : {0, 1})
    {
        Vector const extent = slide.getExtent(level);
        Box const box = Box(extent).expanded(Vector(1, 1, 0));
        auto stored = [level](long long x, long long y, long long c) { return sampleOf(level, x, y, c); };
        EXPECT_TRUE(NuvekTest::sameBits(expectedRgb(box, extent.x, extent.y, stored),
                                        NuvekTest::openTiled(slide, level, box, {33, 64}, {20, 100}, 1), box,
                                        "level " + std::to_string(level)));
    }
}
