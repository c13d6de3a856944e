// Node widget: visual states and icons, the fold-out, the update thread.
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <chrono>
#include <memory>

#include "FakeNode.h"
#include "GuiTestUtil.h"
#include "gui/colors.h"
#include "gui/diagnosticnodewidget.h"
#include "gui/statuswidget.h"

namespace {

QImage iconImage(const QString& path) {
    return QPixmap(path).scaled(24, 24, Qt::KeepAspectRatio, Qt::SmoothTransformation).toImage();
}

void finish(FakeNode& node, std::vector<DiagnosticNode::Message> messages) {
    QJsonObject unused;
    for (const auto& message : messages)
        node.addMessage(unused, message.level, message.text);
    node.setPercent(100.f);
}

}  // namespace

class TestNodeWidget : public QObject {
    Q_OBJECT
private slots:
    void stateTable_data();
    void stateTable();
    void idleAndRunning();
    void titleColourFollowsState();
    void noMessagesNoArrowAndClickOpensEmptyFoldOut();
    void rowsOneForEachMessageWithLevelIcon();
    void restartClosesAndEmptiesBeforeFirstPercent();
    void clickOnNameIconOrArrowOpens_data();
    void clickOnNameIconOrArrowOpens();
    void foldInHidesContainerAfterAnimation();
    void rotatingIconStopsAtZeroWhenNodeEnds();
    void updateThreadTicksAndEndsWithWidget();
    void messagesAddedAfterShownAreAppended();
};

void TestNodeWidget::stateTable_data() {
    QTest::addColumn<QVector<int>>("levels");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("icon");
    QTest::newRow("error") << QVector<int>{DIAGNOSTIC_ERROR} << 4 << ":/images/fail.png";
    QTest::newRow("error wins over all") << QVector<int>{3, 2, 1, 0, 4} << 4 << ":/images/fail.png";
    QTest::newRow("warning") << QVector<int>{DIAGNOSTIC_WARNING} << 3 << ":/images/warning.png";
    QTest::newRow("warning over info, valid") << QVector<int>{2, 3, 1} << 3 << ":/images/warning.png";
    QTest::newRow("info") << QVector<int>{DIAGNOSTIC_INFO} << 2 << ":/images/info.png";
    QTest::newRow("info over valid, notTested") << QVector<int>{3, 4, 2} << 2 << ":/images/info.png";
    QTest::newRow("valid only") << QVector<int>{DIAGNOSTIC_VALID} << 5 << ":/images/success.png";
    QTest::newRow("valid and notTested") << QVector<int>{3, 4} << 6 << ":/images/notTested.png";
    QTest::newRow("notTested only") << QVector<int>{DIAGNOSTIC_NOT_TESTED} << 6 << ":/images/notTested.png";
    QTest::newRow("none at all") << QVector<int>{} << 5 << ":/images/success.png";
    QTest::newRow("unknown level only") << QVector<int>{7} << 5 << ":/images/success.png";
}

void TestNodeWidget::stateTable() {
    QFETCH(QVector<int>, levels);
    QFETCH(int, state);
    QFETCH(QString, icon);
    FakeNode node("Processor");
    DiagnosticNodeWidget widget(nullptr, &node);
    std::vector<DiagnosticNode::Message> messages;
    for (int level : levels)
        messages.push_back({static_cast<DIAGNOSTIC_MESSAGE_LEVEL>(level), "text"});
    finish(node, messages);
    widget.updateUi();
    QCOMPARE(DiagnosticNodeWidget::stateOf(&node), state);
    QCOMPARE(widget.getVisualState(), state);
    QCOMPARE(DiagnosticNodeWidget::iconForState(state), icon);
    QVERIFY(!widget.getStatusIcon()->getPixmap().isNull());
    QCOMPARE(widget.getStatusIcon()->getPixmap().toImage(), iconImage(icon));
    QVERIFY(!widget.getStatusIcon()->isAnimated());
    QCOMPARE(widget.findChild<QLabel*>("percentLabel")->text(), QString());
}

