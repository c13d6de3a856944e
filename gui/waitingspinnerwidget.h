#pragma once

#include <QColor>
#include <QWidget>

// The busy spinner of the model selector: a ring of short rounded lines whose
// brightness trails behind the current one. It turns when rotate() is called.
class WaitingSpinnerWidget : public QWidget {
    Q_OBJECT
public:
    explicit WaitingSpinnerWidget(QWidget* parent = nullptr, bool centerOnParent = true,
                                  bool disableParentWhenSpinning = true);
    // A top-level spinner: a frameless dialog with a translucent background.
    WaitingSpinnerWidget(Qt::WindowModality modality, QWidget* parent = nullptr, bool centerOnParent = true,
                         bool disableParentWhenSpinning = true);

    void setColor(QColor color);
    void setRoundness(qreal roundness);
    void setMinimumTrailOpacity(qreal minimumTrailOpacity);
    void setTrailFadePercentage(qreal trail);
    void setRevolutionsPerSecond(qreal revolutionsPerSecond);
    void setNumberOfLines(int lines);
    void setLineLength(int length);
    void setLineWidth(int width);
    void setInnerRadius(int radius);

    QColor color() const { return _color; }
    qreal roundness() const { return _roundness; }
    qreal minimumTrailOpacity() const { return _minimumTrailOpacity; }
    qreal trailFadePercentage() const { return _trailFadePercentage; }
    qreal revolutionsPersSecond() const { return _revolutionsPerSecond; }
    int numberOfLines() const { return _numberOfLines; }
    int lineLength() const { return _lineLength; }
    int lineWidth() const { return _lineWidth; }
    int innerRadius() const { return _innerRadius; }
    int currentCounter() const { return _currentCounter; }
    bool isSpinning() const { return _isSpinning; }

    static int lineCountDistanceFromPrimary(int current, int primary, int totalNrOfLines);
    static QColor currentLineColor(int distance, int totalNrOfLines, qreal trailFadePerc, qreal minOpacity,
                                   QColor color);

public slots:
    void start();
    void stop();
    void rotate();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void initialize();
    void updateSize();
    void updatePosition();

    QColor _color;
    qreal _roundness = 0;
    qreal _minimumTrailOpacity = 0;
    qreal _trailFadePercentage = 0;
    qreal _revolutionsPerSecond = 0;
    int _numberOfLines = 0;
    int _lineLength = 0;
    int _lineWidth = 0;
    int _innerRadius = 0;
    int _currentCounter = 0;
    bool _isSpinning = false;
    bool _centerOnParent;
    bool _disableParentWhenSpinning;
};
