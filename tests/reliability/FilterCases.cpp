#include "reliability/FilterCases.h"

#include <nuvek/Nuvek.h>

namespace NuvekTest {

namespace {

template <typename FilterType, typename... Arguments>
std::unique_ptr<Nuvek::Image> filter(Arguments&&... arguments)
{
    return std::make_unique<FilterType>(std::forward<Arguments>(arguments)...);
}

// A second image over the same input for the two-input filters, kept alive by `keep`.
Nuvek::Image* blurred(Nuvek::Image* input, Keep& keep)
{
    auto blur = std::make_shared<Nuvek::GaussianBlurFilter>(input, 3, false);
    keep.objects.push_back(blur);
    return blur.get();
}

std::vector<FilterCase> makeCases()
{
    using Nuvek::Image;
    std::vector<FilterCase> cases;
    auto add = [&cases](std::string name, long long channels,
                        std::function<std::unique_ptr<Image>(Image*, Keep&)> make, bool shareable = true,
                        std::string tileDependence = "", double tileTolerance = 0.0) {
        cases.push_back(FilterCase{std::move(name), channels, std::move(make), shareable, std::move(tileDependence),
                                   tileTolerance});
    };
    add("Threshold", 2, [](Image* in, Keep&) { return filter<Nuvek::ThresholdFilter>(in, 0.0, -1.0, 1.0, false); });
    add("Clamping", 2, [](Image* in, Keep&) { return filter<Nuvek::ClampingFilter>(in, false); });
    add("Addition", 2, [](Image* in, Keep& keep) {
                         return filter<Nuvek::AdditionFilter>(in, blurred(in, keep), false);
                     });
    add("Difference", 2, [](Image* in, Keep& keep) {
                         return filter<Nuvek::DifferenceFilter>(in, blurred(in, keep), false);
                     });
    add("ChannelByIndex", 3, [](Image* in, Keep&) { return filter<Nuvek::ChannelFilter>(in, 1, false); });
    add("ChannelBlock", 3, [](Image* in, Keep&) { return filter<Nuvek::ChannelFilter>(in, 1, 2, false); });
    add("Concat", 2, [](Image* in, Keep& keep) {
                         return filter<Nuvek::ConcatFilter>(std::vector<Image*>{in, blurred(in, keep), in}, false);
                     });
    add("RGBToHSV", 3, [](Image* in, Keep&) { return filter<Nuvek::RGBToHSVFilter>(in, false); });
    add("ZStack", 2, [](Image* in, Keep&) { return filter<Nuvek::ZStackFilter>(in, 0, false); });
    add("VoxelSize", 2, [](Image* in, Keep&) {
                         return filter<Nuvek::VoxelSizeModificationFilter>(in, false, Nuvek::Vector(3, 3, 7));
                     });
    add("ValueReplacement", 2, [](Image* in, Keep&) {
                         return filter<Nuvek::ValueReplacementFilter>(in, false, std::vector<double>{1.0, 2.0},
                                                                      std::vector<double>{5.0, 6.0});
                     });
    add("BoxMean", 2, [](Image* in, Keep&) { return filter<Nuvek::BoxFilter>(in, 5, true, false, false); },
                     true, "running sums along y restart at every request, so the sums round differently", 1e-9);
    add("SeparableConvolution", 2, [](Image* in, Keep&) {
                         return filter<Nuvek::SeparableConvolutionFilter>(in, std::vector<double>{1, -2, 4, -2, 1},
                                                                          std::vector<double>{0.5, 1, 2, 1, 0.5}, false);
                     });
    add("GaussianBlur", 2, [](Image* in, Keep&) { return filter<Nuvek::GaussianBlurFilter>(in, 7, false); });
    add("SobelVector", 2, [](Image* in, Keep&) { return filter<Nuvek::SobelVectorFilter>(in, 3, false); });
    add("SobelMagnitude", 2, [](Image* in, Keep&) { return filter<Nuvek::SobelMagnitudeFilter>(in, 5, false); });
    add("HarrisEigenvalues", 1, [](Image* in, Keep&) { return filter<Nuvek::HarrisEigenvaluesFilter>(in, 5, false); });
    add("LocalNormalization", 2,
                     [](Image* in, Keep&) { return filter<Nuvek::LocalNormalizationFilter>(in, 2, false); }, true);
    add("DistanceTransform", 1, [](Image* in, Keep& keep) {
                         // Distances to the voxels above 0 of a thresholded image.
                         auto mask = std::make_shared<Nuvek::ThresholdFilter>(in, 0.0, 0.0, 1.0, false);
                         keep.objects.push_back(mask);
                         return filter<Nuvek::DistanceTransformFilter>(mask.get(), 0.0, 6, false);
                     });
    add("RadialSymmetry", 1,
                     [](Image* in, Keep&) { return filter<Nuvek::RadialSymmetryFilter>(in, 3.0, 0.5, false); }, true,
                     "votes are clipped to the request box, and a clipped line is drawn from its clipped end points",
                     -1.0);
    add("Histogram", 1, [](Image* in, Keep&) { return filter<Nuvek::HistogramFilter>(in, 5, 6, false); });
    add("LBP", 1, [](Image* in, Keep&) { return filter<Nuvek::LBPFilter>(in, 1.5, false); });
    add("Erosion", 2, [](Image* in, Keep&) { return filter<Nuvek::ErosionFilter>(in, 5, false); });
    add("Dilation", 2, [](Image* in, Keep&) { return filter<Nuvek::DilationFilter>(in, 3, false); });
    add("Rank", 2, [](Image* in, Keep&) { return filter<Nuvek::RankFilter>(in, 5, 7, false); });
    add("Downsample", 2, [](Image* in, Keep&) { return filter<Nuvek::DownsampleFilter>(in, 0, false); });
    add("UpsampleBilinear", 2, [](Image* in, Keep&) {
                         return filter<Nuvek::UpsampleFilter>(in, 2, Nuvek::UpsampleFilter::Interpolation::Bilinear, false);
                     });
    add("UpsampleNearest", 2, [](Image* in, Keep&) {
                         return filter<Nuvek::UpsampleFilter>(in, 1, Nuvek::UpsampleFilter::Interpolation::NearestNeighbor,
                                                              false);
                     });
    add("ColorUnmixing", 3, [](Image* in, Keep& keep) -> std::unique_ptr<Image> {
                         auto bank = std::make_shared<Nuvek::ChannelBank>(in);
                         keep.objects.push_back(bank);
                         auto unmixing = std::make_unique<Nuvek::ColorUnmixingFilter>(
                             bank.get(), std::vector<std::string>{in->getChannelName(0), in->getChannelName(1),
                                                                  in->getChannelName(2)});
                         unmixing->reinit(Nuvek::ColorUnmixingFilter::computeMatrixFromColors(
                             {{57.4, 50.6, 132.5}, {216.4, 26.2, 201.0}})[0]);
                         return unmixing;
                     });
    return cases;
}

} // namespace

std::vector<FilterCase> const& filterCases()
{
    static std::vector<FilterCase> const cases = makeCases();
    return cases;
}

} // namespace NuvekTest
