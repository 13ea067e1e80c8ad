// The operator's web page, built into kelputil so that `kelputil serve`
// needs nothing on disk and fetches nothing at run time: operations networks
// are often offline.
#pragma once

#include <cstddef>
#include <span>
#include <string>

struct web_asset {
    const char* path;  // as requested, e.g. "/js/main.js"
    const char* content_type;
    const unsigned char* data;
    size_t size;
};

// The asset for a request path without its query; "/" is the page itself.
// nullptr when there is none.
const web_asset* find_web_asset(const std::string& path);

// Every asset, for listing and for tests.
std::span<const web_asset> web_assets();

struct web_header {
    const char* name;
    const char* value;
};

// Headers every answer of the page's files must carry. The policy lets the
// browser run only our own script files: a router's text that slipped into
// markup could still not run a script or load anything from elsewhere.
inline constexpr web_header web_security_headers[] = {
    {"Content-Security-Policy",
     "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
     "frame-ancestors 'none'; base-uri 'none'; form-action 'self'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
};
