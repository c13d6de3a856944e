#include "gui/style.h"

#include <QFontDatabase>
#include <QStringList>

#include "gui/colors.h"

static void initGuiResources() {
    // The resources live in a static library: make sure they are registered.
    Q_INIT_RESOURCE(resources);
}

const char* const Style::kFamilyRegular = "NB Akademie Pro Regular";
const char* const Style::kFamilyMedium = "NB Akademie Pro Medium";
const char* const Style::kFamilyMonoRegular = "NB Akademie Mono Pro Regular";
const char* const Style::kFamilyMonoMedium = "NB Akademie Mono Pro Medium";

namespace {

// Registers the application fonts once per process and sets up substitutes for
// the families that are not installed. Returns how many files were found.
int registerFonts() {
    static int count = -1;
    if (count >= 0)
        return count;
    initGuiResources();
    count = 0;
    const char* files[] = {
        ":/font/Roboto-Medium.ttf",
        ":/font/Roboto-Bold.ttf",
        ":/font/Roboto-Regular.ttf",
        ":/font/Helvetica-Neue.ttf",
        ":/font/NBAkademiePro-Regular.ttf",
        ":/font/NBAkademiePro-Medium.ttf",
        ":/font/NBAkademieMonoPro-Regular.ttf",
        ":/font/NBAkademieMonoPro-Medium.ttf",
        // Fallback families from the system's font packages.
        ":/font/DejaVuSans.ttf",
        ":/font/DejaVuSans-Bold.ttf",
        ":/font/DejaVuSansMono.ttf",
        ":/font/DejaVuSansMono-Bold.ttf",
    };
    for (const char* file : files) {
        if (QFontDatabase::addApplicationFont(QString::fromLatin1(file)) >= 0)
            ++count;
    }
    // A family that is missing renders with the first installed substitute.
    const QStringList sans{"Roboto", "DejaVu Sans", "Sans Serif"};
    const QStringList mono{"DejaVu Sans Mono", "Noto Sans Mono", "Monospace"};
    QFont::insertSubstitutions(Style::kFamilyRegular, sans);
    QFont::insertSubstitutions(Style::kFamilyMedium, sans);
    QFont::insertSubstitutions(Style::kFamilyMonoRegular, mono);
    QFont::insertSubstitutions(Style::kFamilyMonoMedium, mono);
    return count;
}

QFont makeFont(const char* family, int pointSize, int weight = QFont::Normal) {
    QFont font(QString::fromLatin1(family), pointSize, weight);
    font.setStyleStrategy(QFont::PreferAntialias);
    return font;
}

QString labelSheet(const QString& colour) {
    return QString("QLabel{color: %1; background: transparent;} a{color: %2;}").arg(colour, clr::bh_lime);
}

}  // namespace

Style::Style() {
    registeredFonts = registerFonts();

    font_title = makeFont(kFamilyMedium, 20, QFont::DemiBold);
    font_header = makeFont(kFamilyMedium, 11, QFont::DemiBold);
    font_label = makeFont(kFamilyRegular, 10);
    font_message = makeFont(kFamilyRegular, 9);
    font_button = makeFont(kFamilyMedium, 9, QFont::DemiBold);
    font_small = makeFont(kFamilyMonoRegular, 9);
    font_box = makeFont(kFamilyRegular, 10);

    sheet_window = QString("background: %1; color: %2;").arg(clr::bh_soil, clr::bh_pearl);
    sheet_button =
        QString(
            "QPushButton{background-color: %1; color: %2; border: 1px solid %3; border-radius: 6px;"
            " padding: 6px 10px;}"
            "QPushButton:hover{background-color: %4; color: %5; border-color: %4;}"
            "QPushButton:pressed{background-color: %6; color: %5; border-color: %6;}"
            "QPushButton:disabled{background-color: %7; color: %8; border-color: %3;}")
            .arg(clr::bh_steel, clr::bh_pearl, clr::bh_charcoal, clr::bh_lime, clr::bh_black,
                 clr::bh_dark_lime, clr::bh_soil, clr::bh_ash);
    sheet_label = labelSheet(clr::bh_pearl);
    sheet_label_green = labelSheet(clr::green);
    sheet_label_red = labelSheet(clr::red);
    sheet_label_warning = labelSheet(clr::yellow);
    sheet_label_dim = labelSheet(clr::bh_ash);
    sheet_checkbox =
        QString(
            "QCheckBox{color: %1; background: transparent;}"
            "QCheckBox::indicator{width: 14px; height: 14px; border: 1px solid %2; border-radius: 3px;"
            " background: %3;}"
            "QCheckBox::indicator:checked{background: %4; border-color: %4;}")
            .arg(clr::bh_pearl, clr::bh_ash, clr::bh_soil, clr::bh_lime);
    sheet_checkbox_fixed = QString(
                               "QCheckBox{color: %1; background: transparent;}"
                               "QCheckBox::indicator{width: 14px; height: 14px; border: 1px solid %2;"
                               " border-radius: 3px; background: %2;}")
                               .arg(clr::bh_ash, clr::green);
    sheet_scrollbar = QString(
                          "QScrollBar:vertical{background: %1; width: 6px; margin: 0; border: none;}"
                          "QScrollBar::handle:vertical{background: %2; border-radius: 3px; min-height: 24px;}"
                          "QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical{height: 0;}"
                          "QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical{background: none;}")
                          .arg(clr::bh_soil, clr::bh_charcoal);
    sheet_messagebox_button =
        QString(
            "QPushButton{background-color: %1; color: %2; border: 1px solid %3; border-radius: 6px;"
            " padding: 5px 18px;}"
            "QPushButton:hover{background-color: %4; color: %5;}")
            .arg(clr::bh_steel, clr::bh_pearl, clr::bh_charcoal, clr::bh_lime, clr::bh_black);
    sheet_messagebox =
        QString("QMessageBox{background-color: %1;} QLabel{color: %2; background: transparent;} ")
            .arg(clr::bh_soil, clr::bh_pearl) +
        sheet_messagebox_button;
}
