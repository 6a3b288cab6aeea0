#include "ImageBinding.h"

#include <nuvek/core/MemoryImage.h>
#include <nuvek/io/ImageFormats.h>
#include <nuvek/io/OmeZarrWriter.h>
#include <nuvek/io/PyramidalTiffWriter.h>
#include <nuvek/io/SlideImage.h>
#include <nuvek/io/TiffImage.h>
#include <nuvek/io/ZarrImage.h>

#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <mutex>
#include <shared_mutex>
#include <sstream>

namespace NuvekPython {

using Nuvek::Box;
using Nuvek::Image;
using Nuvek::Vector;

namespace {

using InputArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

std::string shapeText(py::array const& array)
{
    std::ostringstream text;
    text << "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i)
        text << (i == 0 ? "" : ", ") << array.shape(i);
    text << (array.ndim() == 1 ? ",)" : ")");
    return text.str();
}

// The extent and channel count an array of shape (channels, z, y, x) or (y, x) describes.
void readShape(py::array const& array, Vector& extent, long long& numChannels)
{
    if (array.ndim() == 4)
    {
        numChannels = array.shape(0);
        extent = Vector(array.shape(3), array.shape(2), array.shape(1));
        return;
    }
    if (array.ndim() == 2)
    {
        numChannels = 1;
        extent = Vector(array.shape(1), array.shape(0), 1);
        return;
    }
    throw py::value_error("MemoryImage: values must have the shape (channels, z, y, x) or (y, x), got " +
                          shapeText(array) + ".");
}

InputArray asInputArray(py::handle values)
{
    InputArray array = InputArray::ensure(values);
    if (!array)
        throw py::value_error("MemoryImage: values must be an array of numbers.");
    return array;
}

std::vector<double> copyValues(InputArray const& array)
{
    return std::vector<double>(array.data(), array.data() + array.size());
}

/// A MemoryImage whose setters may be called from Python while other threads read it: openRegion
/// runs under a shared lock, a setter under an exclusive one, so that no read sees values being
/// replaced.
class GuardedMemoryImage : public Nuvek::MemoryImage
{
public:
    using Nuvek::MemoryImage::MemoryImage;

    void openRegion(double* out, long long level, Box const& box) override
    {
        std::shared_lock<std::shared_mutex> lock(mutex);
        Nuvek::MemoryImage::openRegion(out, level, box);
    }

    template <typename Change>
    void change(Change const& apply)
    {
        // Released while waiting: readers may be Python images that need the interpreter.
        py::gil_scoped_release release;
        std::unique_lock<std::shared_mutex> lock(mutex);
        apply(static_cast<Nuvek::MemoryImage&>(*this));
    }

