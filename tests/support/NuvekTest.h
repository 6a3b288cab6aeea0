#pragma once

// The one header every filter-side test includes: the library, GoogleTest and the test support.

#include <nuvek/Nuvek.h>

#include "support/DeletionProbe.h"
#include "support/Messages.h"
#include "support/RandomImages.h"
#include "support/RecordingImage.h"
#include "support/ReferenceHarness.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace NuvekTest {

using Nuvek::Box;
using Nuvek::Image;
using Nuvek::MemoryImage;
using Nuvek::Vector;

inline constexpr double inf = std::numeric_limits<double>::infinity();
inline constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

/// Opens box at level into a buffer filled with a sentinel, so that unwritten voxels show.
inline std::vector<double> openSentinel(Image& image, long long level, Box const& box, double sentinel = -7.0)
{
    std::vector<double> values(static_cast<std::size_t>(box.getSize() * image.getNumChannels()), sentinel);
    image.openRegion(values.data(), level, box);
    return values;
}

} // namespace NuvekTest
