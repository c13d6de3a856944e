#pragma once

#include "diagnostic/AIParameters.h"

// Command-line model maintenance: clears, downloads and optimises the AI models
// for every GPU as the flags of `ai` ask ("-aic", "-aid", "-aio", "-ais",
// "-nrlo", "-nrlo_plus"), handing `ai.verbosity` to the AI library as its log
// level. Prints what it does on standard output and returns 0 on every path.
int runAIModelMaintenance(const AIParameters& ai);
