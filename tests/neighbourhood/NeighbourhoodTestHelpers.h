#pragma once

#include "support/Messages.h"
#include "support/VoxelCompare.h"

#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace NuvekTest {

/// sameBits, except that any NaN meets any NaN. Which operand's NaN an addition or multiplication
/// of two NaNs returns depends on the operand order the compiler picks for a commutative operation,
/// so sign and payload of a NaN are not part of the result; every other bit is, -0.0 included.
inline ::testing::AssertionResult sameBitsAnyNaN(std::vector<double> expected, std::vector<double> actual,
                                                 Nuvek::Box const& box, std::string const& context = "")
{
    for (std::vector<double>* values : {&expected, &actual})
        for (double& value : *values)
            if (std::isnan(value))
                value = std::numeric_limits<double>::quiet_NaN();
    return sameBits(expected, actual, box, context);
}

} // namespace NuvekTest
