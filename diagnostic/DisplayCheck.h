#pragma once

#include <string>

// Whether the graphical mode can reach a display: QT_QPA_PLATFORM names a
// platform that needs none, or a Wayland socket or an X display (DISPLAY)
// accepts a connection. Checked before the application object is built, so a
// machine without a display takes the command-line road instead of aborting.
bool displayReachable();

// The parts of an X display name ("host:N.S", ":N", "unix:N"): the host (empty
// for a local display) and the display number. False when the name is malformed.
bool parseXDisplay(const std::string& display, std::string& host, int& number);

// Last resort: if the process aborts while the graphical mode is starting
// (GUICheck still 1), re-execute the program with "-c" added. An abort after
// that ends the process with status 1.
void installGuiAbortFallback(int argc, char** argv);
