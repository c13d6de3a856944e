#pragma once

class QApplication;
class MainWindow;

// The graphical mode: builds the application and the main window (with its
// splash unless `autoStart`), runs the event loop and returns its exit code.
// The caller has checked beforehand that a display can be reached.
int runGraphicalMode(int argc, char** argv, bool autoStart, bool arCheck);

// Shows `window` and runs the event loop. When the loop ends while a diagnosis
// or an optimisation is still under way, the process ends at once with the
// loop's code instead of waiting for the worker.
int execMainWindow(QApplication& app, MainWindow& window);

// Organisation and application names, logging rules: common to the windowed
// programs of the project.
void setUpApplicationIdentity();
