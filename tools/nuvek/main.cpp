// nuvek: runs filter chains over real images, tile by tile, on all cores.
#include "Commands.h"
#include "view/ViewCommand.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

char const* const mainHelp = R"(nuvek: filter chains over large multi-resolution images, tile by tile, on all cores.

Usage:
  nuvek demo [DIR] [options]                 make a synthetic brightfield slide and find its nuclei
  nuvek run INPUT OUTPUT --chain EXPR [options]
                                             run a filter chain, write a tiled pyramidal BigTIFF
                                             (OUTPUT.tif), OME-TIFF (.ome.tif) or OME-Zarr (.ome.zarr)
  nuvek view INPUT [--chain EXPR]... [options]
                                             look at chains over INPUT in the browser, computed where you look
  nuvek info FILE                            levels, channels, value range, voxel and tile size
  nuvek filters                              every filter with its parameters
  nuvek COMMAND --help                       help on one command

Exit status: 0 done, 2 bad usage or input (nothing written), 130 interrupted (nothing written).
)";

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty() || arguments[0] == "--help" || arguments[0] == "-h" || arguments[0] == "help")
    {
        std::fputs(mainHelp, arguments.empty() ? stderr : stdout);
        return arguments.empty() ? 2 : 0;
    }
    std::string const command = arguments[0];
    arguments.erase(arguments.begin());
    try
    {
        if (command == "run")
            return NuvekTool::runCommand(arguments);
        if (command == "info")
            return NuvekTool::infoCommand(arguments);
        if (command == "demo")
            return NuvekTool::demoCommand(arguments);
        if (command == "view")
            return NuvekTool::viewCommand(arguments);
        if (command == "filters")
            return NuvekTool::filtersCommand(arguments);
        std::fprintf(stderr, "nuvek: unknown command '%s'. 'nuvek --help' lists the commands.\n", command.c_str());
        return 2;
    }
    catch (NuvekTool::Interrupted const&)
    {
        std::fprintf(stderr, "\nnuvek: interrupted; no output was left behind.\n");
        return 130;
    }
    catch (std::exception const& error)
    {
        std::fprintf(stderr, "nuvek %s: %s\n", command.c_str(), error.what());
        return 2;
    }
}
