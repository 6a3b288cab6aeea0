#include "io/internal/TileSpool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Nuvek {

TileSpool::TileSpool(std::string const& besidePath, std::vector<long long> const& tiles, char const* context)
    : context(context)
{
    std::string pattern = besidePath + ".levels-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    descriptor = ::mkstemp(name.data());
    if (descriptor < 0)
        fail(besidePath + ": cannot create a file beside it (" + std::strerror(errno) + ")");
    ::unlink(name.data());
    for (long long count : tiles)
        places.emplace_back(static_cast<std::size_t>(count));
}

TileSpool::~TileSpool()
{
    if (descriptor >= 0)
        ::close(descriptor);
}

void TileSpool::fail(std::string const& problem) const
{
    throw std::runtime_error(context + ": " + problem);
}

void TileSpool::put(long long level, long long index, std::vector<unsigned char> const& bytes)
{
    long long offset = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        offset = end;
        end += static_cast<long long>(bytes.size());
    }
    std::size_t written = 0;
    while (written < bytes.size())
    {
        ssize_t const count = ::pwrite(descriptor, bytes.data() + written, bytes.size() - written,
                                       static_cast<off_t>(offset + static_cast<long long>(written)));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            fail(std::string("cannot keep a tile of a coarser level aside (") + std::strerror(errno) + ")");
        written += static_cast<std::size_t>(count);
    }
    std::lock_guard<std::mutex> lock(mutex);
    places[static_cast<std::size_t>(level)][static_cast<std::size_t>(index)] =
        Place{offset, static_cast<long long>(bytes.size())};
}

void TileSpool::get(long long level, long long index, std::vector<unsigned char>& bytes) const
{
    Place place;
    {
        std::lock_guard<std::mutex> lock(mutex);
        place = places[static_cast<std::size_t>(level)][static_cast<std::size_t>(index)];
    }
    if (place.offset < 0)
        fail("tile " + std::to_string(index) + " of level " + std::to_string(level) + " was never made");
    bytes.resize(static_cast<std::size_t>(place.size));
    std::size_t done = 0;
    while (done < bytes.size())
    {
        ssize_t const count = ::pread(descriptor, bytes.data() + done, bytes.size() - done,
                                      static_cast<off_t>(place.offset + static_cast<long long>(done)));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            fail("cannot read back a tile of a coarser level");
        done += static_cast<std::size_t>(count);
    }
}

void TileSpool::clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    for (std::vector<Place>& level : places)
        std::fill(level.begin(), level.end(), Place());
    end = 0;
    if (::ftruncate(descriptor, 0) != 0)
        fail(std::string("cannot empty the file of coarser levels (") + std::strerror(errno) + ")");
}

} // namespace Nuvek
