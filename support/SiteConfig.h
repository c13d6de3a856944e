#pragma once

#include <string>

// Addresses the tool shows or reaches, set in one place. Messages hold them as
// the placeholders {SUPPORT_MAIL}, {SUPPORT_SITE}, {DOWNLOAD_SITE}, {WEB_SITE}
// and {CUDA_GPUS_PAGE}; site::expand puts the values in.
namespace site {

// The support mailbox (without "mailto:").
extern const char* const SUPPORT_MAIL;
// The support, download and main web sites (scheme and host, no trailing '/').
extern const char* const SUPPORT_SITE;
extern const char* const DOWNLOAD_SITE;
extern const char* const WEB_SITE;
// Public page that lists the compute capability of each NVIDIA card.
extern const char* const CUDA_GPUS_PAGE;

// Replaces every placeholder above in `text` by its value.
std::string expand(std::string text);

// Path of the update manifest on its host.
extern const char* const UPDATE_MANIFEST_PATH;

// Host of the update manifest ("scheme://host[:port]"): the environment
// variable KOV_UPDATE_MANIFEST_HOST when set and not empty, else the CMake
// cache value KOV_UPDATE_MANIFEST_HOST when the build set one, else DOWNLOAD_SITE.
std::string updateManifestHost();

// updateManifestHost() + UPDATE_MANIFEST_PATH.
std::string updateManifestUrl();

// Time-out of the update request in milliseconds: KOV_UPDATE_TIMEOUT_MS when it
// is a positive number, else 10000.
int updateTimeoutMs();

}  // namespace site
