#pragma once

// Configuration of the stand-in vendor libraries, read from the environment on
// every call so that one test process can change the simulated machine between
// checks.
//
//   KOV_STANDIN_CUDA_DEVICES   devices, ';'-separated, each
//                              "name|major.minor|multiprocessors|memory bytes"
//   KOV_STANDIN_CUDA_COUNT_RESULT    result of cudaGetDeviceCount (0)
//   KOV_STANDIN_CUDA_DRIVER_VERSION  cudaDriverGetVersion value (12020)
//   KOV_STANDIN_CUDA_DRIVER_RESULT   result of cudaDriverGetVersion (0)
//   KOV_STANDIN_CUDA_RUNTIME_VERSION cudaRuntimeGetVersion value (12020)
//   KOV_STANDIN_CUDNN_VERSION        cudnnGetVersion (8904)
//   KOV_STANDIN_CUDNN_CUDART_VERSION cudnnGetCudartVersion (12020)
//   KOV_STANDIN_TRT_VERSION          getInferLibVersion (8602)
//   KOV_STANDIN_SDK_VERSION          "major.minor.patch" of the SDK library (4.1.2)
//   KOV_STANDIN_AI_VERSION           "major.minor" of the AI library (2.8)
//   KOV_STANDIN_AI_OPTIM_RESULT      result of every optimize call (0)
//   KOV_STANDIN_AI_LOG               file that the AI library appends its calls to
//   KOV_SYSROOT                      root of the simulated file system

#include <cstdlib>
#include <string>
#include <vector>

namespace standin {

struct Device {
    std::string name;
    int major = 0;
    int minor = 0;
    int multiprocessors = 0;
    unsigned long long memory = 0;
};

inline std::string env(const char* name, const char* fallback = "") {
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string(fallback);
}

inline long envInt(const char* name, long fallback) {
    const char* v = std::getenv(name);
    if (!v || !*v)
        return fallback;
    char* end = nullptr;
    long n = std::strtol(v, &end, 10);
    return (end && *end == '\0') ? n : fallback;
}

inline std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : text) {
        if (c == sep) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

// Parses "a.b" (or "a.b.c") into numbers; missing parts stay as given.
inline void parseVersion(const std::string& text, int* parts, int count) {
    std::vector<std::string> fields = split(text, '.');
    for (int i = 0; i < count && i < static_cast<int>(fields.size()); ++i)
        parts[i] = static_cast<int>(std::strtol(fields[i].c_str(), nullptr, 10));
}

inline std::vector<Device> devices() {
    std::vector<Device> list;
    const std::string list_text = env("KOV_STANDIN_CUDA_DEVICES");
    if (list_text.empty())
        return list;
    for (const std::string& entry : split(list_text, ';')) {
        if (entry.empty())
            continue;
        std::vector<std::string> f = split(entry, '|');
        Device d;
        d.name = f[0];
        if (f.size() > 1) {
            int cc[2] = {0, 0};
            parseVersion(f[1], cc, 2);
            d.major = cc[0];
            d.minor = cc[1];
        }
        if (f.size() > 2)
            d.multiprocessors = static_cast<int>(std::strtol(f[2].c_str(), nullptr, 10));
        if (f.size() > 3)
            d.memory = std::strtoull(f[3].c_str(), nullptr, 10);
        list.push_back(d);
    }
    return list;
}

inline std::string sysPath(const std::string& absolute) {
    std::string root = env("KOV_SYSROOT");
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root + absolute;
}

}  // namespace standin