void TestNodeWidget::idleAndRunning() {
    FakeNode node("Graphics Card");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.updateUi();
    QCOMPARE(widget.getVisualState(), 0);
    QVERIFY(widget.getStatusIcon()->getPixmap().isNull());
    QCOMPARE(widget.findChild<QLabel*>("textLabel")->text(), QString("Graphics Card"));

    node.setPercent(42.7f);
    widget.updateUi();
    QCOMPARE(widget.getVisualState(), 1);
    QCOMPARE(widget.getStatusIcon()->getPixmap().toImage(), iconImage(":/images/loading.png"));
    QVERIFY(widget.getStatusIcon()->isAnimated());
    QCOMPARE(widget.getStatusIcon()->animationDuration(), 750);
    QCOMPARE(widget.findChild<QLabel*>("percentLabel")->text(), QString("42%"));
    QVERIFY(widget.findChild<QPushButton*>("showIssuesButton")->isHidden());

    // 100 is finished, not running.
    node.setPercent(100.f);
    widget.updateUi();
    QCOMPARE(widget.getVisualState(), 5);
    QCOMPARE(widget.findChild<QLabel*>("percentLabel")->text(), QString());
}

void TestNodeWidget::titleColourFollowsState() {
    FakeNode red("A"), warn("B"), green("C"), plain("D");
    DiagnosticNodeWidget wRed(nullptr, &red), wWarn(nullptr, &warn), wGreen(nullptr, &green),
        wPlain(nullptr, &plain);
    finish(red, {{DIAGNOSTIC_ERROR, "e"}});
    finish(warn, {{DIAGNOSTIC_WARNING, "w"}});
    finish(green, {{DIAGNOSTIC_VALID, "v"}});
    finish(plain, {{DIAGNOSTIC_NOT_TESTED, "n"}});
    for (auto* w : {&wRed, &wWarn, &wGreen, &wPlain})
        w->updateUi();
    auto sheet = [](DiagnosticNodeWidget& w) { return w.findChild<QLabel*>("textLabel")->styleSheet(); };
    QVERIFY(sheet(wRed).contains(clr::red));
    QVERIFY(sheet(wWarn).contains(clr::yellow));
    QVERIFY(sheet(wGreen).contains(clr::green));
    QVERIFY(sheet(wPlain).contains(clr::bh_pearl));
}

void TestNodeWidget::noMessagesNoArrowAndClickOpensEmptyFoldOut() {
    FakeNode node("Devices");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.resize(480, 200);
    widget.show();
    finish(node, {});
    widget.updateUi();
    auto* arrow = widget.findChild<QPushButton*>("showIssuesButton");
    auto* container = widget.findChild<QWidget*>("issuesContainer");
    QVERIFY(arrow->isHidden());
    QVERIFY(container->isHidden());

    QTest::mouseClick(widget.findChild<QLabel*>("textLabel"), Qt::LeftButton);
    QVERIFY(widget.isIssuesOpen());
    QVERIFY(!container->isHidden());
    QCOMPARE(widget.getIssuesLayout()->count(), 0);
    QVERIFY(arrow->isHidden());
}

