#include "ImageBinding.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace NuvekPython {

using Nuvek::Box;
using Nuvek::Image;
using Nuvek::Vector;

namespace {

std::string describeShape(py::array const& array)
{
    std::ostringstream text;
    text << "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i)
        text << (i == 0 ? "" : ", ") << array.shape(i);
    text << (array.ndim() == 1 ? ",)" : ")");
    return text.str();
}

} // namespace

std::string PyImage::getURL() const
{
    PYBIND11_OVERRIDE_NAME(std::string, Image, "get_url", getURL);
}

Vector PyImage::getExtent(long long level) const
{
    PYBIND11_OVERRIDE_PURE_NAME(Vector, Image, "get_extent", getExtent, level);
}

long long PyImage::getNumChannels() const
{
    PYBIND11_OVERRIDE_PURE_NAME(long long, Image, "get_num_channels", getNumChannels);
}

long long PyImage::getNumLevels() const
{
    PYBIND11_OVERRIDE_PURE_NAME(long long, Image, "get_num_levels", getNumLevels);
}

Nuvek::ValueRange<double> PyImage::getValueRange() const
{
    PYBIND11_OVERRIDE_PURE_NAME(Nuvek::ValueRange<double>, Image, "get_value_range", getValueRange);
}

Vector PyImage::getVoxelSize(long long level) const
{
    PYBIND11_OVERRIDE_PURE_NAME(Vector, Image, "get_voxel_size", getVoxelSize, level);
}

Vector PyImage::getTileExtent() const
{
    PYBIND11_OVERRIDE_NAME(Vector, Image, "get_tile_extent", getTileExtent);
}

void PyImage::openRegion(double* out, long long level, Box const& box)
{
    if (box.isEmpty())
        return;
    py::gil_scoped_acquire gil;
    py::function override = py::get_override(static_cast<Image const*>(this), "open_region");
    if (!override)
        throw std::runtime_error("A Python subclass of nuvek.Image must define open_region(level, box).");
    py::object values = override(level, box);
    copyRegionFromPython(out, values, getNumChannels(), box, "open_region");
}

std::string PyImage::getSliceName(long long index)
{
    PYBIND11_OVERRIDE_NAME(std::string, Image, "get_slice_name", getSliceName, index);
}

std::string PyImage::getChannelName(long long index)
{
    PYBIND11_OVERRIDE_PURE_NAME(std::string, Image, "get_channel_name", getChannelName, index);
}

std::string PyImage::getId() const
{
    PYBIND11_OVERRIDE_NAME(std::string, Image, "get_id", getId);
}

std::string PyImage::getGroupId() const
{
    PYBIND11_OVERRIDE_NAME(std::string, Image, "get_group_id", getGroupId);
}

std::uint64_t PyImage::getHash()
{
    PYBIND11_OVERRIDE_PURE_NAME(std::uint64_t, Image, "get_hash", getHash);
}

void copyRegionFromPython(double* out, py::handle values, long long numChannels, Box const& box, char const* what)
{
    using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
    Vector const extent = box.getExtent();
    Array array = Array::ensure(values);
    if (!array)
        throw py::value_error(std::string(what) + " must return an array of numbers, got " +
                              std::string(py::str(py::type::handle_of(values).attr("__name__"))) + ".");
    bool const fullShape = array.ndim() == 4 && array.shape(0) == numChannels && array.shape(1) == extent.z &&
                           array.shape(2) == extent.y && array.shape(3) == extent.x;
    bool const planeShape = array.ndim() == 2 && numChannels == 1 && extent.z == 1 && array.shape(0) == extent.y &&
                            array.shape(1) == extent.x;
    if (!fullShape && !planeShape)
    {
        std::ostringstream message;
        message << what << " returned an array of shape " << describeShape(array) << " for a box that needs ("
                << numChannels << ", " << extent.z << ", " << extent.y << ", " << extent.x << ").";
        throw py::value_error(message.str());
    }
    std::memcpy(out, array.data(), static_cast<std::size_t>(array.size()) * sizeof(double));
}

std::size_t cacheBytesOf(long long cacheMegabytes)
{
    if (cacheMegabytes < 0 || cacheMegabytes > (1LL << 20))
        throw py::value_error("cache_mb must be from 0 to 1048576 (MiB), got " + std::to_string(cacheMegabytes) + ".");
    return static_cast<std::size_t>(cacheMegabytes) << 20;
}

