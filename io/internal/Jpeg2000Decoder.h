#pragma once

#include <cstddef>
#include <cstdint>

namespace Nuvek {

/// \brief Decodes the JPEG 2000 tiles and strips of TIFF files through libopenjp2.
///
/// Compression 34712 (JPEG 2000) and Aperio's 33003 (JPEG 2000 of YCbCr) and 33005 (JPEG 2000 of
/// RGB) store each tile as one codestream, raw (J2K) or in JP2 boxes; libtiff has no codec for
/// them. Components of reduced resolution (subsampled chroma) are repeated over the voxels they
/// cover. YCbCr codestreams are turned into RGB with the JFIF equations (R = Y + 1.402 (Cr - 128),
/// G = Y - 0.344136 (Cb - 128) - 0.714136 (Cr - 128), B = Y + 1.772 (Cb - 128)), rounded to the
/// nearest and clamped to 0 to 255.
class Jpeg2000Decoder
{
public:
    /// Decodes `size` bytes into `out`: width x height voxels of `samples` interleaved samples of
    /// 8 bits (bytesPerSample 1) or 16 bits (2, in the machine's byte order), row after row. What
    /// the codestream does not cover stays as it was. Throws std::runtime_error with the decoder's
    /// message when the codestream is damaged or its components do not fit.
    static void decode(unsigned char const* data, std::size_t size, long long width, long long height,
                       long long samples, long long bytesPerSample, bool ycbcr, unsigned char* out);
};

} // namespace Nuvek
