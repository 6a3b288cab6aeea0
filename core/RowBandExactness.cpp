#include <nuvek/core/RowBandExactness.h>

namespace Nuvek {

RowBandExactness::~RowBandExactness() = default;

bool RowBandExactness::splitsExactly(Image const* image)
{
    auto const* exactness = dynamic_cast<RowBandExactness const*>(image);
    return exactness != nullptr && exactness->splitsExactlyInRowBands();
}

} // namespace Nuvek
