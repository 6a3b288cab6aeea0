#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace NuvekTool {

/// Thrown when Ctrl-C stopped the work; the output was removed.
class Interrupted : public std::runtime_error
{
public:
    Interrupted() : std::runtime_error("interrupted") {}
};

int runCommand(std::vector<std::string> const& arguments);
int infoCommand(std::vector<std::string> const& arguments);
int demoCommand(std::vector<std::string> const& arguments);
int filtersCommand(std::vector<std::string> const& arguments);

} // namespace NuvekTool
