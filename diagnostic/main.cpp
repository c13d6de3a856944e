// Entry point: scans the arguments and chooses the graphical or command-line mode.
#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>

#include "diagnostic/Arguments.h"
#include "diagnostic/CommandLine.h"
#include "diagnostic/DisplayCheck.h"
#include "sim/Simulator.h"
#include "support/KLogger.h"

#ifdef KOV_HAVE_GUI
#include "gui/GuiEntry.h"
#endif

int main(int argc, char** argv) {
    // KOV_SIMULATION names a scenario file: run on the simulated machine.
    if (!sim::installFromEnvironment())
        return 1;
    const LaunchOptions options = parseArguments(argc, argv);
    if (!options.error.empty()) {
        std::fprintf(stderr, "Error: %s. Run with -h for the options.\n", options.error.c_str());
        return 2;
    }
    if (options.help) {
        for (const std::string& line : usageLines())
            std::printf("%s\n", line.c_str());
        return 0;
    }

    // The log file of this process exists from here on.
    bh::KLogger& logger = bh::KLogger::get_instance();
    for (const std::string& line : options.logLines)
        logger.get_logger(bh::LOGGER_NAME::SDK)->info(line);

    skip_json = options.skipJson;

#ifdef KOV_HAVE_GUI
    if (!options.forceCommandLine && GUICheck == 1) {
        if (displayReachable()) {
            installGuiAbortFallback(argc, argv);
            return runGraphicalMode(argc, argv, options.autoStart, options.arCheck);
        }
    }
#endif

    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName("Brennhaven");
    QCoreApplication::setApplicationName("Diagnostic");
    QLoggingCategory::setFilterRules("*=false");
    return runCommandLine(argc, argv, options.ai, options.arCheck, options.recoverMcu, options.kernelLog);
}
