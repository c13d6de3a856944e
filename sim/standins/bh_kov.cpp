// Stand-in SDK library (libbh_kov.so) with its version export.
#include "StandinEnv.h"

extern "C" void getKOVSDKRuntimeVersion_C(int* major, int* minor, int* patch) {
    int v[3] = {4, 1, 2};
    standin::parseVersion(standin::env("KOV_STANDIN_SDK_VERSION", "4.1.2"), v, 3);
    if (major)
        *major = v[0];
    if (minor)
        *minor = v[1];
    if (patch)
        *patch = v[2];
}
