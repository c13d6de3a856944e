#pragma once

#include <QString>

// Web and mail addresses the window links to.
namespace gui {

QString supportSite();
QString supportMail();

// The help centre page and the mail link of the "Contact Support" button.
QString helpCenterUrl();
QString contactMailLink(const QString& reportPath);

}  // namespace gui
