#include "ImageBinding.h"

#include <nuvek/Nuvek.h>

#include <pybind11/stl.h>

namespace NuvekPython {

using Nuvek::Box;
using Nuvek::Filter;
using Nuvek::Image;
using Nuvek::Vector;

namespace {

// Every filter made from Python leaves its inputs to Python: the filter is told not to own them,
// and keep_alive holds each input for as long as the filter lives.
auto const keepInput = py::keep_alive<1, 2>();
auto const keepSecondInput = py::keep_alive<1, 3>();

/// ConcatFilter over Python images: holds a reference to every input itself, since the list it was
/// given may change or go away after construction.
class KeptConcatFilter : public Nuvek::ConcatFilter
{
public:
    KeptConcatFilter(std::vector<Image*> const& inputs, std::vector<py::object> kept)
        : Nuvek::ConcatFilter(inputs, false), kept(std::move(kept))
    {
    }

private:
    std::vector<py::object> kept;
};

/// Lets Python subclasses of PixelProcessingFilter define process_pixel(values) and
/// get_channel_name(index). Every voxel calls into Python, so this suits small images.
class PyPixelProcessingFilter : public Nuvek::PixelProcessingFilter
{
public:
    using Nuvek::PixelProcessingFilter::PixelProcessingFilter;

    std::string getChannelName(long long index) override
    {
        PYBIND11_OVERRIDE_PURE_NAME(std::string, Nuvek::PixelProcessingFilter, "get_channel_name", getChannelName,
                                    index);
    }

