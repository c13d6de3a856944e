#include "gui/updateDialogs.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QFont>
#include <QPushButton>
#include <QThread>
#include <QUrl>

#include "gui/style.h"

namespace {

Style* dialogStyle() {
    static Style* style = new Style();
    return style;
}

QMessageBox::Icon boxIcon(UpdateDialog::Icon icon) {
    switch (icon) {
        case UpdateDialog::Information:
            return QMessageBox::Information;
        case UpdateDialog::Warning:
            return QMessageBox::Warning;
        case UpdateDialog::Critical:
            return QMessageBox::Critical;
        case UpdateDialog::Question:
            return QMessageBox::Question;
        default:
            return QMessageBox::NoIcon;
    }
}

}  // namespace

QMessageBox* makeUpdateDialogBox(const UpdateDialog& dialog, QWidget* parent) {
    auto* box = new QMessageBox(parent);
    box->setWindowTitle(dialog.title);
    box->setText(dialog.text);
    box->setIcon(boxIcon(dialog.icon));
    QFont font("Nunito Sans", 10);
    font.setWeight(40);
    box->setFont(font);
    box->setStyleSheet(dialogStyle()->sheet_messagebox);
    if (dialog.moreButton && !dialog.webpage.isEmpty()) {
        box->addButton("More", QMessageBox::ActionRole)->setObjectName("moreButton");
    }
    QPushButton* close = box->addButton("Close", QMessageBox::RejectRole);
    close->setObjectName("closeButton");
    box->setDefaultButton(close);
    auto* hide = new QCheckBox("Hide", box);
    hide->setObjectName("hideCheckBox");
    box->setCheckBox(hide);
    return box;
}

namespace {

bool presentOnGuiThread(const UpdateDialog& dialog) {
    QMessageBox* box = makeUpdateDialogBox(dialog);
    box->exec();
    QAbstractButton* clicked = box->clickedButton();
    if (clicked != nullptr && clicked->objectName() == "moreButton") {
        QDesktopServices::openUrl(QUrl(dialog.webpage));
    }
    const bool hidden = box->checkBox() != nullptr && box->checkBox()->isChecked();
    delete box;
    return hidden;
}

}  // namespace

bool presentUpdateDialog(const UpdateDialog& dialog) {
    QCoreApplication* app = QCoreApplication::instance();
    if (app == nullptr)
        return false;
    if (QThread::currentThread() == app->thread())
        return presentOnGuiThread(dialog);
    // Called from a worker (a check running on the diagnosis thread): widgets
    // live on the GUI thread, so the box is shown there and this thread waits.
    bool hidden = false;
    QMetaObject::invokeMethod(
        app, [&hidden, &dialog] { hidden = presentOnGuiThread(dialog); }, Qt::BlockingQueuedConnection);
    return hidden;
}

void installUpdateDialogs() {
    setUpdateDialogPresenter(&presentUpdateDialog);
}
