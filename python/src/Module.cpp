#include "ImageBinding.h"

#include <string>

PYBIND11_MODULE(_nuvek, module)
{
    module.doc() = "Lazy image filters for large multi-resolution images: the compiled part of the nuvek package.";

    // Library errors are std::runtime_error and arrive as RuntimeError with the same message (pybind11's
    // own translation). A few constructors throw a plain std::string; it arrives the same way.
    pybind11::register_exception_translator([](std::exception_ptr error) {
        try
        {
            if (error)
                std::rethrow_exception(error);
        }
        catch (std::string const& message)
        {
            PyErr_SetString(PyExc_RuntimeError, message.c_str());
        }
    });

    NuvekPython::bindImage(module);
    NuvekPython::bindSources(module);
    NuvekPython::bindFilters(module);
    NuvekPython::bindChains(module);
    NuvekPython::bindTiming(module);
}