py::array_t<double> openRegionArray(Image& image, long long level, Box const& box, py::object out)
{
    long long const channels = image.getNumChannels();
    Vector const extent = box.getExtent();
    std::vector<py::ssize_t> const shape = {channels, std::max(0LL, extent.z), std::max(0LL, extent.y),
                                            std::max(0LL, extent.x)};
    py::array_t<double> target;
    bool zeroed = false;
    if (out.is_none())
    {
        // numpy.zeros: fresh pages from the system come zeroed, so they are not written twice.
        target = py::module_::import("numpy").attr("zeros")(py::tuple(py::cast(shape)), "float64");
        zeroed = true;
    }
    else
    {
        // Only an array the library can write straight into: no conversion, no copy.
        if (!py::isinstance<py::array_t<double>>(out))
            throw py::value_error("open_region: out must be a float64 NumPy array.");
        target = py::reinterpret_borrow<py::array_t<double>>(out);
        bool const sameShape = target.ndim() == 4 && std::equal(shape.begin(), shape.end(), target.shape());
        if (!sameShape)
            throw py::value_error("open_region: out has the shape " + describeShape(target) + ", the box needs (" +
                                  std::to_string(shape[0]) + ", " + std::to_string(shape[1]) + ", " +
                                  std::to_string(shape[2]) + ", " + std::to_string(shape[3]) + ").");
        if (!(target.flags() & py::array::c_style) || !target.writeable())
            throw py::value_error("open_region: out must be C-contiguous and writeable.");
    }
    if (target.size() == 0)
        return target;
    double* data = target.mutable_data();
    std::size_t const bytes = static_cast<std::size_t>(target.size()) * sizeof(double);
    {
        py::gil_scoped_release release;
        // Zeroed first: a few filters leave voxels they have nothing for (slices beyond their
        // extent) as the caller's buffer held them, and C++ callers pass zeroed buffers.
        if (!zeroed)
            std::memset(data, 0, bytes);
        image.openRegion(data, level, box);
    }
    return target;
}

void bindImage(py::module_& module)
{
    py::class_<Image, PyImage>(module, "Image", R"doc(
An image of several channels, up to three dimensions and several resolution levels, read one box
at a time. Level 0 is the finest; each level halves x and y. Vectors are (x, y, z) tuples, boxes
((min x, min y, min z), (max x, max y, max z)) with both corners inclusive.

Subclass it in Python to make a source: define get_extent(level), get_num_channels(),
get_num_levels(), get_value_range(), get_voxel_size(level), get_channel_name(index), get_hash()
and open_region(level, box), which returns an array of shape (channels, z, y, x).
)doc")
        .def(py::init<>())
        .def("get_url", &Image::getURL)
        .def("get_extent", &Image::getExtent, py::arg("level") = 0)
        .def("get_num_channels", &Image::getNumChannels)
        .def("get_num_levels", &Image::getNumLevels)
        .def("get_value_range", &Image::getValueRange)
        .def("get_voxel_size", &Image::getVoxelSize, py::arg("level") = 0)
        .def("get_tile_extent", &Image::getTileExtent)
        .def("open_region", &openRegionArray, py::arg("level"), py::arg("box"), py::arg("out") = py::none(),
             "The voxels of box at level as a float64 array of shape (channels, z, y, x). Voxels outside "
             "the extent get whatever the image defines there. The interpreter lock is released while "
             "the library computes. With out, a C-contiguous float64 array of that shape, the values go "
             "there and out is returned: reusing one array spares allocating a new one per call.")
        .def("get_slice_name", &Image::getSliceName, py::arg("index"))
        .def("get_channel_name", &Image::getChannelName, py::arg("index"))
        .def("get_id", &Image::getId)
        .def("get_group_id", &Image::getGroupId)
        .def("get_hash", &Image::getHash)
        .def("get_channel_names",
             [](Image& image) {
                 std::vector<std::string> names;
                 for (long long c = 0; c < image.getNumChannels(); ++c)
                     names.push_back(image.getChannelName(c));
                 return names;
             })
        .def("__repr__", [](py::object self) {
            Image& image = self.cast<Image&>();
            Vector const extent = image.getExtent(0);
            std::ostringstream text;
            text << "<nuvek." << std::string(py::str(py::type::handle_of(self).attr("__name__"))) << " extent=("
                 << extent.x << ", " << extent.y << ", " << extent.z << ") channels=" << image.getNumChannels()
                 << " levels=" << image.getNumLevels() << ">";
            return text.str();
        });
}

} // namespace NuvekPython
