#pragma once

#include "Casters.h"

#include <nuvek/core/Image.h>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

namespace NuvekPython {

namespace py = pybind11;

/// \brief The bridge that lets a Python subclass of nuvek.Image serve as a source: every virtual
/// operation calls the Python method of the same meaning (get_extent, open_region, ...), holding
/// the interpreter lock for the duration of that call only.
///
/// open_region(level, box) must return an array of shape (channels, z, y, x) of the box (or (y, x)
/// for one channel and one slice) that converts to float64; the values are copied into the
/// caller's buffer. Anything else is a ValueError naming the shapes.
class PyImage : public Nuvek::Image
{
public:
    using Nuvek::Image::Image;

    std::string getURL() const override;
    Nuvek::Vector getExtent(long long level) const override;
    long long getNumChannels() const override;
    long long getNumLevels() const override;
    Nuvek::ValueRange<double> getValueRange() const override;
    Nuvek::Vector getVoxelSize(long long level) const override;
    Nuvek::Vector getTileExtent() const override;
    void openRegion(double* out, long long level, Nuvek::Box const& box) override;
    std::string getSliceName(long long index) override;
    std::string getChannelName(long long index) override;
    std::string getId() const override;
    std::string getGroupId() const override;
    std::uint64_t getHash() override;
};

/// The region of box at level as a float64 array of shape (channels, z, y, x): a new one, or out
/// when given (it must have that shape and be C-contiguous and writeable). The library writes
/// straight into the array's memory with the interpreter lock released.
py::array_t<double> openRegionArray(Nuvek::Image& image, long long level, Nuvek::Box const& box,
                                    py::object out = py::none());

/// Copies an array returned by Python code into a region buffer of box with numChannels channels.
void copyRegionFromPython(double* out, py::handle values, long long numChannels, Nuvek::Box const& box,
                          char const* what);

/// The bytes of a file source's cache_mb argument (MiB); ValueError unless it is from 0 to 2^20.
std::size_t cacheBytesOf(long long cacheMegabytes);

void bindImage(py::module_& module);
void bindSources(py::module_& module);
void bindFilters(py::module_& module);
void bindChains(py::module_& module);
void bindTiming(py::module_& module);

} // namespace NuvekPython
