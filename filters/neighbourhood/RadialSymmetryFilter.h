#pragma once

#include <nuvek/core/Filter.h>

#include <memory>

namespace Nuvek {

/// \brief Highlights the centres of roughly circular structures by gradient voting: every voxel
/// with a strong enough gradient adds its gradient magnitude along a straight line through it in
/// the gradient's direction, reaching `radius` voxels to each side. Where many lines cross, the
/// output is large.
///
/// Gradients come from an owned SobelFilter (kernel size 3, x and y gradient per channel) over the
/// same input. With r = trunc(radius + 0.5), the filter asks it for the requested box grown by r in
/// x and y at the requested level (so the input is asked for the box grown by r + 1), not clipped to
/// the extent; the radius does not change with the level. A voxel votes when its squared magnitude
/// gx^2 + gy^2 is at least the square of `magnitudeThreshold`. Its line runs from q - (dx, dy) to
/// q + (dx, dy), with dx = trunc(gx / m * radius + 0.5) and likewise dy (truncation after adding
/// 0.5, also for negative values), is clipped to the requested box by clampLineToImageBounds, and
/// its clipped end points are rounded the same way before drawLine adds m along it. A voxel whose
/// direction gx / m or gy / m is not a finite number casts no vote: a zero gradient, even with a
/// threshold of 0, and gradients that are NaN or infinite.
///
/// The voting works in the x/y plane: votes from every slice of a deeper box land in its first slice
/// and the other slices are 0.0. Every line that reaches into the box is counted, also from voxels
/// beyond its border, but a line is drawn from its end points cut at the box's border, so along
/// lines crossing a tile's border single votes can fall on other voxels than in a larger request.
///
/// The value range is [0, the Sobel range's max times radius]. A radius that is not finite or whose
/// magnitude exceeds 1e9 is rejected. openRegion may run on several threads at once.
class RadialSymmetryFilter : public Filter
{
public:
    RadialSymmetryFilter(Image* input, double radius, double magnitudeThreshold, bool ownsInput);
    ~RadialSymmetryFilter() override;

    ValueRange<double> getValueRange() const override;
    void openRegion(double* out, long long level, Box const& box) override;

    /// Clips the segment from (xA, yA) to (xB, yB) to [0, extent.x - 1] x [0, extent.y - 1] in
    /// place (Cohen-Sutherland). Returns true when part of it lies inside, the four values then
    /// being the clipped end points; false when it lies wholly outside.
    static bool clampLineToImageBounds(Vector const& extent, double& xA, double& xB, double& yA, double& yB);
    /// The same for integer end points: clips them as doubles and writes each back as
    /// trunc(v + 0.5), whatever the result (a value beyond the range of long long saturates).
    static bool clampLineToImageBounds(Vector const& extent, long long& xA, long long& xB, long long& yA,
                                       long long& yB);
    /// Adds `value` at every voxel of a digital straight line from (x0, y0) to (x1, y1) in a plane
    /// whose voxel (x, y) is plane[x + y * rowStride]. The line is steep when |y1 - y0| exceeds
    /// |x1 - x0|, both taken as 32-bit signed integers; it then steps through y, else through x,
    /// rounding the other coordinate as trunc(v + 0.5). A single point gets one vote. Nothing is
    /// checked: the caller clips the line to the plane first.
    static void drawLine(double* plane, long long rowStride, double value, long long x0, long long x1, long long y0,
                         long long y1);

private:
    double radius;
    double minMagnitudeSquared;
    std::unique_ptr<Image> sobel;
};

} // namespace Nuvek
