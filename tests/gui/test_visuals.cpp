// Small visual classes: the rotating status icon, the clickable label and the
// busy spinner.
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

#include <cmath>

#include "gui/qlabelclick.h"
#include "gui/statuswidget.h"
#include "gui/waitingspinnerwidget.h"

class TestVisuals : public QObject {
    Q_OBJECT
private slots:
    void statusWidgetGeometryAndDefaults();
    void statusWidgetRotationFromAnimationValue();
    void statusWidgetAnimatedTurnsAndStopsAtZero();
    void statusWidgetClick();
    void labelClick();
    void spinnerSettings();
    void spinnerStartStopRotate();
    void spinnerDistance();
    void spinnerLineColour();
    void spinnerPaintsLimeLines();
};

void TestVisuals::statusWidgetGeometryAndDefaults() {
    StatusWidget widget;
    QCOMPARE(widget.size(), QSize(24, 24));
    QCOMPARE(widget.minimumSize(), QSize(24, 24));
    QCOMPARE(widget.maximumSize(), QSize(24, 24));
    QCOMPARE(widget.animationDuration(), 2000);
    QVERIFY(!widget.isAnimated());
    QPixmap big(96, 48);
    big.fill(Qt::red);
    widget.setPixmap(big);
    QCOMPARE(widget.getPixmap().size(), QSize(24, 12));  // aspect ratio kept
}

void TestVisuals::statusWidgetRotationFromAnimationValue() {
    StatusWidget widget;
    widget.setAnimated(true, 1000, 359);
    widget.setAnimationValue(0);
    QCOMPARE(widget.getRotation(), 0);
    widget.setAnimationValue(359);
    QCOMPARE(widget.getRotation(), 360);
    widget.setAnimationValue(100);
    QCOMPARE(widget.getRotation(), static_cast<int>(360.0 / 359 * 100));  // 100.27 truncated
    widget.setAnimated(true, 1000, 90);
    widget.setAnimationValue(45);
    QCOMPARE(widget.getRotation(), 180);
    widget.setAnimated(false);
    QCOMPARE(widget.getRotation(), 0);
    widget.setRot(33);
    QCOMPARE(widget.getRotation(), 33);
}

void TestVisuals::statusWidgetAnimatedTurnsAndStopsAtZero() {
    StatusWidget widget;
    widget.show();
    widget.setAnimated(true, 750, 359);
    QVERIFY(widget.isAnimated());
    QCOMPARE(widget.animationDuration(), 750);
    QElapsedTimer timer;
    timer.start();
    while (widget.getRotation() == 0 && timer.elapsed() < 5000)
        QTest::qWait(10);
    QVERIFY(widget.getRotation() > 0);
    widget.setAnimated(false, 2000, 359);
    QVERIFY(!widget.isAnimated());
    QCOMPARE(widget.getRotation(), 0);
    QTest::qWait(100);
    QCOMPARE(widget.getRotation(), 0);
}

void TestVisuals::statusWidgetClick() {
    StatusWidget widget;
    widget.show();
    QSignalSpy clicked(&widget, &StatusWidget::clicked);
    QTest::mouseClick(&widget, Qt::LeftButton);
    QCOMPARE(clicked.count(), 1);
    QTest::mouseClick(&widget, Qt::RightButton);
    QCOMPARE(clicked.count(), 1);
}

void TestVisuals::labelClick() {
    QLabelClick label;
    label.setText("Processor");
    label.show();
    QSignalSpy clicked(&label, &QLabelClick::clicked);
    QTest::mouseClick(&label, Qt::LeftButton);
    QCOMPARE(clicked.count(), 1);
}

void TestVisuals::spinnerSettings() {
    WaitingSpinnerWidget spinner(nullptr, true, true);
    QCOMPARE(spinner.color(), QColor(217, 255, 66, 255));
    QCOMPARE(spinner.roundness(), 90.0);
    QCOMPARE(spinner.minimumTrailOpacity(), 3.141592653589793);
    QCOMPARE(spinner.trailFadePercentage(), 60.0);
    QCOMPARE(spinner.revolutionsPersSecond(), 1.0);
    QCOMPARE(spinner.numberOfLines(), 58);
    QCOMPARE(spinner.lineLength(), 8);
    QCOMPARE(spinner.lineWidth(), 3);
    QCOMPARE(spinner.innerRadius(), 6);
    QCOMPARE(spinner.size(), QSize(28, 28));  // (6 + 8) x 2
    spinner.setInnerRadius(10);
    QCOMPARE(spinner.size(), QSize(36, 36));

    WaitingSpinnerWidget dialog(Qt::ApplicationModal);
    QCOMPARE(dialog.windowModality(), Qt::ApplicationModal);
    QVERIFY(dialog.windowFlags() & Qt::FramelessWindowHint);
    QVERIFY(dialog.testAttribute(Qt::WA_TranslucentBackground));
}

