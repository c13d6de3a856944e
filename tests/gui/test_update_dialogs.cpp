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

#include <QFile>

#include "gui/updateDialogs.h"
#include "tests/unit/hostchecks/LoopbackHttpServer.h"

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

// A manifest with a newer release (and its announcement) and three messages,
// two of them for this version.
const char* const kManifest =
    R"({"latest":{"version":{"webpage":"https://example.test/release","major":4,"minor":1,"patch":3,)"
    R"("message":"Release notes"}},"messages":[)"
    R"({"version":"*","text":"Maintenance tonight","title":"Notice","type":"warning","webpage":""},)"
    R"({"version":"4.0.0","text":"Old version","title":"Other","type":"info","webpage":""},)"
    R"({"version":"4.1.2","text":"Read the notes","title":"For you","type":"info","webpage":"https://example.test/n"}]})";

// Serves the manifest and points the update check at it, with an empty hidden
// list, for the life of the object.
struct ManifestServer {
    testsupport::LoopbackHttpServer server;
    QByteArray previousHost = qgetenv("KOV_UPDATE_MANIFEST_HOST");
    ManifestServer() {
        server.setBody(kManifest);
        qputenv("KOV_UPDATE_MANIFEST_HOST", QByteArray::fromStdString(server.host()));
        QFile::remove(QString::fromStdString(hiddenMessagesPath()));
    }
    ~ManifestServer() {
        qputenv("KOV_UPDATE_MANIFEST_HOST", previousHost);
        QFile::remove(QString::fromStdString(hiddenMessagesPath()));
        setUpdateDialogPresenter(nullptr);
    }
    static QByteArray hiddenList() {
        QFile f(QString::fromStdString(hiddenMessagesPath()));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
};

// Runs the "KOV SDK" node's call, CheckSDKUpdateOnline(true), on a worker
// while this (GUI) thread keeps its event loop going; the result, or "timeout".
std::string checkOnWorker() {
    std::atomic<bool> done{false};
    std::string result;
    std::thread worker([&] {
        result = CheckSDKUpdateOnline(true);
        done = true;
    });
    QElapsedTimer timer;
    timer.start();
    while (!done.load() && timer.elapsed() < 20000)
        QTest::qWait(10);
    if (!done.load()) {
        // Leave nothing blocked behind: answer whatever is still open.
        while (!done.load()) {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
                box->reject();
            QTest::qWait(10);
        }
        worker.join();
        return "timeout";
    }
    worker.join();
    return result;
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
    void messagesWithArgumentTrueReachTheWindow();
    void presenterRunsOnGuiThreadOnly();
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

void TestUpdateDialogs::messagesWithArgumentTrueReachTheWindow() {
    ManifestServer manifest;
    installUpdateDialogs();
    // Answers each box as it comes: "Hide" on the first, "Close" on all.
    QStringList titles;
    QList<QThread*> threads;
    QTimer answerer;
    answerer.setInterval(20);
    QObject::connect(&answerer, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr || !box->isVisible())
            return;
        titles << box->windowTitle();
        threads << box->thread();
        if (titles.size() == 1)
            box->checkBox()->setChecked(true);
        for (QAbstractButton* b : box->buttons())
            if (b->text() == "Close")
                b->click();
    });
    answerer.start();
    const std::string result = checkOnWorker();
    answerer.stop();
    QCOMPARE(result, std::string("https://example.test/release"));
    // The release box is left out with the argument true; the two messages for
    // this version are shown, in order, each made on the GUI thread.
    QCOMPARE(titles, QStringList({"Notice", "For you"}));
    for (QThread* t : threads)
        QCOMPARE(t, QCoreApplication::instance()->thread());
    // "Hide" on the first box reached the list: the MD5 digest of "Maintenance tonight".
    QCOMPARE(ManifestServer::hiddenList(), QByteArray("f8cbef8ef2f2deb8a53d53ef37056d69\n"));
}

void TestUpdateDialogs::presenterRunsOnGuiThreadOnly() {
    ManifestServer manifest;
    QThread* const gui = QCoreApplication::instance()->thread();
    QStringList titles;
    int offThread = 0;
    setUpdateDialogPresenter(onGuiThread([&](const UpdateDialog& dialog) {
        if (QThread::currentThread() != gui)
            ++offThread;
        std::unique_ptr<QMessageBox> box(makeUpdateDialogBox(dialog));
        if (box->thread() != gui)
            ++offThread;
        titles << box->windowTitle();
        return dialog.title == "For you";
    }));
    QCOMPARE(checkOnWorker(), std::string("https://example.test/release"));
    QCOMPARE(offThread, 0);
    QCOMPARE(titles, QStringList({"Notice", "For you"}));
    // The presenter's "Hide" on "For you": the MD5 digest of "Read the notes".
    QCOMPARE(ManifestServer::hiddenList(), QByteArray("1b8ae94a383580d2b1829c34f152df49\n"));
}

QTEST_MAIN(TestUpdateDialogs)
#include "test_update_dialogs.moc"
