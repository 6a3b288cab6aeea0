#include <nuvek/filters/neighbourhood/RadialSymmetryFilter.h>

#include <nuvek/filters/neighbourhood/SobelFilter.h>
#include <nuvek/filters/texture/PositionIterator.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

namespace Nuvek {

namespace {

// Larger radii would overflow the margin arithmetic long before they could be allocated.
constexpr double largestRadius = 1e9;

// Exact clipping needs at most two moves per end point; rounding near a corner could in principle
// make a point step back and forth across a border, which this bound stops.
constexpr int mostClippingMoves = 16;

// Cohen-Sutherland outcode: 1 left, 2 right, 8 above y = 0, 4 below yMax.
int outcodeOf(double x, double y, double xMax, double yMax)
{
    int code = 0;
    if (x < 0.0)
        code = 1;
    else if (x > xMax)
        code = 2;
    if (y < 0.0)
        code += 8;
    else if (y > yMax)
        code += 4;
    return code;
}

// trunc(v + 0.5) as an integer, saturating beyond the range of long long (NaN gives 0).
long long roundHalfUp(double v)
{
    double const shifted = std::trunc(v + 0.5);
    if (shifted >= 9223372036854775808.0)
        return std::numeric_limits<long long>::max();
    if (shifted < -9223372036854775808.0)
        return std::numeric_limits<long long>::min();
    if (shifted != shifted)
        return 0;
    return static_cast<long long>(shifted);
}

// A 64-bit difference's absolute value, kept as its low 32 bits read as a signed integer.
std::int32_t absoluteAs32Bits(long long difference)
{
    std::uint64_t const magnitude =
        difference < 0 ? 0 - static_cast<std::uint64_t>(difference) : static_cast<std::uint64_t>(difference);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(magnitude));
}

// The clipping and drawing live here, where castVotes can inline them; the public static members
// forward to them. Clipping moves end points only for segments that leave the rectangle.
bool clipLeavingSegment(double xMax, double yMax, int codeA, int codeB, double& xA, double& xB, double& yA, double& yB)
{
    for (int move = 0; (codeA & codeB) == 0; ++move)
    {
        if (move == mostClippingMoves)
        {
            // Still straddling a border by rounding: the segment touches the rectangle there.
            if (xMax < 0.0 || yMax < 0.0)
                return false;
            xA = std::clamp(xA, 0.0, xMax);
            xB = std::clamp(xB, 0.0, xMax);
            yA = std::clamp(yA, 0.0, yMax);
            yB = std::clamp(yB, 0.0, yMax);
            return true;
        }
        bool const movingA = codeA != 0;
        int const code = movingA ? codeA : codeB;
        double x;
        double y;
        // The formulas always take the current end points, whichever of them moves.
        if ((code & 8) != 0)
        {
            x = xA - (xB - xA) * yA / (yB - yA);
            y = 0.0;
        }
        else if ((code & 4) != 0)
        {
            x = (yMax - yA) * (xB - xA) / (yB - yA) + xA;
            y = yMax;
        }
        else if ((code & 1) != 0)
        {
            y = yA - (yB - yA) * xA / (xB - xA);
            x = 0.0;
        }
        else
        {
            y = (xMax - xA) * (yB - yA) / (xB - xA) + yA;
            x = xMax;
        }
        if (movingA)
        {
            xA = x;
            yA = y;
            codeA = outcodeOf(xA, yA, xMax, yMax);
        }
        else
        {
            xB = x;
            yB = y;
            codeB = outcodeOf(xB, yB, xMax, yMax);
        }
        if (codeA == 0 && codeB == 0)
            return true;
    }
    return false;
}

inline bool clipSegment(Vector const& extent, double& xA, double& xB, double& yA, double& yB)
{
    double const xMax = static_cast<double>(extent.x - 1);
    double const yMax = static_cast<double>(extent.y - 1);
    int const codeA = outcodeOf(xA, yA, xMax, yMax);
    int const codeB = outcodeOf(xB, yB, xMax, yMax);
    if (codeA == 0 && codeB == 0)
        return true;
    return clipLeavingSegment(xMax, yMax, codeA, codeB, xA, xB, yA, yB);
}

inline void addAlongLine(double* plane, long long rowStride, double value, long long x0, long long x1, long long y0,
                         long long y1)
{
    long long const dX = x1 - x0;
    long long const dY = y1 - y0;
    // Deliberately compared as 32-bit integers.
    bool const steep = absoluteAs32Bits(dY) > absoluteAs32Bits(dX);
    long long const steps = steep ? dY : dX;
    long long const step = steps >= 0 ? 1 : -1;
    double const length = static_cast<double>(steps >= 0 ? steps : -steps);
    double const slope = steps == 0 ? 0.0 : static_cast<double>(steep ? dX : dY) / length;
    double along = 0.0;
    if (steep)
    {
        for (long long y = y0;; y += step)
        {
            long long const x = static_cast<long long>(static_cast<double>(x0) + along + 0.5);
            plane[x + y * rowStride] += value;
            along += slope;
            if (y == y1)
                break;
        }
    }
    else
    {
        for (long long k = 0;; k += step)
        {
            long long const y = static_cast<long long>(static_cast<double>(y0) + along + 0.5);
            plane[x0 + k + y * rowStride] += value;
            along += slope;
            if (k == steps)
                break;
        }
    }
}

// Every voxel of the gradient box with a strong enough gradient adds its magnitude along its line,
// clipped to the requested box, into the first slice of `plane`.
void castVotes(double* plane, double const* gradientsX, double const* gradientsY, Vector const& gradientExtent,
               Vector const& extentOut, long long r, double radius, double minMagnitudeSquared)
{
    PositionIterator positions(gradientExtent, Box(gradientExtent));
    long long index;
    while (positions.next(index))
    {
        double const gx = gradientsX[index];
        double const gy = gradientsY[index];
        double const magnitudeSquared = gx * gx + gy * gy;
        if (minMagnitudeSquared > magnitudeSquared)
            continue;
        double const magnitude = std::sqrt(magnitudeSquared);
        double const reachX = gx / magnitude * radius;
        double const reachY = gy / magnitude * radius;
        // No direction: a zero gradient (0 / 0), or a NaN or infinite one.
        if (!std::isfinite(reachX) || !std::isfinite(reachY))
            continue;
        long long const dx = static_cast<long long>(reachX + 0.5);
        long long const dy = static_cast<long long>(reachY + 0.5);
        Vector const& position = positions.getPosition();
        long long const qx = position.x - r;
        long long const qy = position.y - r;
        double xA = static_cast<double>(qx - dx);
        double xB = static_cast<double>(qx + dx);
        double yA = static_cast<double>(qy - dy);
        double yB = static_cast<double>(qy + dy);
        if (!clipSegment(extentOut, xA, xB, yA, yB))
            continue;
        // Clipped end points lie in the box, so trunc(v + 0.5) is the plain conversion.
        addAlongLine(plane, extentOut.x, magnitude, static_cast<long long>(xA + 0.5), static_cast<long long>(xB + 0.5),
                     static_cast<long long>(yA + 0.5), static_cast<long long>(yB + 0.5));
    }
}

} // namespace

