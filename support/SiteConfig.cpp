#include "support/SiteConfig.h"

#include <cstdlib>

namespace site {

const char* const SUPPORT_MAIL = "support@brennhaven.com";
const char* const SUPPORT_SITE = "https://support.brennhaven.com";
const char* const DOWNLOAD_SITE = "https://download.brennhaven.com";
const char* const WEB_SITE = "https://www.brennhaven.com";
const char* const CUDA_GPUS_PAGE = "https://developer.nvidia.com/cuda-gpus";
const char* const UPDATE_MANIFEST_PATH = "/.kovsdk_update.json";

namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

}  // namespace

std::string expand(std::string text) {
    replaceAll(text, "{SUPPORT_MAIL}", SUPPORT_MAIL);
    replaceAll(text, "{SUPPORT_SITE}", SUPPORT_SITE);
    replaceAll(text, "{DOWNLOAD_SITE}", DOWNLOAD_SITE);
    replaceAll(text, "{WEB_SITE}", WEB_SITE);
    replaceAll(text, "{CUDA_GPUS_PAGE}", CUDA_GPUS_PAGE);
    return text;
}

std::string updateManifestHost() {
    const char* env = std::getenv("KOV_UPDATE_MANIFEST_HOST");
    std::string host;
    if (env && *env) {
        host = env;
    } else {
#ifdef KOV_UPDATE_MANIFEST_HOST
        host = KOV_UPDATE_MANIFEST_HOST;
#endif
        if (host.empty())
            host = DOWNLOAD_SITE;
    }
    while (!host.empty() && host.back() == '/')
        host.pop_back();
    return host;
}

std::string updateManifestUrl() {
    return updateManifestHost() + UPDATE_MANIFEST_PATH;
}

int updateTimeoutMs() {
    const char* env = std::getenv("KOV_UPDATE_TIMEOUT_MS");
    if (env && *env) {
        char* end = nullptr;
        long v = std::strtol(env, &end, 10);
        if (end && *end == '\0' && v > 0 && v < 24L * 3600 * 1000)
            return static_cast<int>(v);
    }
    return 10000;
}

}  // namespace site
