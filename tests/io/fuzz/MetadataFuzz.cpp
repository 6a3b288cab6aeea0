// libFuzzer target: the OME-XML and ImageJ description parsers given arbitrary text must return
// metadata whose counts, page table and sizes are consistent; any crash, sanitizer report,
// exception or inconsistency is a finding.
#include "io/internal/ImageJDescriptionParser.h"
#include "io/internal/OmeXmlParser.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void require(bool condition, char const* what)
{
    if (!condition)
    {
        std::fprintf(stderr, "inconsistent metadata: %s\n", what);
        std::abort();
    }
}

void check(Nuvek::FileMetadata const& metadata)
{
    require(metadata.channels >= 0 && metadata.slices >= 0 && metadata.frames >= 0, "negative count");
    if (metadata.channels > 0)
        require(metadata.slices > 0 && metadata.frames > 0, "channels without slices or frames");
    if (!metadata.pageOfPlane.empty())
        require(static_cast<long long>(metadata.pageOfPlane.size()) ==
                    metadata.channels * metadata.slices * metadata.frames,
                "page table of the wrong size");
    for (long long page : metadata.pageOfPlane)
        require(page >= -1, "page below -1");
    for (double size : {metadata.sizeX, metadata.sizeY, metadata.sizeZ, metadata.resolutionUnit})
        require(size >= 0.0 && std::isfinite(size), "size negative or not finite");
    require(!metadata.hasRange || metadata.min < metadata.max, "empty range");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const text(reinterpret_cast<char const*>(data), size);
    check(Nuvek::OmeXmlParser::parse(text));
    check(Nuvek::ImageJDescriptionParser::parse(text));
    return 0;
}
