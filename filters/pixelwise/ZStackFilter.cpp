#include <nuvek/filters/pixelwise/ZStackFilter.h>

namespace Nuvek {

ZStackFilter::ZStackFilter(Image* input, long long zSlice, bool ownsInput) : Filter(input, ownsInput), zSlice(zSlice)
{
}

void ZStackFilter::openRegion(double* out, long long level, Box const& box)
{
    Box slice(box);
    slice.min.z = zSlice;
    slice.max.z = zSlice;
    input->openRegion(out, level, slice);
}

} // namespace Nuvek