    std::shared_mutex mutex;
};

// A writer option named by a string; a bad name is a ValueError with the library's message.
template <typename Parse>
auto namedOption(char const* function, std::string const& name, Parse parse)
{
    try
    {
        return parse(name);
    }
    catch (std::runtime_error const& error)
    {
        throw py::value_error(std::string(function) + ": " + error.what());
    }
}

// A writer's progress callback that calls into Python: the writer runs without the interpreter lock,
// so each call takes it. None (an empty function) stays empty.
std::function<bool(long long, long long)>
progressWithInterpreterLock(std::function<bool(long long, long long)> const& progress)
{
    if (!progress)
        return {};
    return [&progress](long long done, long long total) {
        py::gil_scoped_acquire gil;
        return progress(done, total);
    };
}

// The setters of MemoryImage: each waits until no call reads the image.
void addMemoryImageSetters(py::class_<GuardedMemoryImage, Image>& memoryImage)
{
    memoryImage
        .def(
            "set_values",
            [](GuardedMemoryImage& image, py::handle values) {
                InputArray const array = asInputArray(values);
                Vector extent;
                long long numChannels = 0;
                readShape(array, extent, numChannels);
                if (extent != image.getExtent(0) || numChannels != image.getNumChannels())
                    throw py::value_error("MemoryImage.set_values: the shape " + shapeText(array) +
                                          " differs from the image's.");
                std::vector<double> copy = copyValues(array);
                image.change([&copy](Nuvek::MemoryImage& target) { target.setValues(std::move(copy)); });
            },
            py::arg("values"))
        .def(
            "set_value",
            [](GuardedMemoryImage& image, Vector const& position, long long channel, double value) {
                image.change([&](Nuvek::MemoryImage& target) { target.setValue(position, channel, value); });
            },
            py::arg("position"), py::arg("channel"), py::arg("value"))
        .def(
            "set_value_range",
            [](GuardedMemoryImage& image, Nuvek::ValueRange<double> const& range) {
                image.change([&](Nuvek::MemoryImage& target) { target.setValueRange(range); });
            },
            py::arg("range"))
        .def(
            "set_channel_names",
            [](GuardedMemoryImage& image, std::vector<std::string> names) {
                image.change([&](Nuvek::MemoryImage& target) { target.setChannelNames(std::move(names)); });
            },
            py::arg("names"))
        .def(
            "set_voxel_size",
            [](GuardedMemoryImage& image, Vector const& size) {
                image.change([&](Nuvek::MemoryImage& target) { target.setVoxelSize(size); });
            },
            py::arg("voxel_size"))
        .def(
            "set_tile_extent",
            [](GuardedMemoryImage& image, Vector const& extent) {
                image.change([&](Nuvek::MemoryImage& target) { target.setTileExtent(extent); });
            },
            py::arg("tile_extent"));
}

// MemoryImage, with setters that wait for the calls reading it.
void bindMemoryImage(py::module_& module)
{
    py::class_<GuardedMemoryImage, Image> memoryImage(module, "MemoryImage", R"doc(
An in-memory source image. Built from a NumPy array of shape (channels, z, y, x), or (y, x) for one
channel and one slice, whose values are copied; or from an extent (x, y, z) and a channel count, as
zeros. Level L holds the 2^L x 2^L block means of level 0; voxels outside the extent read 0.0.
)doc");
    memoryImage
        .def(py::init([](py::handle values) {
                 InputArray const array = asInputArray(values);
                 Vector extent;
                 long long numChannels = 0;
                 readShape(array, extent, numChannels);
                 return std::make_unique<GuardedMemoryImage>(extent, numChannels, copyValues(array));
             }),
             py::arg("values"))
        .def(py::init<Vector const&, long long>(), py::arg("extent"), py::arg("num_channels"))
        .def(
            "get_values",
            [](GuardedMemoryImage& image) {
                Vector const extent = image.getExtent(0);
                std::shared_lock<std::shared_mutex> lock(image.mutex);
                std::vector<double> const& values = image.getValues();
                py::array_t<double> array(
                    std::vector<py::ssize_t>{image.getNumChannels(), extent.z, extent.y, extent.x});
                std::copy(values.begin(), values.end(), array.mutable_data());
                return array;
            },
            "A copy of the level-0 values, shape (channels, z, y, x).");
    addMemoryImageSetters(memoryImage);
}

// The file readers.
void bindFileSources(py::module_& module)
{
    py::class_<Nuvek::TiffImage, Image>(module, "TiffImage", R"doc(
A source image read from a TIFF or BigTIFF file, values unscaled; pages that halve the first page's
size are its levels; full-size pages are channels or z slices as the file's OME or ImageJ
description says (else z slices). time picks the time point of a file with several. Decoded
tiles are kept for every thread in a cache of at most cache_mb MiB (0: none kept).
)doc")
        .def(py::init([](std::string const& path, long long time, long long cacheMegabytes) {
                 return std::make_unique<Nuvek::TiffImage>(path, time, cacheBytesOf(cacheMegabytes));
             }),
             py::arg("path"), py::arg("time") = 0, py::arg("cache_mb") = Nuvek::defaultTileCacheBytes >> 20)
        .def("has_level", &Nuvek::TiffImage::hasLevel, py::arg("level"))
        .def("get_blocks_decoded", &Nuvek::TiffImage::getBlocksDecoded);

    py::class_<Nuvek::ZarrImage, Image>(module, "ZarrImage", R"doc(
A source image read from a zarr (version 2) folder: an OME-Zarr multiscale group (one level per
dataset) or a plain array of 2 to 5 dimensions (from the last: x, y, z, c, t); values unscaled.
Decoded chunks are kept for every thread in a cache of at most cache_mb MiB (0: none kept).
)doc")
        .def(py::init([](std::string const& path, long long cacheMegabytes) {
                 return std::make_unique<Nuvek::ZarrImage>(path, cacheBytesOf(cacheMegabytes));
             }),
             py::arg("path"), py::arg("cache_mb") = Nuvek::defaultTileCacheBytes >> 20)
        .def("get_data_type", &Nuvek::ZarrImage::getDataType);

    py::class_<Nuvek::SlideImage, Image>(module, "SlideImage", R"doc(
A source image read from a whole-slide file through OpenSlide: channels "Red", "Green" and "Blue"
with values from 0 to 255, one z slice. Regions read are kept for every thread in a cache of at
most cache_mb MiB (0: none kept).
)doc")
        .def(py::init([](std::string const& path, long long cacheMegabytes) {
                 return std::make_unique<Nuvek::SlideImage>(path, cacheBytesOf(cacheMegabytes));
             }),
             py::arg("path"), py::arg("cache_mb") = Nuvek::defaultTileCacheBytes >> 20)
        .def("has_level", &Nuvek::SlideImage::hasLevel, py::arg("level"))
        .def("get_property", &Nuvek::SlideImage::getProperty, py::arg("name"));
}

// The pyramidal TIFF writer.
void bindWriter(py::module_& module)
{
    module.def(
        "write_pyramidal_tiff",
        [](Image& image, std::string const& path, long long tileSize, std::string const& compression,
           std::string const& sampleType, std::optional<Nuvek::ValueRange<double>> valueRange, long long level,
           int threads, std::function<bool(long long, long long)> progress, bool omeTiff, int quality) {
            Nuvek::PyramidalTiffOptions options;
            options.omeTiff = omeTiff;
            options.jpegQuality = quality;
            options.tileSize = tileSize;
            options.compression =
                namedOption("write_pyramidal_tiff", compression, Nuvek::ImageFormats::parseCompression);
            options.sampleType = namedOption("write_pyramidal_tiff", sampleType, Nuvek::ImageFormats::parseSampleType);
            options.valueRange = valueRange;
            options.level = level;
            options.threads = threads;
            options.progress = progressWithInterpreterLock(progress);
            py::gil_scoped_release release;
            return Nuvek::writePyramidalTiff(image, path, options);
        },
        py::arg("image"), py::arg("path"), py::kw_only(), py::arg("tile_size") = 256,
        py::arg("compression") = "deflate", py::arg("sample_type") = "uint8", py::arg("value_range") = py::none(),
        py::arg("level") = 0, py::arg("threads") = 0, py::arg("progress") = py::none(), py::arg("ome_tiff") = false,
        py::arg("quality") = 90,
        R"doc(
Writes image as a tiled pyramidal BigTIFF: its level `level` as the file's level 0, then coarser levels
of 2 x 2 means down to one tile. sample_type 'uint8' or 'uint16' maps value_range (the image's own
range when None) onto the integer range; 'float32' stores values unscaled. progress(done, total),
when given, is called after every tile and cancels the write by returning False. Returns True when
the file was written. The file appears at path only when complete. compression is 'none', 'deflate',
'lzw', 'zstd' or 'jpeg' (uint8 grey or RGB only, at `quality`). ome_tiff=True writes OME-TIFF: full
resolution pages with their levels as SubIFDs and OME-XML naming the axes, channels and physical sizes.
)doc");

    module.def(
        "write_ome_zarr",
        [](Image& image, std::string const& path, long long chunkSize, std::string const& compression,
           int compressionLevel, std::string const& sampleType, std::optional<Nuvek::ValueRange<double>> valueRange,
           long long level, int threads, std::function<bool(long long, long long)> progress) {
            Nuvek::OmeZarrOptions options;
            options.chunkSize = chunkSize;
            options.compression = namedOption("write_ome_zarr", compression, Nuvek::ImageFormats::parseZarrCompression);
            options.compressionLevel = compressionLevel;
            options.sampleType = namedOption("write_ome_zarr", sampleType, Nuvek::ImageFormats::parseSampleType);
            options.valueRange = valueRange;
            options.level = level;
            options.threads = threads;
            options.progress = progressWithInterpreterLock(progress);
            py::gil_scoped_release release;
            return Nuvek::writeOmeZarr(image, path, options);
        },
        py::arg("image"), py::arg("path"), py::kw_only(), py::arg("chunk_size") = 256, py::arg("compression") = "zstd",
        py::arg("compression_level") = 0, py::arg("sample_type") = "float32", py::arg("value_range") = py::none(),
        py::arg("level") = 0, py::arg("threads") = 0, py::arg("progress") = py::none(),
        R"doc(
Writes image as an OME-Zarr (NGFF 0.4, zarr v2) multiscale group: arrays "0", "1", ... of axes
(c, z, y, x), chunks (1, 1, chunk_size, chunk_size), levels of 2 x 2 means as write_pyramidal_tiff
makes them, compression 'none', 'zlib' or 'zstd'. The group appears at path only when complete.
)doc");
}

} // namespace

void bindSources(py::module_& module)
{
    bindMemoryImage(module);
    bindFileSources(module);
    bindWriter(module);
}

} // namespace NuvekPython
