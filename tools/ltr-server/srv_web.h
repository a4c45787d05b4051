// The map page's files, compiled into the server so it needs no network or install path.
#pragma once
#include <array>

namespace lsrv {

struct web_asset {
    const char *path;
    const char *type;
    const char *body;
};
extern const std::array<web_asset, 3> web_assets;

} // namespace lsrv
