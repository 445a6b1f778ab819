// Headers of every reply, which limit what a browser does with it.
#pragma once

#include <utility>

namespace qx::view {

// Records, names and traces are hostile text. If some of it became part of a page, the browser would still run only our
// own scripts, load nothing from other sites and send nothing to them, and show the page in no frame. Text that a
// script assigns as HTML passes through the pages' own policy, which makes it plain text.
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
