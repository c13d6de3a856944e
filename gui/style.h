#pragma once

#include <QFont>
#include <QString>

// Ready-made fonts and style sheets built from the clr palette. Each class that
// needs one keeps its own instance, built once and kept until exit.
class Style {
public:
    Style();

    // Families the fonts ask for; a family that is not installed is
    // substituted by the fallback family, so text always renders.
    static const char* const kFamilyRegular;
    static const char* const kFamilyMedium;
    static const char* const kFamilyMonoRegular;
    static const char* const kFamilyMonoMedium;

    // Whether the application fonts were found in the resources (for tests and
    // the log); a missing one is not an error.
    int registeredFontCount() const { return registeredFonts; }

    QFont font_title;    // splash title
    QFont font_header;   // node names
    QFont font_label;    // status and errors labels, splash text
    QFont font_message;  // fold-out message rows
    QFont font_button;   // push buttons
    QFont font_small;    // percent, model rows
    QFont font_box;      // message boxes

    QString sheet_window;       // panel background
    QString sheet_button;       // push buttons
    QString sheet_label;        // plain text, pearl
    QString sheet_label_green;  // success
    QString sheet_label_red;    // failure
    QString sheet_label_warning;
    QString sheet_label_dim;       // not tested, secondary text
    QString sheet_checkbox;        // free tick box
    QString sheet_checkbox_fixed;  // ticked and fixed (already optimised)
    QString sheet_scrollbar;
    QString sheet_messagebox;
    QString sheet_messagebox_button;

private:
    int registeredFonts = 0;
};
