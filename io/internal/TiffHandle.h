#pragma once

#include <tiffio.h>

#include <cstdarg>
#include <string>

namespace Nuvek {

/// \brief One open libtiff handle whose error and warning messages stay with the handle.
///
/// libtiff reports problems through handlers; the default ones print to the standard error stream
/// and are process-wide. This handle installs its own for itself only: warnings are dropped,
/// errors are kept so that a failed call can name the problem in its exception. Allocations that
/// libtiff makes for one handle are capped, so that a damaged header cannot ask for gigabytes.
///
/// Not thread-safe: one handle serves one thread at a time.
class TiffHandle
{
public:
    /// Opens path with libtiff's mode string ("r", "w8", ...). Throws std::runtime_error with
    /// "<context>: <path>: <libtiff's message>" when libtiff refuses the file.
    TiffHandle(std::string const& path, char const* mode, std::string const& context);
    ~TiffHandle();
    TiffHandle(TiffHandle const&) = delete;
    TiffHandle& operator=(TiffHandle const&) = delete;

    TIFF* get() const { return tiff; }

    /// Throws std::runtime_error with "<context>: <path>: <problem>", followed by libtiff's last
    /// message when it left one, and clears that message.
    [[noreturn]] void fail(std::string const& problem);

    /// Forgets libtiff's last message, before a call whose failure is expected and handled.
    void clearError() { lastError.clear(); }

    /// The largest single allocation libtiff may make for this handle.
    static constexpr long long maxAllocation = 1LL << 30;

private:
    static int keepError(TIFF* tiff, void* self, char const* module, char const* format, std::va_list arguments);
    static int dropWarning(TIFF* tiff, void* self, char const* module, char const* format, std::va_list arguments);

    std::string path;
    std::string context;
    std::string lastError;
    TIFF* tiff = nullptr;
};

} // namespace Nuvek
