#include <nuvek/io/TiffImage.h>

#include "TiffFiles.h"
#include "support/NuvekTest.h"

#include <openjpeg.h>
#include <tiffio.h>

#include <cstring>
#include <functional>
#include <tuple>

using namespace NuvekTest;

namespace {

// Sample c of voxel (x, y) of page p.
using Samples = std::function<int(long long p, long long x, long long y, long long c)>;
using Pages = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

// A lossless raw J2K codestream of the 64 x 64 tile at (x0, y0) of page p, by way of the file
// `scratch`; component c is sampled every `step[c]` voxels.
std::vector<unsigned char> encodeTile(std::string const& scratch, long long p, long long x0, long long y0, int bits,
                                      Samples const& value, std::vector<int> const& step)
{
    std::vector<opj_image_cmptparm_t> parameters(step.size());
    for (std::size_t c = 0; c < step.size(); ++c)
    {
        std::memset(&parameters[c], 0, sizeof(opj_image_cmptparm_t));
        parameters[c].dx = parameters[c].dy = static_cast<OPJ_UINT32>(step[c]);
        parameters[c].w = parameters[c].h = static_cast<OPJ_UINT32>((64 + step[c] - 1) / step[c]);
        parameters[c].prec = static_cast<OPJ_UINT32>(bits);
    }
    opj_image_t* image =
        opj_image_create(static_cast<OPJ_UINT32>(step.size()), parameters.data(), OPJ_CLRSPC_UNSPECIFIED);
    image->x1 = image->y1 = 64;
    for (std::size_t c = 0; c < step.size(); ++c)
        for (OPJ_UINT32 i = 0; i < parameters[c].w * parameters[c].h; ++i)
            image->comps[c].data[i] = value(p, x0 + i % parameters[c].w * step[c], y0 + i / parameters[c].w * step[c],
                                            static_cast<long long>(c));
    opj_cparameters_t settings;
    opj_set_default_encoder_parameters(&settings);
    settings.numresolution = 3;
    opj_codec_t* codec = opj_create_compress(OPJ_CODEC_J2K);
    opj_setup_encoder(codec, &settings, image);
    opj_stream_t* stream = opj_stream_create_default_file_stream(scratch.c_str(), OPJ_FALSE);
    bool const ok =
        opj_start_compress(codec, image, stream) && opj_encode(codec, stream) && opj_end_compress(codec, stream);
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    if (!ok)
        throw std::runtime_error("encoding a JPEG 2000 tile failed");
    return readBytes(scratch);
}

// A tiled RGB TIFF whose tiles are J2K codestreams of `compression` (33003, 33005 or 34712).
void writeJpeg2000Tiff(std::string const& path, Pages const& pages, std::uint16_t compression, int bits,
                       std::vector<int> const& step, Samples const& value)
{
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    for (std::size_t p = 0; p < pages.size(); ++p)
    {
        TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, p == 0 ? 0 : FILETYPE_REDUCEDIMAGE);
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, pages[p].first);
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, pages[p].second);
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 64u);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, 64u);
        ASSERT_EQ(TIFFSetField(tiff, TIFFTAG_COMPRESSION, compression), 1);
        for (std::uint32_t y = 0; y < pages[p].second; y += 64)
            for (std::uint32_t x = 0; x < pages[p].first; x += 64)
            {
                std::vector<unsigned char> bytes =
                    encodeTile(path + ".j2k", static_cast<long long>(p), x, y, bits, value, step);
                ttile_t const index = TIFFComputeTile(tiff, x, y, 0, 0);
                ASSERT_GE(TIFFWriteRawTile(tiff, index, bytes.data(), static_cast<tmsize_t>(bytes.size())), 0);
            }
        TIFFWriteDirectory(tiff);
    }
    TIFFClose(tiff);
}

} // namespace

// Lossless JPEG 2000 tiles of each kind read exactly at every level: RGB (33005),
// YCbCr with half-resolution chroma (33003; neutral chroma makes every channel the luma), plain
// codestreams (34712) and 16-bit samples. A damaged codestream fails naming its block.
TEST(Jpeg2000, LosslessTilesOfEveryKindReadExactlyAndDamagedOnesFail)
{
    // Compression, pages (width, height), sampling step per component, bits per sample.
    std::vector<std::tuple<std::uint16_t, Pages, std::vector<int>, int>> const cases = {
        {33005, {{150, 100}, {75, 50}}, {1, 1, 1}, 8},
        {34712, {{150, 100}, {75, 50}}, {1, 1, 1}, 8},
        {33003, {{100, 70}}, {1, 2, 2}, 8},
        {33005, {{90, 70}}, {1, 1, 1}, 16},
    };
    TemporaryDirectory directory;
    for (auto const& [compression, pages, step, bits] : cases)
    {
        bool const subsampled = step[1] > 1;
        // Exact in 8 bits and different between neighbours, channels and pages; 16-bit samples reach
        // past 8 bits in every byte.
        int const scale = bits == 16 ? 199 : 1;
        auto value = [subsampled, scale](long long p, long long x, long long y, long long c) {
            int const sample = static_cast<int>((x * 7 + y * 13 + c * 50 + p * 31) % 256);
            return subsampled && c > 0 ? 128 : scale * sample + (scale > 1 ? static_cast<int>(c) : 0);
        };
        std::string const name = std::to_string(compression) + " " + std::to_string(bits) + " bits";
        std::string const path = directory.path(name + ".tif");
        writeJpeg2000Tiff(path, pages, compression, bits, step, value);
        Nuvek::TiffImage image(path);
        ASSERT_EQ(image.getNumLevels(), static_cast<long long>(pages.size())) << name;
        for (long long level = 0; level < image.getNumLevels(); ++level)
        {
            Box const box(image.getExtent(level));
            Vector const extent = box.getExtent();
            std::vector<double> expected;
            for (long long i = 0; i < box.getSize() * 3; ++i)
                expected.push_back(
                    value(level, i % extent.x, i / extent.x % extent.y, subsampled ? 0 : i / (extent.x * extent.y)));
            EXPECT_TRUE(sameBits(expected, openTiled(image, level, box, {17, 64}, {9, 70}, 2), box,
                                 name + " level " + std::to_string(level)));
        }
    }
    std::string const path = directory.path("33005 8 bits.tif");
    std::vector<unsigned char> bytes = readBytes(path);
    // The first codestream follows the 8-byte header: break its first marker segment.
    std::fill(bytes.begin() + 8, bytes.begin() + 40, 0x5a);
    writeBytes(path, bytes);
    Nuvek::TiffImage image(path);
    std::string const message = messageOf([&] { openWhole(image, 0, Box(Vector(64, 64, 1))); });
    EXPECT_EQ(message.rfind("TiffImage: " + path + ": cannot decode block 0: JPEG 2000: ", 0), 0u) << message;
}
