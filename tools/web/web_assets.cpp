#include "web_assets.h"

#include <cstring>

// Generated at build time from this folder (web_embed.cmake).
extern const web_asset web_asset_table[];
extern const size_t web_asset_count;

std::span<const web_asset> web_assets() { return {web_asset_table, web_asset_count}; }

const web_asset* find_web_asset(const std::string& path) {
    const std::string& wanted = path == "/" ? std::string("/index.html") : path;
    for (const web_asset& a : web_assets())
        if (wanted == a.path) return &a;
    return nullptr;
}
