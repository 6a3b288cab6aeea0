#include "io/internal/TiffHandle.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace Nuvek {

TiffHandle::TiffHandle(std::string const& path, char const* mode, std::string const& context)
    : path(path), context(context)
{
    std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
    if (!options)
        throw std::runtime_error(context + ": " + path + ": out of memory");
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), &TiffHandle::keepError, this);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), &TiffHandle::dropWarning, this);
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), static_cast<tmsize_t>(maxAllocation));
    tiff = TIFFOpenExt(path.c_str(), mode, options.get());
    if (tiff == nullptr)
    {
        std::string const message = lastError.empty() ? std::string("cannot open the file") : lastError;
        throw std::runtime_error(context + ": " + path + ": " + message);
    }
}

TiffHandle::~TiffHandle()
{
    if (tiff != nullptr)
        TIFFClose(tiff);
}

void TiffHandle::fail(std::string const& problem)
{
    std::string message = context + ": " + path + ": " + problem;
    if (!lastError.empty())
        message += " (" + lastError + ")";
    lastError.clear();
    throw std::runtime_error(message);
}

int TiffHandle::keepError(TIFF*, void* self, char const* module, char const* format, std::va_list arguments)
{
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    auto* handle = static_cast<TiffHandle*>(self);
    handle->lastError = (module != nullptr && *module != '\0') ? std::string(module) + ": " + text : std::string(text);
    return 1;
}

int TiffHandle::dropWarning(TIFF*, void*, char const*, char const*, std::va_list)
{
    return 1;
}

} // namespace Nuvek
