// The command line: the input is split at zero bytes into argv entries (the
// first is the program name, as the shell hands it over), parsed, and the
// model number that "-ais X" gives is looked up in the model catalogue as
// the command-line mode does with it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ai/AIModels.h"
#include "diagnostic/Arguments.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> entries(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            entries.emplace_back();
        else
            entries.back().push_back(static_cast<char>(data[i]));
    }
    if (entries.size() > 64)
        entries.resize(64);
    std::vector<char*> argv;
    for (std::string& e : entries)
        argv.push_back(&e[0]);
    argv.push_back(nullptr);

    const LaunchOptions options = parseArguments(static_cast<int>(entries.size()), argv.data());
    if (options.ai.specific && options.ai.model >= 0) {
        const int model = options.ai.model;
        int width = 0;
        int height = 0;
        (void)ai::modelDisplayText(model);
        (void)ai::getModelBaseName(model);
        (void)ai::getModelInputSize(model, width, height);
        (void)bh::toString(static_cast<bh::AI_MODELS>(model));
    }
    (void)usageLines();
    return 0;
}
