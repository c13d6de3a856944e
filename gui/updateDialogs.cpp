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

UpdateDialogPresenter onGuiThread(UpdateDialogPresenter show) {
    return [show = std::move(show)](const UpdateDialog& dialog) {
        QCoreApplication* app = QCoreApplication::instance();
        if (app == nullptr || !show)
            return false;
        if (QThread::currentThread() == app->thread())
            return show(dialog);
        // Widgets live on the GUI thread: the box is shown there and this
        // thread waits for the answer, so a ticked "Hide" is recorded.
        bool hidden = false;
        QMetaObject::invokeMethod(
            app, [&hidden, &dialog, &show] { hidden = show(dialog); }, Qt::BlockingQueuedConnection);
        return hidden;
    };
}

bool presentUpdateDialog(const UpdateDialog& dialog) {
    static const UpdateDialogPresenter present = onGuiThread(&presentOnGuiThread);
    return present(dialog);
}

void installUpdateDialogs() {
    setUpdateDialogPresenter(&presentUpdateDialog);
}
