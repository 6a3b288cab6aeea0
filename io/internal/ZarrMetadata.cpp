#include "io/internal/ZarrMetadata.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <stdexcept>

namespace Nuvek {

namespace {

using Json = nlohmann::json;

[[noreturn]] void refuse(std::string const& problem)
{
    throw std::runtime_error(problem);
}

Json parseJson(std::string const& text, char const* what)
{
    Json document = Json::parse(text, nullptr, false);
    if (document.is_discarded())
        refuse(std::string(what) + " is not valid JSON");
    if (!document.is_object())
        refuse(std::string(what) + " is not a JSON object");
    return document;
}

std::vector<long long> positiveList(Json const& document, char const* key, bool zeroAllowed)
{
    auto const found = document.find(key);
    if (found == document.end() || !found->is_array())
        refuse(std::string(".zarray has no list \"") + key + "\"");
    std::vector<long long> values;
    for (Json const& item : *found)
    {
        if (!item.is_number_integer())
            refuse(std::string(".zarray: \"") + key + "\" must hold whole numbers");
        long long const value = item.get<long long>();
        if (value < (zeroAllowed ? 0 : 1) || value > (1LL << 40))
            refuse(std::string(".zarray: \"") + key + "\" holds " + std::to_string(value) + ", out of range");
        values.push_back(value);
    }
    return values;
}

double fillValueOf(Json const& value)
{
    if (value.is_null())
        return 0.0;
    if (value.is_number())
        return value.get<double>();
    if (value.is_boolean())
        return value.get<bool>() ? 1.0 : 0.0;
    if (value.is_string())
    {
        std::string const text = value.get<std::string>();
        if (text == "NaN")
            return std::numeric_limits<double>::quiet_NaN();
        if (text == "Infinity")
            return std::numeric_limits<double>::infinity();
        if (text == "-Infinity")
            return -std::numeric_limits<double>::infinity();
    }
    refuse(".zarray: \"fill_value\" is not a number");
}

} // namespace

long long ZarrArrayMetadata::chunkBytes() const
{
    long long bytes = itemSize;
    for (long long chunk : chunks)
        bytes *= chunk;
    return bytes;
}

ZarrArrayMetadata parseZarrArray(std::string const& text)
{
    Json const document = parseJson(text, ".zarray");
    ZarrArrayMetadata metadata;
    auto const format = document.find("zarr_format");
    if (format == document.end() || !format->is_number_integer() || format->get<long long>() != 2)
        refuse(".zarray: only zarr_format 2 is supported");
    metadata.shape = positiveList(document, "shape", true);
    metadata.chunks = positiveList(document, "chunks", false);
    if (metadata.shape.empty() || metadata.shape.size() > 5)
        refuse(".zarray: arrays of 1 to 5 dimensions are supported, not " + std::to_string(metadata.shape.size()));
    if (metadata.chunks.size() != metadata.shape.size())
        refuse(".zarray: \"chunks\" and \"shape\" differ in length");
    long long voxels = 1;
    for (long long chunk : metadata.chunks)
    {
        voxels *= chunk;
        // Each chunk read is decoded whole; 2^27 voxels of 8 bytes make 1 GiB.
        if (voxels > (1LL << 27))
            refuse(".zarray: chunks of more than 2^27 voxels are not supported");
    }

    auto const type = document.find("dtype");
    if (type == document.end() || !type->is_string())
        refuse(".zarray: \"dtype\" must be a string such as \"<u2\"");
    std::string const dtype = type->get<std::string>();
    if (dtype.size() != 3 || (dtype[0] != '<' && dtype[0] != '>' && dtype[0] != '|') ||
        (dtype[1] != 'u' && dtype[1] != 'i' && dtype[1] != 'f') ||
        (dtype[2] != '1' && dtype[2] != '2' && dtype[2] != '4' && dtype[2] != '8') ||
        (dtype[1] == 'f' && dtype[2] != '4' && dtype[2] != '8'))
        refuse(".zarray: the data type \"" + dtype + "\" is not supported (unsigned, signed or float numbers)");
    metadata.kind = dtype[1];
    metadata.itemSize = dtype[2] - '0';
    metadata.bigEndian = dtype[0] == '>' && metadata.itemSize > 1;

    auto const order = document.find("order");
    if (order != document.end() && !(order->is_string() && order->get<std::string>() == "C"))
        refuse(".zarray: only the order \"C\" is supported");
    auto const filters = document.find("filters");
    if (filters != document.end() && !filters->is_null() && !(filters->is_array() && filters->empty()))
        refuse(".zarray: filters are not supported");
    auto const compressor = document.find("compressor");
    if (compressor != document.end() && !compressor->is_null())
    {
        auto const id = compressor->is_object() ? compressor->find("id") : compressor->end();
        if (!compressor->is_object() || id == compressor->end() || !id->is_string())
            refuse(".zarray: \"compressor\" must be null or an object with an \"id\"");
        metadata.compressor = id->get<std::string>();
        if (metadata.compressor != "zlib" && metadata.compressor != "gzip" && metadata.compressor != "zstd" &&
            metadata.compressor != "blosc")
            refuse(".zarray: the compressor \"" + metadata.compressor + "\" is not supported");
    }
    auto const fill = document.find("fill_value");
    if (fill != document.end())
        metadata.fillValue = fillValueOf(*fill);
    auto const separator = document.find("dimension_separator");
    if (separator != document.end())
    {
        if (!separator->is_string() || (separator->get<std::string>() != "." && separator->get<std::string>() != "/"))
            refuse(".zarray: \"dimension_separator\" must be \".\" or \"/\"");
        metadata.separator = separator->get<std::string>()[0];
    }
    return metadata;
}

ZarrMultiscales parseMultiscales(std::string const& text)
{
    Json const document = parseJson(text, ".zattrs");
    ZarrMultiscales result;
    auto const multiscales = document.find("multiscales");
    if (multiscales == document.end())
        return result;
    if (!multiscales->is_array() || multiscales->empty() || !multiscales->front().is_object())
        refuse(".zattrs: \"multiscales\" must be a list of objects");
    Json const& first = multiscales->front();

    auto const axes = first.find("axes");
    if (axes == first.end() || !axes->is_array() || axes->empty() || axes->size() > 5)
        refuse(".zattrs: the multiscale image needs a list of 1 to 5 \"axes\"");
    for (Json const& axis : *axes)
    {
        // Before version 0.4 axes were plain names.
        if (axis.is_string())
        {
            result.axes.push_back(axis.get<std::string>());
            result.units.emplace_back();
            continue;
        }
        auto const name = axis.is_object() ? axis.find("name") : axis.end();
        if (!axis.is_object() || name == axis.end() || !name->is_string())
            refuse(".zattrs: every axis needs a \"name\"");
        result.axes.push_back(name->get<std::string>());
        auto const unit = axis.find("unit");
        result.units.push_back(unit != axis.end() && unit->is_string() ? unit->get<std::string>() : "");
    }

    auto const datasets = first.find("datasets");
    if (datasets == first.end() || !datasets->is_array() || datasets->empty())
        refuse(".zattrs: the multiscale image needs a list of \"datasets\"");
    for (Json const& dataset : *datasets)
    {
        auto const path = dataset.is_object() ? dataset.find("path") : dataset.end();
        if (!dataset.is_object() || path == dataset.end() || !path->is_string())
            refuse(".zattrs: every dataset needs a \"path\"");
        std::string const name = path->get<std::string>();
        if (name.empty() || name.find("..") != std::string::npos || name.front() == '/')
            refuse(".zattrs: the dataset path \"" + name + "\" does not name a folder inside the group");
        result.paths.push_back(name);
        std::vector<double> scale(result.axes.size(), 1.0);
        auto const transformations = dataset.find("coordinateTransformations");
        if (transformations != dataset.end() && transformations->is_array())
            for (Json const& transformation : *transformations)
            {
                if (!transformation.is_object() || transformation.value("type", Json()) != Json("scale"))
                    continue;
                auto const values = transformation.find("scale");
                if (values == transformation.end() || !values->is_array() || values->size() != result.axes.size())
                    refuse(".zattrs: a scale needs one number per axis");
                for (std::size_t i = 0; i < scale.size(); ++i)
                {
                    if (!(*values)[i].is_number() || !std::isfinite((*values)[i].get<double>()) ||
                        (*values)[i].get<double>() <= 0.0)
                        refuse(".zattrs: scales must be positive numbers");
                    scale[i] = (*values)[i].get<double>();
                }
            }
        result.scales.push_back(scale);
    }

    auto const omero = document.find("omero");
    if (omero != document.end() && omero->is_object())
    {
        auto const channels = omero->find("channels");
        if (channels != omero->end() && channels->is_array())
        {
            double low = std::numeric_limits<double>::infinity();
            double high = -std::numeric_limits<double>::infinity();
            bool windows = !channels->empty();
            for (Json const& channel : *channels)
            {
                if (!channel.is_object())
                {
                    windows = false;
                    result.channelNames.emplace_back();
                    continue;
                }
                auto const label = channel.find("label");
                result.channelNames.push_back(label != channel.end() && label->is_string() ? label->get<std::string>()
                                                                                           : "");
                auto const window = channel.find("window");
                if (window == channel.end() || !window->is_object() || !window->contains("min") ||
                    !window->contains("max") || !(*window)["min"].is_number() || !(*window)["max"].is_number())
                {
                    windows = false;
                    continue;
                }
                low = std::min(low, (*window)["min"].get<double>());
                high = std::max(high, (*window)["max"].get<double>());
            }
            if (windows && std::isfinite(low) && std::isfinite(high))
                result.valueRange = std::make_pair(low, high);
        }
    }
    return result;
}

} // namespace Nuvek