void TestNodeWidget::rowsOneForEachMessageWithLevelIcon() {
    FakeNode node("KOV SDK");
    DiagnosticNodeWidget widget(nullptr, &node);
    QSignalSpy notified(&widget, &DiagnosticNodeWidget::s_notifyUpdated);
    const std::vector<DiagnosticNode::Message> messages = {
        {DIAGNOSTIC_ERROR, "broken <b>here</b>"},
        {DIAGNOSTIC_WARNING, "slow"},
        {DIAGNOSTIC_INFO, "note"},
        {DIAGNOSTIC_VALID, "fine <a href='https://example.org' style='color: #d9ff42;'>link</a>"},
        {DIAGNOSTIC_NOT_TESTED, "skipped"},
    };
    // Messages are not shown while the node runs.
    node.setPercent(50.f);
    QJsonObject unused;
    node.addMessage(unused, DIAGNOSTIC_ERROR, "early");
    widget.updateUi();
    QCOMPARE(widget.getShownMessages(), 0);
    node.messages.clear();

    finish(node, messages);
    widget.updateUi();
    QCOMPARE(widget.getShownMessages(), 5);
    QCOMPARE(widget.getIssuesLayout()->count(), 5);
    QVERIFY(!widget.findChild<QPushButton*>("showIssuesButton")->isHidden());
    QVERIFY(notified.count() >= 1);

    const QStringList icons = {":/images/fail.png", ":/images/warning.png", ":/images/info.png",
                               ":/images/success.png", ":/images/info.png"};
    for (int i = 0; i < 5; ++i) {
        QLayout* row = widget.getIssuesLayout()->itemAt(i)->layout();
        QVERIFY(row != nullptr);
        auto* icon = qobject_cast<QLabel*>(row->itemAt(0)->widget());
        auto* text = qobject_cast<QLabel*>(row->itemAt(1)->widget());
        QVERIFY(icon && text);
        QVERIFY(icon->maximumWidth() <= 20 && icon->maximumHeight() <= 20);
        QCOMPARE(icon->pixmap(Qt::ReturnByValue).toImage(),
                 QPixmap(icons[i]).scaled(20, 20, Qt::KeepAspectRatio, Qt::SmoothTransformation).toImage());
        QCOMPARE(text->text(), QString::fromStdString(messages[static_cast<size_t>(i)].text));
        QVERIFY(text->wordWrap());
        QVERIFY(text->openExternalLinks());
    }
    // A further poll adds nothing.
    widget.updateUi();
    QCOMPARE(widget.getIssuesLayout()->count(), 5);
}

void TestNodeWidget::restartClosesAndEmptiesBeforeFirstPercent() {
    FakeNode node("Processor");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.resize(480, 300);
    widget.show();
    finish(node, {{DIAGNOSTIC_ERROR, "one"}, {DIAGNOSTIC_WARNING, "two"}});
    widget.updateUi();
    widget.onShowIssuesClick();
    QVERIFY(widget.isIssuesOpen());
    auto* container = widget.findChild<QWidget*>("issuesContainer");
    QVERIFY(!container->isHidden());

    // What the window does on a restart, then the worker's first step.
    node.setPercent(0.f);
    node.messages.clear();
    node.setPercent(25.f);
    QSignalSpy notified(&widget, &DiagnosticNodeWidget::s_notifyUpdated);
    widget.updateUi();
    QCOMPARE(widget.findChild<QLabel*>("percentLabel")->text(), QString("25%"));
    QVERIFY(!widget.isIssuesOpen());
    QVERIFY(container->isHidden());
    QCOMPARE(widget.getIssuesLayout()->count(), 0);
    QCOMPARE(widget.getShownMessages(), 0);
    QVERIFY(notified.count() >= 1);
    QCOMPARE(widget.getVisualState(), 1);
}

void TestNodeWidget::clickOnNameIconOrArrowOpens_data() {
    QTest::addColumn<QString>("target");
    QTest::newRow("name") << "name";
    QTest::newRow("icon") << "icon";
    QTest::newRow("arrow") << "arrow";
}

