#include <nuvek/core/Check.h>

#include <stdexcept>

namespace Nuvek {

void check(bool condition, std::string const& message)
{
    if (!condition)
        throw std::runtime_error(message);
}

} // namespace Nuvek
