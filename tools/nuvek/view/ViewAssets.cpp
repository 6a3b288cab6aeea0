#include "view/ViewAssets.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace NuvekTool {

namespace {

std::string readWhole(std::filesystem::path const& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw std::runtime_error("the viewer's file " + path.string() +
                                 " is missing: run scripts/install-deps.sh and rebuild, or reinstall nuvek.");
    std::stringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

} // namespace

ViewAssets::ViewAssets(std::string const& pageDirectory, std::string const& viewerScript)
{
    std::filesystem::path const page(pageDirectory);
    assets["/"] = Asset{"text/html; charset=utf-8", readWhole(page / "index.html")};
    assets["/viewer.js"] = Asset{"text/javascript; charset=utf-8", readWhole(page / "viewer.js")};
    assets["/viewer.css"] = Asset{"text/css; charset=utf-8", readWhole(page / "viewer.css")};
    assets["/openseadragon.min.js"] = Asset{"text/javascript; charset=utf-8", readWhole(viewerScript)};
}

ViewAssets::Asset const* ViewAssets::find(std::string const& urlPath) const
{
    auto const found = assets.find(urlPath);
    return found == assets.end() ? nullptr : &found->second;
}

ViewAssets ViewAssets::locate()
{
    std::error_code error;
    std::filesystem::path const program = std::filesystem::canonical("/proc/self/exe", error);
    std::filesystem::path const installed = program.parent_path().parent_path() / "share" / "nuvek" / "view";
    if (!error && std::filesystem::exists(installed / "openseadragon.min.js") &&
        std::filesystem::exists(installed / "index.html"))
        return ViewAssets(installed.string(), (installed / "openseadragon.min.js").string());
    std::string const script = NUVEK_VIEW_VIEWER_SCRIPT;
    if (std::filesystem::exists(script))
        return ViewAssets(NUVEK_VIEW_PAGE_DIRECTORY, script);
    throw std::runtime_error("the viewer is not installed: neither " + installed.string() + " nor " + script +
                             " exists. Run scripts/install-deps.sh (it installs the viewer from the npm registry) "
                             "and build again.");
}

} // namespace NuvekTool