void TestVisuals::spinnerStartStopRotate() {
    QWidget parent;
    parent.resize(200, 100);
    parent.show();
    WaitingSpinnerWidget spinner(&parent, true, true);
    spinner.rotate();  // not spinning: nothing moves
    QCOMPARE(spinner.currentCounter(), 0);
    spinner.start();
    QVERIFY(spinner.isSpinning());
    QVERIFY(spinner.isVisible());
    QVERIFY(!parent.isEnabled());
    QCOMPARE(spinner.pos(), QPoint(100 - 14, 50 - 14));
    for (int i = 0; i < 57; ++i)
        spinner.rotate();
    QCOMPARE(spinner.currentCounter(), 57);
    spinner.rotate();
    QCOMPARE(spinner.currentCounter(), 0);  // wraps at numberOfLines
    spinner.rotate();
    spinner.stop();
    QVERIFY(!spinner.isSpinning());
    QVERIFY(spinner.isHidden());
    QVERIFY(parent.isEnabled());
    spinner.start();
    QCOMPARE(spinner.currentCounter(), 0);  // a start resets the counter
    spinner.stop();

    // A spinner that leaves its parent alone.
    WaitingSpinnerWidget free(&parent, false, false);
    free.move(3, 4);
    free.start();
    QVERIFY(parent.isEnabled());
    QCOMPARE(free.pos(), QPoint(3, 4));
}

void TestVisuals::spinnerDistance() {
    QCOMPARE(WaitingSpinnerWidget::lineCountDistanceFromPrimary(5, 5, 58), 0);
    QCOMPARE(WaitingSpinnerWidget::lineCountDistanceFromPrimary(3, 5, 58), 2);
    QCOMPARE(WaitingSpinnerWidget::lineCountDistanceFromPrimary(6, 5, 58), 57);
    QCOMPARE(WaitingSpinnerWidget::lineCountDistanceFromPrimary(57, 0, 58), 1);
}

void TestVisuals::spinnerLineColour() {
    const QColor lime(217, 255, 66, 255);
    // Distance 0 keeps the colour as it is.
    QCOMPARE(WaitingSpinnerWidget::currentLineColor(0, 58, 60.0, M_PI, lime), lime);
    // threshold = ceil(57 * 0.6) = 35; beyond it the alpha is minOpacity / 100.
    const QColor far = WaitingSpinnerWidget::currentLineColor(36, 58, 60.0, M_PI, lime);
    QVERIFY(std::fabs(far.alphaF() - M_PI / 100.0) < 0.005);
    QCOMPARE(far.red(), 217);
    // Within it the alpha falls linearly.
    const double step = (1.0 - M_PI / 100.0) / 36.0;
    const QColor one = WaitingSpinnerWidget::currentLineColor(1, 58, 60.0, M_PI, lime);
    QVERIFY(std::fabs(one.alphaF() - (1.0 - step)) < 0.005);
    const QColor edge = WaitingSpinnerWidget::currentLineColor(35, 58, 60.0, M_PI, lime);
    QVERIFY(std::fabs(edge.alphaF() - (1.0 - 35 * step)) < 0.005);
    QVERIFY(one.alphaF() > edge.alphaF());
    // Clamped to 0..1.
    const QColor clamp = WaitingSpinnerWidget::currentLineColor(3, 10, 100.0, 500.0, QColor(0, 0, 0, 255));
    QVERIFY(clamp.alphaF() <= 1.0 && clamp.alphaF() >= 0.0);
}

void TestVisuals::spinnerPaintsLimeLines() {
    WaitingSpinnerWidget spinner(nullptr, false, false);
    spinner.start();
    QImage image(spinner.size(), QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    spinner.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    int lime = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() > 100 && c.green() > 200 && c.blue() < 120)
                ++lime;
        }
    }
    QVERIFY(lime > 0);
    QCOMPARE(image.pixelColor(image.width() / 2, image.height() / 2).alpha(), 0);  // hollow centre
}

QTEST_MAIN(TestVisuals)
#include "test_visuals.moc"
