// Theme: palette constants, the style's fonts and sheets, resources, splash.
#include <QFontInfo>
#include <QLabel>
#include <QLayout>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include "gui/colors.h"
#include "gui/splashscreen.h"
#include "gui/style.h"

class TestTheme : public QObject {
    Q_OBJECT
private slots:
    void palette();
    void resourcesPresent_data();
    void resourcesPresent();
    void styleFontsRenderWithFallback();
    void styleSheetsUsePalette();
    void splashTextsAndSignal();
};

void TestTheme::palette() {
    QCOMPARE(clr::blue, QString("rgb(0,190,255)"));
    QCOMPARE(clr::green, QString("rgb(48,214,149)"));
    QCOMPARE(clr::black, QString("rgb(58,58,58)"));
    QCOMPARE(clr::soft_black, QString("rgb(72,72,72)"));
    QCOMPARE(clr::med_black, QString("rgb(130,130,130)"));
    QCOMPARE(clr::grey, QString("rgb(210,210,210)"));
    QCOMPARE(clr::xAxis, clr::red);
    QCOMPARE(clr::yAxis, clr::green);
    QCOMPARE(clr::zAxis, clr::blue);
    QCOMPARE(clr::yellow, QString("rgb(255, 205, 0)"));
    QCOMPARE(clr::bh_lime, QString("rgb(217,255,66)"));
    QCOMPARE(clr::bh_soil, QString("rgb(25,25,25)"));
    QCOMPARE(clr::bh_steel, QString("rgb(45,45,45)"));
    QCOMPARE(clr::company_clr, clr::bh_lime);
    QCOMPARE(clr::company_clr_h, clr::bh_dark_lime);
    QCOMPARE(clr::blue_h, QString("rgb(00,149,243)"));
}

void TestTheme::resourcesPresent_data() {
    QTest::addColumn<QString>("path");
    for (const char* name : {"BH_white", "loading", "fail", "info", "warning", "success", "notTested",
                             "drop_arrow_bh_pearl", "top_arrow_bh_pearl", "close_bh_pearl"}) {
        QTest::newRow(name) << QString(":/images/%1.png").arg(name);
    }
}

void TestTheme::resourcesPresent() {
    QFETCH(QString, path);
    Style style;  // registers the resources of the static library
    QPixmap pixmap(path);
    QVERIFY2(!pixmap.isNull(), qPrintable(path));
    QVERIFY(pixmap.width() >= 24 && pixmap.height() >= 16);
    QVERIFY(pixmap.hasAlphaChannel());
}

void TestTheme::styleFontsRenderWithFallback() {
    Style style;
    QVERIFY(style.registeredFontCount() >= 0);
    QCOMPARE(style.font_label.family(), QString(Style::kFamilyRegular));
    for (const QFont& font : {style.font_title, style.font_header, style.font_label, style.font_message,
                              style.font_button, style.font_small, style.font_box}) {
        // Whatever the family asked for, the font that renders exists.
        const QFontInfo info(font);
        QVERIFY(!info.family().isEmpty());
        QVERIFY(font.pointSize() > 0);
    }
    // Building another style registers nothing twice and changes nothing.
    Style again;
    QCOMPARE(again.registeredFontCount(), style.registeredFontCount());
}

void TestTheme::styleSheetsUsePalette() {
    Style style;
    QVERIFY(style.sheet_label.contains(clr::bh_pearl));
    QVERIFY(style.sheet_label_green.contains(clr::green));
    QVERIFY(style.sheet_label_red.contains(clr::red));
    QVERIFY(style.sheet_label_warning.contains(clr::yellow));
    QVERIFY(style.sheet_button.contains(clr::bh_lime));
    QVERIFY(style.sheet_window.contains(clr::bh_soil));
    QVERIFY(style.sheet_messagebox.contains("QMessageBox"));
    QVERIFY(style.sheet_scrollbar.contains("QScrollBar"));
    QVERIFY(style.sheet_checkbox.contains("QCheckBox"));
}

void TestTheme::splashTextsAndSignal() {
    SplashScreen splash(nullptr);
    QCOMPARE(splash.findChild<QLabel*>("splashTitleLabel")->text(), QString("Connect KOV"));
    QCOMPARE(splash.findChild<QLabel*>("splashLabel")->text(),
             QString("This tool will scan your system to determine whether it meets the recommended "
                     "requirements to run the KOV."));
    auto* start = splash.findChild<QPushButton*>("startButton");
    QCOMPARE(start->text(), QString("Start"));
    QVERIFY(splash.findChild<QLayout*>("splashLayout") != nullptr);
    QSignalSpy spy(&splash, &SplashScreen::s_startOnClick);
    splash.show();
    QTest::mouseClick(start, Qt::LeftButton);
    QCOMPARE(spy.count(), 1);
}

QTEST_MAIN(TestTheme)
#include "test_theme.moc"
