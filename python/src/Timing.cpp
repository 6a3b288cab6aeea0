#include "ImageBinding.h"

#include <chrono>
#include <vector>

namespace NuvekPython {

void bindTiming(py::module_& module)
{
    // For the benchmark scripts: the C++ side of a comparison with open_region, in the same process
    // on the same image. One pass opens every box once into a buffer allocated beforehand.
    module.def(
        "_time_open_region_passes",
        [](Nuvek::Image& image, long long level, std::vector<Nuvek::Box> const& boxes, int passes) {
            long long largest = 0;
            for (Nuvek::Box const& box : boxes)
                largest = std::max(largest, box.getSize());
            std::vector<double> buffer(static_cast<std::size_t>(largest * image.getNumChannels()));
            std::vector<double> seconds;
            py::gil_scoped_release release;
            for (int pass = 0; pass < passes; ++pass)
            {
                auto const start = std::chrono::steady_clock::now();
                for (Nuvek::Box const& box : boxes)
                    image.openRegion(buffer.data(), level, box);
                seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
            }
            return seconds;
        },
        py::arg("image"), py::arg("level"), py::arg("boxes"), py::arg("passes"));
}

} // namespace NuvekPython