RadialSymmetryFilter::RadialSymmetryFilter(Image* input, double radius, double magnitudeThreshold, bool ownsInput)
    : Filter(input, ownsInput), radius(radius), minMagnitudeSquared(magnitudeThreshold * magnitudeThreshold)
{
    if (!std::isfinite(radius))
        throw std::runtime_error("Radius must be a finite number.");
    if (std::fabs(radius) > largestRadius)
        throw std::runtime_error("Radius must not exceed 1e9 in magnitude.");
    // The gradient filter shares the input and does not own it.
    sobel = std::make_unique<SobelFilter<SobelOutput::Vector>>(input, 3, false);
}

RadialSymmetryFilter::~RadialSymmetryFilter() = default;

ValueRange<double> RadialSymmetryFilter::getValueRange() const
{
    return ValueRange<double>(0.0, sobel->getValueRange().max * radius);
}

bool RadialSymmetryFilter::clampLineToImageBounds(Vector const& extent, double& xA, double& xB, double& yA, double& yB)
{
    return clipSegment(extent, xA, xB, yA, yB);
}

bool RadialSymmetryFilter::clampLineToImageBounds(Vector const& extent, long long& xA, long long& xB, long long& yA,
                                                  long long& yB)
{
    double clippedXA = static_cast<double>(xA);
    double clippedXB = static_cast<double>(xB);
    double clippedYA = static_cast<double>(yA);
    double clippedYB = static_cast<double>(yB);
    bool const inside = clipSegment(extent, clippedXA, clippedXB, clippedYA, clippedYB);
    // Written back whatever the result, so an outside segment's negative end points move up by one
    // half and are truncated towards zero as well.
    xA = roundHalfUp(clippedXA);
    xB = roundHalfUp(clippedXB);
    yA = roundHalfUp(clippedYA);
    yB = roundHalfUp(clippedYB);
    return inside;
}

void RadialSymmetryFilter::drawLine(double* plane, long long rowStride, double value, long long x0, long long x1,
                                    long long y0, long long y1)
{
    addAlongLine(plane, rowStride, value, x0, x1, y0, y1);
}

void RadialSymmetryFilter::openRegion(double* out, long long level, Box const& box)
{
    long long const numChannels = input->getNumChannels();
    long long const size = box.getSize();
    if (numChannels < 1 || size == 0)
        return;
    std::fill(out, out + numChannels * size, 0.0);
    long long const r = static_cast<long long>(radius + 0.5);
    // Not clipped: what lies beyond the border is the input's decision. The radius is the same at
    // every level.
    Box const gradientBox = box.expanded(Vector(r, r, 0));
    if (gradientBox.isEmpty())
        return;
    long long const gradientSize = gradientBox.getSize();

    std::vector<double> gradients(static_cast<std::size_t>(2 * numChannels * gradientSize), 0.0);
    sobel->openRegion(gradients.data(), level, gradientBox);

    for (long long c = 0; c < numChannels; ++c)
    {
        double const* gradientsX = gradients.data() + 2 * c * gradientSize;
        double const* gradientsY = gradientsX + gradientSize;
        castVotes(out + c * size, gradientsX, gradientsY, gradientBox.getExtent(), box.getExtent(), r, radius,
                  minMagnitudeSquared);
    }
}

} // namespace Nuvek
