#pragma once

#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/Image.h>

#include <memory>
#include <vector>

namespace Nuvek {

/// \brief The images a built chain is made of, owned together.
///
/// Filters are created without ownership of their inputs, and the chain deletes them last-made
/// first, so that nothing outlives what it reads. The source the chain was built over is not owned.
class Chain
{
public:
    Chain() = default;
    Chain(Chain const&) = delete;
    Chain& operator=(Chain const&) = delete;
    ~Chain();

    /// Takes image into the chain; it becomes the output.
    Image* add(std::unique_ptr<Image> image);
    ChannelBank* addBank(std::unique_ptr<ChannelBank> bank);

    /// The last filter of the chain (the source when the chain is empty).
    Image* output = nullptr;
    /// False when a filter of the chain must not serve two threads at once.
    bool shareable = true;

private:
    // Images and banks in the order made; destroyed in reverse.
    std::vector<std::shared_ptr<void>> owned;
};

} // namespace Nuvek
