#pragma once

#include <QMessageBox>

#include "support/Updater.h"

// Presents the online update check's announcements as message boxes in the
// graphical mode.
void installUpdateDialogs();

// Builds the box of one announcement (title, text, icon, "Hide" check box,
// "More" when there is a web page, "Close"); exposed for tests.
QMessageBox* makeUpdateDialogBox(const UpdateDialog& dialog, QWidget* parent = nullptr);

// Shows one announcement modally; opens the web page on "More"; answers
// whether "Hide" was ticked.
bool presentUpdateDialog(const UpdateDialog& dialog);