void TestNodeWidget::clickOnNameIconOrArrowOpens() {
    QFETCH(QString, target);
    FakeNode node("Camera Test");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.resize(480, 300);
    widget.show();
    finish(node, {{DIAGNOSTIC_INFO, "a"}, {DIAGNOSTIC_VALID, "b"}});
    widget.updateUi();
    QWidget* clickOn = nullptr;
    if (target == "name")
        clickOn = widget.findChild<QLabel*>("textLabel");
    if (target == "icon")
        clickOn = widget.getStatusIcon();
    if (target == "arrow")
        clickOn = widget.findChild<QPushButton*>("showIssuesButton");
    QVERIFY(clickOn != nullptr && clickOn->isVisible());
    QTest::mouseClick(clickOn, Qt::LeftButton);
    QVERIFY(widget.isIssuesOpen());
    auto* container = widget.findChild<QWidget*>("issuesContainer");
    QVERIFY(container->isVisible());
    // The animation runs up to the measured height and leaves it visible.
    QVERIFY(waitUntil([&] { return container->height() > 0 && container->maximumHeight() > 0; }, 2000));
    QTest::qWait(120);
    QVERIFY(container->isVisible());
    QVERIFY(container->height() > 20);
}

void TestNodeWidget::foldInHidesContainerAfterAnimation() {
    FakeNode node("Devices");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.resize(480, 300);
    widget.show();
    finish(node, {{DIAGNOSTIC_WARNING, "w"}});
    widget.updateUi();
    widget.onShowIssuesClick();
    QTest::qWait(120);
    widget.onShowIssuesClick();
    QVERIFY(!widget.isIssuesOpen());
    auto* container = widget.findChild<QWidget*>("issuesContainer");
    QVERIFY(waitUntil([&] { return container->isHidden(); }, 2000));
    QCOMPARE(container->maximumHeight(), 16777215);
}

void TestNodeWidget::rotatingIconStopsAtZeroWhenNodeEnds() {
    FakeNode node("AI Models");
    DiagnosticNodeWidget widget(nullptr, &node);
    widget.show();
    node.setPercent(10.f);
    widget.updateUi();
    StatusWidget* icon = widget.getStatusIcon();
    QVERIFY(icon->isAnimated());
    QVERIFY(waitUntil([&] { return icon->getRotation() != 0; }, 3000));
    node.setPercent(100.f);
    widget.updateUi();
    QVERIFY(!icon->isAnimated());
    QCOMPARE(icon->getRotation(), 0);
    QTest::qWait(100);
    QCOMPARE(icon->getRotation(), 0);
}

void TestNodeWidget::updateThreadTicksAndEndsWithWidget() {
    const int before = DiagnosticNodeWidget::liveUpdateThreads();
    FakeNode node("KOV SDK");
    auto widget = std::make_unique<DiagnosticNodeWidget>(nullptr, &node);
    QVERIFY(waitUntil([&] { return DiagnosticNodeWidget::liveUpdateThreads() == before + 1; }, 2000));
    QSignalSpy ticks(widget.get(), &DiagnosticNodeWidget::s_updateUi);
    QTest::qWait(500);
    QVERIFY2(ticks.count() >= 3, qPrintable(QString::number(ticks.count())));
    // The widget polls the node on its own: no explicit updateUi here.
    node.setPercent(60.f);
    QVERIFY(waitUntil([&] { return widget->getVisualState() == 1; }, 2000));
    const auto start = std::chrono::steady_clock::now();
    widget.reset();
    const auto tookMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    QCOMPARE(DiagnosticNodeWidget::liveUpdateThreads(), before);
    QVERIFY2(tookMs < 2000, qPrintable(QString::number(tookMs)));
}

void TestNodeWidget::messagesAddedAfterShownAreAppended() {
    FakeNode node("Camera Test");
    DiagnosticNodeWidget widget(nullptr, &node);
    finish(node, {{DIAGNOSTIC_INFO, "first"}});
    widget.updateUi();
    QCOMPARE(widget.getIssuesLayout()->count(), 1);
    QJsonObject unused;
    node.addMessage(unused, DIAGNOSTIC_ERROR, "second");
    widget.updateUi();
    QCOMPARE(widget.getIssuesLayout()->count(), 2);
    QCOMPARE(widget.getVisualState(), 4);
}

QTEST_MAIN(TestNodeWidget)
#include "test_node_widget.moc"
