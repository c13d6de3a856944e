// The update check's announcements shown as message boxes.
#include <QAbstractButton>
#include <QCheckBox>
#include <QMessageBox>
#include <QTest>
#include <QTimer>

#include <QElapsedTimer>
#include <QThread>

#include <atomic>
#include <memory>
#include <thread>

#include "gui/updateDialogs.h"

namespace {

QStringList buttonTexts(QMessageBox& box) {
    QStringList texts;
    for (QAbstractButton* button : box.buttons())
        texts << button->text();
    texts.sort();
    return texts;
}

// Ticks "Hide" (when asked) on the next modal box and presses `button`.
void answer(const QString& button, bool tickHide) {
    QTimer::singleShot(50, [button, tickHide] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr) {
            answer(button, tickHide);
            return;
        }
        if (tickHide)
            box->checkBox()->setChecked(true);
        for (QAbstractButton* b : box->buttons()) {
            if (b->text() == button)
                b->click();
        }
    });
}

}  // namespace

class TestUpdateDialogs : public QObject {
    Q_OBJECT
private slots:
    void boxWithPage();
    void boxWithoutPage();
    void iconsByType();
    void hideIsReported();
    void closeWithoutHide();
    void workerThreadCallShowsOnGuiThread();
};

void TestUpdateDialogs::boxWithPage() {
    UpdateDialog dialog;
    dialog.title = "New KOV SDK available";
    dialog.text = "Version 4.2.0 is out";
    dialog.webpage = "https://example.org/release";
    dialog.moreButton = true;
    dialog.icon = UpdateDialog::NoIcon;
    std::unique_ptr<QMessageBox> box(makeUpdateDialogBox(dialog));
    QCOMPARE(box->windowTitle(), dialog.title);
    QCOMPARE(box->text(), dialog.text);
    QCOMPARE(buttonTexts(*box), QStringList({"Close", "More"}));
    QVERIFY(box->checkBox() != nullptr);
    QCOMPARE(box->checkBox()->text(), QString("Hide"));
    QVERIFY(!box->checkBox()->isChecked());
    QCOMPARE(box->icon(), QMessageBox::NoIcon);
    QCOMPARE(box->font().family(), QString("Nunito Sans"));
    QCOMPARE(box->font().pointSize(), 10);
}

void TestUpdateDialogs::boxWithoutPage() {
    UpdateDialog dialog;
    dialog.title = "Notice";
    dialog.text = "Read this";
    dialog.moreButton = false;
    std::unique_ptr<QMessageBox> box(makeUpdateDialogBox(dialog));
    QCOMPARE(buttonTexts(*box), QStringList({"Close"}));
}

void TestUpdateDialogs::iconsByType() {
    const std::pair<UpdateDialog::Icon, QMessageBox::Icon> table[] = {
        {UpdateDialog::Information, QMessageBox::Information},
        {UpdateDialog::Warning, QMessageBox::Warning},
        {UpdateDialog::Critical, QMessageBox::Critical},
        {UpdateDialog::Question, QMessageBox::Question},
        {UpdateDialog::NoIcon, QMessageBox::NoIcon},
    };
    for (const auto& row : table) {
        UpdateDialog dialog;
        dialog.icon = row.first;
        std::unique_ptr<QMessageBox> box(makeUpdateDialogBox(dialog));
        QCOMPARE(box->icon(), row.second);
    }
}

void TestUpdateDialogs::hideIsReported() {
    UpdateDialog dialog;
    dialog.title = "Message";
    dialog.text = "Hide me";
    answer("Close", true);
    QVERIFY(presentUpdateDialog(dialog));
}

void TestUpdateDialogs::closeWithoutHide() {
    UpdateDialog dialog;
    dialog.title = "Message";
    dialog.text = "Keep me";
    answer("Close", false);
    QVERIFY(!presentUpdateDialog(dialog));
}

void TestUpdateDialogs::workerThreadCallShowsOnGuiThread() {
    UpdateDialog dialog;
    dialog.title = "From the worker";
    dialog.text = "Shown on the GUI thread";
    QThread* boxThread = nullptr;
    QTimer::singleShot(50, [&boxThread] {
        if (QWidget* box = QApplication::activeModalWidget())
            boxThread = box->thread();
    });
    answer("Close", true);
    std::atomic<int> result{-1};
    std::thread worker([&result, &dialog] { result = presentUpdateDialog(dialog) ? 1 : 0; });
    QElapsedTimer timer;
    timer.start();
    while (result.load() < 0 && timer.elapsed() < 10000)
        QTest::qWait(10);
    worker.join();
    QCOMPARE(result.load(), 1);
    QCOMPARE(boxThread, QCoreApplication::instance()->thread());
}

QTEST_MAIN(TestUpdateDialogs)
#include "test_update_dialogs.moc"
