#include "gui/links.h"

#include "support/SiteConfig.h"

namespace gui {

QString supportSite() {
    return QString::fromUtf8(site::SUPPORT_SITE);
}
QString supportMail() {
    return QString::fromUtf8(site::SUPPORT_MAIL);
}

QString helpCenterUrl() {
    return supportSite() + "/hc/en-us";
}

QString contactMailLink(const QString& reportPath) {
    return "mailto:?to=" + supportMail() +
           "&subject=Diagnostic tool issue&body=Dear Brennhaven support,\n\nPlease attach the diagnostic "
           "file:\n" +
           reportPath + "\n\n\n\nSincerely,";
}

}  // namespace gui
