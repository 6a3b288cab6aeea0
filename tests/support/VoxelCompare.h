#pragma once

#include <nuvek/core/Box.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace NuvekTest {

/// The bits of a double, so that NaN and -0.0 compare too.
std::uint64_t bitsOf(double value);

/// A value in hexfloat, e.g. "0x1.8p+1".
std::string hexfloat(double value);

/// Compares two region buffers of box bit for bit. On the first difference it names the voxel
/// (x, y, z, c) in box coordinates and both values in hexfloat, after `context` (seed, parameters).
::testing::AssertionResult sameBits(std::vector<double> const& expected, std::vector<double> const& actual,
                                    Nuvek::Box const& box, std::string const& context = "");

/// sameBits, except that any NaN meets any NaN: which operand's NaN a commutative operation on two
/// NaNs returns depends on the operand order the compiler picks. -0.0 still differs from 0.0.
::testing::AssertionResult sameBitsAnyNaN(std::vector<double> expected, std::vector<double> actual,
                                          Nuvek::Box const& box, std::string const& context = "");

/// Within an absolute tolerance; NaN must meet NaN and an infinity the same infinity.
::testing::AssertionResult nearlyEqual(std::vector<double> const& expected, std::vector<double> const& actual,
                                       Nuvek::Box const& box, double tolerance, std::string const& context = "");

/// One value's bits, any NaN meeting any NaN.
::testing::AssertionResult sameValue(double expected, double actual, std::string const& context = "");

/// Copies the voxels of `part` out of a region buffer of `whole`.
std::vector<double> crop(std::vector<double> const& values, Nuvek::Box const& whole, Nuvek::Box const& part,
                         long long numChannels);

/// Writes a region buffer of `part` into a region buffer of `whole` at its place.
void paste(std::vector<double>& values, Nuvek::Box const& whole, std::vector<double> const& partValues,
           Nuvek::Box const& part, long long numChannels);

} // namespace NuvekTest
