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
// whether "Hide" was ticked. Callable from any thread: the box is made and
// shown on the GUI thread.
bool presentUpdateDialog(const UpdateDialog& dialog);

// Wraps a presenter that must run on the GUI thread (it makes widgets): a call
// from another thread (the "KOV SDK" node's worker) runs it there and waits
// for its answer; a call on the GUI thread runs it directly. Without an
// application object nothing is shown and the answer is false.
UpdateDialogPresenter onGuiThread(UpdateDialogPresenter show);