    double processPixel(std::vector<double> const& values) const override
    {
        PYBIND11_OVERRIDE_PURE_NAME(double, Nuvek::PixelProcessingFilter, "process_pixel", processPixel, values);
    }
};

template <typename Sobel>
void bindSobel(py::module_& module, char const* name, char const* doc)
{
    py::class_<Sobel, Filter>(module, name, doc)
        .def(py::init([](Image* input, long long kernelSize) { return new Sobel(input, kernelSize, false); }),
             py::arg("input"), py::arg("kernel_size") = 3, keepInput);
}

template <typename Morphologic>
void bindMorphologic(py::module_& module, char const* name, char const* doc)
{
    py::class_<Morphologic, Filter>(module, name, doc)
        .def(py::init([](Image* input, long long kernelSize) { return new Morphologic(input, kernelSize, false); }),
             py::arg("input"), py::arg("kernel_size"), keepInput);
}

// Threshold, clamping and the two-input filters.
void bindPixelwiseFilters(py::module_& module)
{
    py::class_<Nuvek::ThresholdFilter, Filter>(module, "ThresholdFilter", "high where value >= threshold, else low.")
        .def(py::init([](Image* input, double threshold, double low, double high) {
                 return new Nuvek::ThresholdFilter(input, threshold, low, high, false);
             }),
             py::arg("input"), py::arg("threshold"), py::arg("low") = 0.0, py::arg("high") = 1.0, keepInput);
    py::class_<Nuvek::ClampingFilter, Filter>(module, "ClampingFilter",
                                              "Repeats the nearest edge values outside the input's extent.")
        .def(py::init([](Image* input) { return new Nuvek::ClampingFilter(input, false); }), py::arg("input"),
             keepInput);
    py::class_<Nuvek::BinaryOperatorFilter, Filter>(module, "BinaryOperatorFilter",
                                                    "Base of the two-input filters; delivers the first input.")
        .def(py::init([](Image* first, Image* second) {
                 return new Nuvek::BinaryOperatorFilter(first, second, false, false);
             }),
             py::arg("first"), py::arg("second"), keepInput, keepSecondInput);
    py::class_<Nuvek::AdditionFilter, Nuvek::BinaryOperatorFilter>(module, "AdditionFilter", "first + second.")
        .def(py::init([](Image* first, Image* second) { return new Nuvek::AdditionFilter(first, second, false); }),
             py::arg("first"), py::arg("second"), keepInput, keepSecondInput);
    py::class_<Nuvek::DifferenceFilter, Nuvek::BinaryOperatorFilter>(module, "DifferenceFilter", "first - second.")
        .def(py::init([](Image* first, Image* second) { return new Nuvek::DifferenceFilter(first, second, false); }),
             py::arg("first"), py::arg("second"), keepInput, keepSecondInput);
}

// Filters that select, join or relabel channels, slices and voxel sizes.
void bindChannelFilters(py::module_& module)
{
    py::class_<Nuvek::ChannelFilter, Filter>(module, "ChannelFilter",
                                             "Selects one channel by index or name, or count channels from first.")
        .def(py::init([](Image* input, long long channel) { return new Nuvek::ChannelFilter(input, channel, false); }),
             py::arg("input"), py::arg("channel"), keepInput)
        .def(py::init([](Image* input, long long first, long long count) {
                 return new Nuvek::ChannelFilter(input, first, count, false);
             }),
             py::arg("input"), py::arg("first"), py::arg("count"), keepInput)
        .def(py::init(
                 [](Image* input, std::string const& name) { return new Nuvek::ChannelFilter(input, name, false); }),
             py::arg("input"), py::arg("name"), keepInput);
    py::class_<Nuvek::ConcatFilter, Filter>(module, "ConcatFilter",
                                            "The channels of several inputs, one after another.")
        .def(py::init([](py::sequence inputs) -> Nuvek::ConcatFilter* {
                 std::vector<Image*> images;
                 std::vector<py::object> kept;
                 for (py::handle input : inputs)
                 {
                     images.push_back(input.cast<Image*>());
                     kept.push_back(py::reinterpret_borrow<py::object>(input));
                 }
                 return new KeptConcatFilter(images, std::move(kept));
             }),
             py::arg("inputs"));
    py::class_<Nuvek::RGBToHSVFilter, Filter>(module, "RGBToHSVFilter",
                                              "Hue, saturation and value of the first three channels, 0..255 each.")
        .def(py::init([](Image* input) { return new Nuvek::RGBToHSVFilter(input, false); }), py::arg("input"),
             keepInput);
    py::class_<Nuvek::ZStackFilter, Filter>(module, "ZStackFilter", "Presents one z slice of the input.")
        .def(py::init([](Image* input, long long z) { return new Nuvek::ZStackFilter(input, z, false); }),
             py::arg("input"), py::arg("z_slice"), keepInput);
    py::class_<Nuvek::VoxelSizeModificationFilter, Filter>(module, "VoxelSizeModificationFilter",
                                                           "The input's values with another level-0 voxel size.")
        .def(py::init([](Image* input, std::optional<Vector> voxelSize) {
                 if (voxelSize)
                     return new Nuvek::VoxelSizeModificationFilter(input, false, *voxelSize);
                 return new Nuvek::VoxelSizeModificationFilter(input, false);
             }),
             py::arg("input"), py::arg("voxel_size") = py::none(), keepInput)
        .def("set_voxel_size_at_level0", &Nuvek::VoxelSizeModificationFilter::setVoxelSizeAtLevel0,
             py::arg("voxel_size"));
    py::class_<Nuvek::ValueReplacementFilter, Filter>(module, "ValueReplacementFilter",
                                                      "Replaces whole colours (all channels equal) by others.")
        .def(py::init([](Image* input, Nuvek::ValueReplacementFilter::Replacements replacements) {
                 return new Nuvek::ValueReplacementFilter(input, false, std::move(replacements));
             }),
             py::arg("input"), py::arg("replacements"), keepInput)
        .def(py::init([](Image* input, std::vector<double> from, std::vector<double> to) {
                 return new Nuvek::ValueReplacementFilter(input, false, std::move(from), std::move(to));
             }),
             py::arg("input"), py::arg("from_values"), py::arg("to_values"), keepInput)
        .def("is_valid", &Nuvek::ValueReplacementFilter::isValid);
}

// Neighbourhood filters.
void bindNeighbourhoodFilters(py::module_& module)
{
    py::class_<Nuvek::BoxFilter, Filter>(module, "BoxFilter", "Mean (or sum) over a kernel_size x kernel_size window.")
        .def(py::init([](Image* input, long long kernelSize, bool normalize, bool rounding) {
                 return new Nuvek::BoxFilter(input, kernelSize, normalize, rounding, false);
             }),
             py::arg("input"), py::arg("kernel_size"), py::arg("normalize") = true, py::arg("rounding") = false,
             keepInput);
    py::class_<Nuvek::SeparableConvolutionFilter, Filter>(module, "SeparableConvolutionFilter",
                                                          "Convolution with kernel_x along x, then kernel_y along y.")
        .def(py::init([](Image* input, std::vector<double> const& kernelX, std::vector<double> const& kernelY) {
                 return new Nuvek::SeparableConvolutionFilter(input, kernelX, kernelY, false);
             }),
             py::arg("input"), py::arg("kernel_x"), py::arg("kernel_y"), keepInput)
        .def(py::init([](Image* input, std::vector<double> const& kernel) {
                 return new Nuvek::SeparableConvolutionFilter(input, kernel, false);
             }),
             py::arg("input"), py::arg("kernel"), keepInput);
    py::class_<Nuvek::GaussianBlurFilter, Nuvek::SeparableConvolutionFilter>(
        module, "GaussianBlurFilter", "Gaussian blur with a kernel_size-tap kernel.")
        .def(py::init([](Image* input, long long kernelSize) {
                 return new Nuvek::GaussianBlurFilter(input, kernelSize, false);
             }),
             py::arg("input"), py::arg("kernel_size"), keepInput)
        .def_static("get_gaussian_kernel", &Nuvek::GaussianBlurFilter::getGaussianKernel, py::arg("size"))
        .def_static("compute_gaussian", &Nuvek::GaussianBlurFilter::computeGaussian, py::arg("x"), py::arg("sigma"));
    bindSobel<Nuvek::SobelVectorFilter>(module, "SobelVectorFilter", "Sobel gradients gx, gy of every channel.");
    bindSobel<Nuvek::SobelMagnitudeFilter>(module, "SobelMagnitudeFilter", "Squared Sobel gradient magnitude.");
    py::class_<Nuvek::HarrisEigenvaluesFilter, Filter>(module, "HarrisEigenvaluesFilter",
                                                       "Eigenvalues of the smoothed gradient tensor.")
        .def(py::init([](Image* input, long long kernelSize) {
                 return new Nuvek::HarrisEigenvaluesFilter(input, kernelSize, false);
             }),
             py::arg("input"), py::arg("kernel_size"), keepInput);
    py::class_<Nuvek::LocalNormalizationFilter, Filter>(module, "LocalNormalizationFilter", R"doc(
Subtracts the input's background level, interpolated, and maps the difference into the input's
range.
)doc")
        .def(py::init([](Image* input, long long backgroundLevel) {
                 return new Nuvek::LocalNormalizationFilter(input, backgroundLevel, false);
             }),
             py::arg("input"), py::arg("background_level"), keepInput)
        .def("get_cache_size", &Nuvek::LocalNormalizationFilter::getCacheSize);
    py::class_<Nuvek::DistanceTransformFilter, Filter>(module, "DistanceTransformFilter",
                                                       "Euclidean distance to the nearest voxel of value.")
        .def(py::init([](Image* input, double value, long long maxDistance) {
                 return new Nuvek::DistanceTransformFilter(input, value, maxDistance, false);
             }),
             py::arg("input"), py::arg("value"), py::arg("max_distance"), keepInput);
    py::class_<Nuvek::RadialSymmetryFilter, Filter>(module, "RadialSymmetryFilter",
                                                    "Gradient votes for centres of round structures.")
        .def(py::init([](Image* input, double radius, double magnitudeThreshold) {
                 return new Nuvek::RadialSymmetryFilter(input, radius, magnitudeThreshold, false);
             }),
             py::arg("input"), py::arg("radius"), py::arg("magnitude_threshold"), keepInput);
}

// Rank, histogram and texture filters.
void bindTextureFilters(py::module_& module)
{
    py::class_<Nuvek::HistogramFilter, Filter>(module, "HistogramFilter",
                                               "Local histogram: one channel per bin, counts over a window.")
        .def(py::init([](Image* input, long long kernelSize, long long numBins) {
                 return new Nuvek::HistogramFilter(input, kernelSize, numBins, false);
             }),
             py::arg("input"), py::arg("kernel_size"), py::arg("num_bins"), keepInput);
    py::class_<Nuvek::LBPFilter, Filter>(module, "LBPFilter", "Rotation-invariant uniform local binary patterns.")
        .def(py::init([](Image* input, double radius) { return new Nuvek::LBPFilter(input, radius, false); }),
             py::arg("input"), py::arg("radius") = 1.0, keepInput);
    bindMorphologic<Nuvek::ErosionFilter>(module, "ErosionFilter", "Grey-value erosion over a square window.");
    bindMorphologic<Nuvek::DilationFilter>(module, "DilationFilter", "Grey-value dilation over a square window.");
    py::class_<Nuvek::RankFilter, Filter>(module, "RankFilter", "The value of a rank (0 = minimum) of a square window.")
        .def(py::init([](Image* input, long long kernelSize, long long rankIndex) {
                 return new Nuvek::RankFilter(input, kernelSize, rankIndex, false);
             }),
             py::arg("input"), py::arg("kernel_size"), py::arg("rank_index"), keepInput);
}

// Resolution filters.
void bindResolutionFilters(py::module_& module)
{
    py::class_<Nuvek::DownsampleFilter, Filter>(module, "DownsampleFilter",
                                                "Coarser levels computed as block means of source_level.")
        .def(py::init([](Image* input, long long sourceLevel) {
                 return new Nuvek::DownsampleFilter(input, sourceLevel, false);
             }),
             py::arg("input"), py::arg("source_level"), keepInput);
    py::class_<Nuvek::UpsampleFilter, Filter> upsample(module, "UpsampleFilter",
                                                       "Finer levels enlarged from source_level.");
    py::enum_<Nuvek::UpsampleFilter::Interpolation>(upsample, "Interpolation")
        .value("NearestNeighbor", Nuvek::UpsampleFilter::NearestNeighbor)
        .value("Bilinear", Nuvek::UpsampleFilter::Bilinear);
    upsample
        .def(py::init([](Image* input, long long sourceLevel, Nuvek::UpsampleFilter::Interpolation interpolation) {
                 return new Nuvek::UpsampleFilter(input, sourceLevel, interpolation, false);
             }),
             py::arg("input"), py::arg("source_level"), py::arg("interpolation") = Nuvek::UpsampleFilter::Bilinear,
             keepInput)
        .def("get_cache_size", &Nuvek::UpsampleFilter::getCacheSize);
}

// Channel banks and the colour filters built on them.
void bindColourFilters(py::module_& module)
{
    py::class_<Nuvek::ChannelBank>(module, "ChannelBank", "The channels of an image, each available by name.")
        .def(py::init<Image*>(), py::arg("image"), keepInput)
        .def("get_image", &Nuvek::ChannelBank::getImage, py::return_value_policy::reference_internal)
        .def("get_channel", &Nuvek::ChannelBank::getChannel, py::arg("name"),
             py::return_value_policy::reference_internal)
        .def(
            "open_region",
            [](Nuvek::ChannelBank& bank, std::vector<std::string> const& names, Box const& box, long long level) {
                Vector const extent = box.getExtent();
                std::unique_ptr<Nuvek::Buffer<double>> buffer;
                {
                    py::gil_scoped_release release;
                    buffer = bank.openRegion(names, box, level);
                }
                py::array_t<double> out(std::vector<py::ssize_t>{static_cast<py::ssize_t>(names.size()),
                                                                 std::max(0LL, extent.z), std::max(0LL, extent.y),
                                                                 std::max(0LL, extent.x)});
                long long const size = buffer->getBounds().getSize();
                if (size > 0)
                    std::copy(buffer->getPtr(0), buffer->getPtr(0) + size * buffer->getNumChannels(),
                              out.mutable_data());
                return out;
            },
            py::arg("channel_names"), py::arg("box"), py::arg("level") = 0);
    py::class_<Nuvek::PixelProcessingFilter, Filter, PyPixelProcessingFilter>(module, "PixelProcessingFilter", R"doc(
Base of filters that compute one value per voxel from named channels of a channel bank. A Python
subclass defines process_pixel(values) and get_channel_name(index); it runs Python for every voxel.
)doc")
        .def(py::init<Nuvek::ChannelBank*, std::vector<std::string> const&>(), py::arg("bank"),
             py::arg("channel_names"), keepInput)
        .def("process_pixel", &Nuvek::PixelProcessingFilter::processPixel, py::arg("values"))
        .def("get_channel_selection", &Nuvek::PixelProcessingFilter::getChannelSelection);
    py::class_<Nuvek::ColorUnmixingFilter, Nuvek::PixelProcessingFilter>(module, "ColorUnmixingFilter",
                                                                         "Colour unmixing by optical density.")
        .def(py::init<Nuvek::ChannelBank*, std::vector<std::string> const&>(), py::arg("bank"),
             py::arg("channel_names"), keepInput)
        .def("reinit", &Nuvek::ColorUnmixingFilter::reinit, py::arg("weights"))
        .def_static("compute_matrix_from_colors", &Nuvek::ColorUnmixingFilter::computeMatrixFromColors,
                    py::arg("colors"));
}

} // namespace

void bindFilters(py::module_& module)
{
    py::class_<Filter, Image>(module, "Filter", "Base of every filter: an image computed from an input image.");
    bindPixelwiseFilters(module);
    bindChannelFilters(module);
    bindNeighbourhoodFilters(module);
    bindTextureFilters(module);
    bindResolutionFilters(module);
    bindColourFilters(module);
}

} // namespace NuvekPython
