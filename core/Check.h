#pragma once

#include <string>

namespace Nuvek {

/// Does nothing when condition holds; otherwise throws std::runtime_error whose what() is message.
void check(bool condition, std::string const& message);

} // namespace Nuvek
