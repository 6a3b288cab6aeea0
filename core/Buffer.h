#pragma once

#include <nuvek/core/Box.h>

#include <stdexcept>
#include <vector>

namespace Nuvek {

/// \brief An owning multi-channel pixel buffer in region-buffer layout, tied to a box and a level.
///
/// Channel c occupies elements c*N to (c+1)*N - 1, N = getBounds().getSize(); inside a channel x
/// varies fastest, then y, then z. The accessors do no checking: they are meant for per-voxel loops.
template <typename T>
class Buffer
{
public:
    /// Allocates bounds.getSize() * numChannels zero values.
    Buffer(Box const& bounds, long long level, long long numChannels)
        : bounds(bounds), level(level), numChannels(numChannels), data(checkedCount(bounds, numChannels), T(0))
    {
    }

    /// Copies bounds.getSize() * numChannels values from values (nothing is read when that is 0).
    Buffer(T* values, Box const& bounds, long long level, long long numChannels) : Buffer(bounds, level, numChannels)
    {
        for (std::size_t i = 0; i < data.size(); ++i)
            data[i] = values[i];
    }

    Box const& getBounds() const { return bounds; }
    long long getLevel() const { return level; }
    long long getNumChannels() const { return numChannels; }

    T* getPtr(long long channel) { return data.data() + channel * bounds.getSize(); }
    T const* getPtr(long long channel) const { return data.data() + channel * bounds.getSize(); }

    std::vector<T*> getPtrVector()
    {
        std::vector<T*> pointers(static_cast<std::size_t>(numChannels));
        for (long long c = 0; c < numChannels; ++c)
            pointers[static_cast<std::size_t>(c)] = getPtr(c);
        return pointers;
    }

    std::vector<T const*> getPtrVector() const
    {
        std::vector<T const*> pointers(static_cast<std::size_t>(numChannels));
        for (long long c = 0; c < numChannels; ++c)
            pointers[static_cast<std::size_t>(c)] = getPtr(c);
        return pointers;
    }

    /// Writes the value at linear index `index` of every channel c to values[c]. values must
    /// already hold numChannels entries: it is neither resized nor checked, so that one vector can
    /// serve every voxel of a loop.
    void readChannelValues(long long index, std::vector<T>& values) const
    {
        long long const size = bounds.getSize();
        T const* source = data.data() + index;
        for (long long c = 0; c < numChannels; ++c)
            values[static_cast<std::size_t>(c)] = source[c * size];
    }

private:
    static std::size_t checkedCount(Box const& bounds, long long numChannels)
    {
        if (numChannels < 0)
            throw std::runtime_error("Buffer: the number of channels must not be negative.");
        return static_cast<std::size_t>(bounds.getSize()) * static_cast<std::size_t>(numChannels);
    }

    Box bounds;
    long long level;
    long long numChannels;
    std::vector<T> data;
};

} // namespace Nuvek
