#pragma once

#include <string>
#include <vector>

namespace NuvekTool {

/// `nuvek view INPUT [--chain EXPR]... [--port N] [--host ADDR] [--threads N] [--cache-mb N]`:
/// serves a deep-zoom page over INPUT with one layer per chain until Ctrl-C.
int viewCommand(std::vector<std::string> const& arguments);

} // namespace NuvekTool
