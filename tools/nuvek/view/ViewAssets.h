#pragma once

#include <map>
#include <string>

namespace NuvekTool {

/// \brief The files of `nuvek view`'s page, read once into memory, so that no request path ever
/// reaches the file system.
///
/// The page's own files (index.html, viewer.js, viewer.css) come from `pageDirectory`, the deep-zoom
/// viewer from `viewerScript` (openseadragon.min.js, installed from the npm registry). Throws
/// std::runtime_error naming a missing file.
class ViewAssets
{
public:
    struct Asset
    {
        std::string contentType;
        std::string bytes;
    };

    ViewAssets(std::string const& pageDirectory, std::string const& viewerScript);

    /// The asset served at a URL path ("/" is the page), or null.
    Asset const* find(std::string const& urlPath) const;

    /// The assets of this program: under share/nuvek/view beside an installed program, else in the
    /// build tree it was configured for. Throws std::runtime_error naming the places looked at when
    /// neither holds them.
    static ViewAssets locate();

private:
    std::map<std::string, Asset> assets;
};

} // namespace NuvekTool
