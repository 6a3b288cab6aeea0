#include "ImageBinding.h"

#include "ChainExpression.h"
#include "FilterCatalogue.h"
#include "OutputWriter.h"

#include <nuvek/core/Filter.h>

#include <pybind11/stl.h>

#include <memory>
#include <mutex>

namespace NuvekPython {

namespace {

/// Passes everything to its input and takes openRegion calls one at a time.
class SerialFilter : public Nuvek::Filter
{
public:
    explicit SerialFilter(Nuvek::Image* input) : Nuvek::Filter(input, false) {}

    void openRegion(double* out, long long level, Nuvek::Box const& box) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        input->openRegion(out, level, box);
    }

private:
    std::mutex mutex;
};

/// A built chain as Python sees it. A chain with a filter that must not serve two threads at once
/// is presented through a SerialFilter, since any Python thread may call open_region.
struct PythonChain
{
    std::unique_ptr<NuvekTool::Chain> chain;
    std::unique_ptr<SerialFilter> serial;

    Nuvek::Image* output() const { return serial ? static_cast<Nuvek::Image*>(serial.get()) : chain->output; }
};

} // namespace

void bindChains(py::module_& module)
{
    module.def("open_image", &NuvekTool::openInput, py::arg("path"), R"doc(
Opens an image file as the nuvek tool does: a zarr folder as a ZarrImage, whole-slide formats (.svs,
.ndpi, .mrxs, .scn, .vms, .vmu, .bif, .svslide) as a SlideImage, anything else as a TiffImage.
)doc");

    module.def(
        "canonical_chain_expression",
        [](std::string const& text) { return NuvekTool::toString(NuvekTool::parseChainExpression(text)); },
        py::arg("expression"), "The chain expression written back in canonical form; raises RuntimeError when it "
                               "does not parse.");
    module.def(
        "is_shareable",
        [](std::string const& text) { return NuvekTool::isShareable(NuvekTool::parseChainExpression(text)); },
        py::arg("expression"),
        "Whether every filter of the expression may serve several threads at once (local normalization and "
        "upsampling may not).");
    module.def("describe_filters", &NuvekTool::describeFilters, "Usage and description of every filter a chain "
                                                                "expression may name.");

    py::class_<PythonChain>(module, "Chain", R"doc(
A chain of filters built from a chain expression of the nuvek tool, such as
"clamp | gaussian 5 | sobel magnitude 3", over a source image. The chain owns its filters and keeps
the source alive; output is its last filter. When shareable is False (local normalization,
upsampling), output serves one open_region call at a time.
)doc")
        .def(py::init([](std::string const& expression, Nuvek::Image* source) {
                 auto built = std::make_unique<PythonChain>();
                 built->chain = NuvekTool::buildChain(NuvekTool::parseChainExpression(expression), source);
                 if (!built->chain->shareable)
                     built->serial = std::make_unique<SerialFilter>(built->chain->output);
                 return built;
             }),
             py::arg("expression"), py::arg("source"), py::keep_alive<1, 3>())
        .def_property_readonly(
            "output", [](PythonChain& chain) { return chain.output(); }, py::return_value_policy::reference_internal)
        .def_property_readonly("shareable", [](PythonChain const& chain) { return chain.chain->shareable; })
        .def(
            "open_region",
            [](PythonChain& chain, long long level, Nuvek::Box const& box, py::object out) {
                return openRegionArray(*chain.output(), level, box, std::move(out));
            },
            py::arg("level"), py::arg("box"), py::arg("out") = py::none(), "output.open_region(level, box).");
}

} // namespace NuvekPython
