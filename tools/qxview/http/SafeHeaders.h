// Headers of every reply: what a browser may do with it.
#pragma once

#include <utility>

namespace qx::view {

// Records, names and traces are hostile text. Whatever of it came into a page: nothing runs but our own files, nothing
// is loaded from or sent to elsewhere, nobody shows the page in a frame, and what would be set as HTML is set as text
// by the pages' own policy.
inline constexpr std::pair<const char*, const char*> kSafeHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types default"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Permissions-Policy", "camera=(), geolocation=(), microphone=()"},
};

}  // namespace qx::view
