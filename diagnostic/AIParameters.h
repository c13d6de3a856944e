#pragma once

#include <cstdint>

// AI model operations asked for on the command line; passed by value from
// main to runCommandLine.
struct AIParameters {
    bool clear = false;     // remove all AI models
    bool download = false;  // download all AI models
    bool optimize = false;  // download and optimise all AI models
    bool specific = false;  // optimise the one model in `model`
    int32_t model = -1;     // a bh::AI_MODELS value
    int32_t verbosity = 0;  // log level handed to the AI library
};
