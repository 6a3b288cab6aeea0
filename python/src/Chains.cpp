#include "ImageBinding.h"

#include <nuvek/NuvekChains.h>
#include <nuvek/io/ImageOpener.h>

#include <pybind11/stl.h>

#include <memory>

namespace NuvekPython {

namespace {

char const* kindName(Nuvek::ParameterKind kind)
{
    switch (kind)
    {
    case Nuvek::ParameterKind::Integer:
        return "integer";
    case Nuvek::ParameterKind::Number:
        return "number";
    case Nuvek::ParameterKind::Word:
        return "word";
    case Nuvek::ParameterKind::NumberList:
        return "numbers";
    }
    return "word";
}

/// One registry entry as a dict of plain Python values.
py::dict describeEntry(Nuvek::FilterEntry const& entry)
{
    py::list parameters;
    for (Nuvek::FilterParameter const& parameter : entry.parameters)
    {
        py::dict item;
        item["name"] = parameter.name;
        item["kind"] = kindName(parameter.kind);
        item["default"] = parameter.defaultValue.empty() ? py::object(py::none()) : py::str(parameter.defaultValue);
        item["help"] = parameter.help;
        parameters.append(item);
    }
    py::dict result;
    result["name"] = entry.name;
    result["description"] = entry.description;
    result["usage"] = Nuvek::FilterRegistry::usage(entry);
    result["parameters"] = parameters;
    result["sub_chains"] = py::make_tuple(entry.minChains, entry.maxChains < 0 ? py::object(py::none())
                                                                               : py::object(py::int_(entry.maxChains)));
    result["shareable"] = entry.shareable;
    result["tile_dependence"] = entry.tileDependence;
    result["examples"] = entry.examples;
    result["example_input"] = entry.exampleInput;
    result["input_channels"] = entry.inputChannels;
    result["classes"] = entry.classNames;
    return result;
}

} // namespace

void bindChains(py::module_& module)
{
    module.def(
        "open_image",
        [](std::string const& path, long long time, long long cacheMegabytes) {
            return Nuvek::openImage(path, time, cacheBytesOf(cacheMegabytes));
        },
        py::arg("path"), py::arg("time") = 0, py::arg("cache_mb") = Nuvek::defaultTileCacheBytes >> 20, R"doc(
Opens an image file as the nuvek tool does, choosing the reader by the file's content: a folder
holding a zarr group or array as a ZarrImage, a vendor whole-slide format that OpenSlide recognises
as a SlideImage, plain, OME and ImageJ TIFF as a TiffImage, whatever the file's name. time picks
the time point of a file with several. The reader keeps decoded tiles for every thread in a cache
of at most cache_mb MiB (0: none kept).
)doc");

    module.def(
        "canonical_chain_expression",
        [](std::string const& text) { return Nuvek::toString(Nuvek::parseChainExpression(text)); },
        py::arg("expression"),
        "The chain expression written back in canonical form; raises RuntimeError when it "
        "does not parse.");
    module.def(
        "is_shareable",
        [](std::string const& text) { return Nuvek::FilterRegistry::isShareable(Nuvek::parseChainExpression(text)); },
        py::arg("expression"), "Whether every filter of the expression may serve several threads at once.");
    module.def("describe_filters", &Nuvek::FilterRegistry::describe,
               "Usage and description of every filter a chain expression may name.");
    module.def(
        "filters",
        []() {
            py::list entries;
            for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
                entries.append(describeEntry(entry));
            return entries;
        },
        R"doc(
Every filter a chain expression may name, in the order describe_filters lists them, as dicts: name,
description, usage, parameters (name, kind, default or None when required, help), sub_chains (least,
most or None), shareable, tile_dependence (empty when tiles give the bits of one large request),
examples (argument texts), example_input (stages that prepare an input for them), input_channels and
classes (the Python classes the filter is built as).
)doc");

    py::class_<Nuvek::Chain>(module, "Chain", R"doc(
A chain of filters built from a chain expression of the nuvek tool, such as
"clamp | gaussian 5 | sobel magnitude 3", over a source image. The chain owns its filters and keeps
the source alive; output is its last filter. Any number of threads may open regions of it at once.
)doc")
        .def(py::init([](std::string const& expression, Nuvek::Image* source) {
                 return Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(expression), source);
             }),
             py::arg("expression"), py::arg("source"), py::keep_alive<1, 3>())
        .def_property_readonly(
            "output", [](Nuvek::Chain& chain) { return chain.output; }, py::return_value_policy::reference_internal)
        .def_property_readonly("shareable", [](Nuvek::Chain const& chain) { return chain.shareable; })
        .def(
            "open_region",
            [](Nuvek::Chain& chain, long long level, Nuvek::Box const& box, py::object out) {
                return openRegionArray(*chain.output, level, box, std::move(out));
            },
            py::arg("level"), py::arg("box"), py::arg("out") = py::none(), "output.open_region(level, box).");
}

} // namespace NuvekPython
