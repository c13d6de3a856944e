#pragma once

#include <QColor>
#include <QString>

// The palette every widget takes its look from. The constants are strings that
// style sheets use directly; those made from a QColor pass through toStr.
namespace clr {

static inline QString toStr(const QColor& c) {
    return QString("rgb(%1,%2,%3)").arg(c.red()).arg(c.green()).arg(c.blue());
}

const QColor blue_clr(0, 190, 255);
const QColor green_clr(48, 214, 149);
const QColor dark(58, 58, 58);
const QColor soft_black_clr(72, 72, 72);
const QColor med_black_clr(130, 130, 130);
const QColor grey_clr(210, 210, 210);

const QString asphalt = "rgb(52,73,94)";
const QString concrete = "rgb(149,165,166)";
const QString silver = "rgb(189,195,199)";
const QString clouds = "rgb(236,240,241)";
const QString blue = toStr(blue_clr);
const QString blue_h = "rgb(00,149,243)";
const QString blue_light = "rgba(44,201,255,123)";
const QString green = toStr(green_clr);
const QString green_h = "rgb(38,171,119)";
const QString red = "rgb(255,87,87)";
const QString red_h = "rgb(204,70,70)";
const QString xAxis = red;
const QString yAxis = green;
const QString zAxis = blue;
const QString singleAxis = "rgb(255,87,48)";
const QString white = "rgb(255,255,255)";
const QString transparent = "rgba(255,255,255,0)";
const QString black = toStr(dark);
const QString soft_black = toStr(soft_black_clr);
const QString med_black = toStr(med_black_clr);
const QString grey = toStr(grey_clr);
const QString lightgrey = "rgb(235,235,235)";
const QString yellow = "rgb(255, 205, 0)";
const QString bh_lime = "rgb(217,255,66)";
const QString bh_dark_lime = "rgb(187,225,36)";
const QString bh_white = "rgb(255,255,255)";
const QString bh_pearl = "rgb(242,242,242)";
const QString bh_iron = "rgb(194,194,194)";
const QString bh_ash = "rgb(137,137,137)";
const QString bh_charcoal = "rgb(60,60,60)";
const QString bh_steel = "rgb(45,45,45)";
const QString bh_soil = "rgb(25,25,25)";
const QString bh_black = "rgb(5,5,5)";
const QString bh_demo_red = "rgb(255,100,100)";
const QString company_clr = bh_lime;
const QString company_clr_h = bh_dark_lime;

}  // namespace clr
