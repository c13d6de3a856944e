// Model selector against the stand-in AI library: ticking, optimising,
// clearing, failures.
#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLayout>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include "GuiTestUtil.h"
#include "gui/formModel.h"
#include "gui/modelSelector.h"
#include "gui/waitingspinnerwidget.h"

namespace {

// A machine root with the stand-in AI library installed where the SDK puts it.
class AiRoot {
public:
    explicit AiRoot(const char* variant = nullptr) {
        const QString lib = variant == nullptr
                                ? QStringLiteral(KOV_STANDIN_DIR "/lib/libbh_ai.so")
                                : QStringLiteral(KOV_STANDIN_DIR "/variants/%1/libbh_ai.so").arg(variant);
        QDir().mkpath(dir.filePath("usr/local/kov/lib"));
        ok = QFile::copy(lib, dir.filePath("usr/local/kov/lib/libbh_ai.so"));
        qputenv("KOV_SYSROOT", dir.path().toUtf8());
        qputenv("KOV_STANDIN_AI_LOG", dir.filePath("ai.log").toUtf8());
        qunsetenv("KOV_STANDIN_AI_OPTIM_RESULT");
    }
    ~AiRoot() {
        qunsetenv("KOV_SYSROOT");
        qunsetenv("KOV_STANDIN_AI_LOG");
        qunsetenv("KOV_STANDIN_AI_OPTIM_RESULT");
    }
    QStringList optimizeCalls() const {
        QFile file(dir.filePath("ai.log"));
        QStringList calls;
        if (!file.open(QIODevice::ReadOnly))
            return calls;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.contains(" optimize "))
                calls << QString::fromUtf8(line);
        }
        return calls;
    }
    QStringList resourceFiles() const {
        return QDir(dir.filePath("usr/local/kov/resources")).entryList(QDir::Files | QDir::NoDotAndDotDot);
    }
    QTemporaryDir dir;
    bool ok = false;
};

QStringList optimizedRows(ModelSelector& selector) {
    QStringList names;
    for (FormModel* row : selector.rows()) {
        if (row->optimText() == "Optimized")
            names << row->nameText();
    }
    return names;
}

bool buttonsShown(ModelSelector& selector) {
    return !selector.findChild<QPushButton*>("optimButton")->isHidden() &&
           !selector.findChild<QPushButton*>("clearButton")->isHidden();
}

void pressOptimize(ModelSelector& selector) {
    QTest::mouseClick(selector.findChild<QPushButton*>("optimButton"), Qt::LeftButton);
}

}  // namespace

class TestModelSelector : public QObject {
    Q_OBJECT
private slots:
    void formAndRows();
    void nothingTickedReturnsAtOnce();
    void tickedModelsGetOptimized();
    void headerTicksAllButLeavesOptimizedRows();
    void clearAllAfterYesEmptiesThem();
    void failingModelDoesNotStopTheOthers();
    void missingModuleFailsOnlyItsModels();
    void optimOfAnEmptyListReportsTheEndTwice();
};

void TestModelSelector::formAndRows() {
    AiRoot root;
    QVERIFY(root.ok);
    ModelSelector selector(nullptr);
    QCOMPARE(selector.windowTitle(), QString("Model Optimizer"));
    QCOMPARE(selector.findChild<QPushButton*>("optimButton")->text(), QString("  Optimize selection  "));
    QCOMPARE(selector.findChild<QPushButton*>("clearButton")->text(), QString(" Clear all models "));
    QCOMPARE(selector.findChild<QLabel*>("optimInfoLabel")->text(), QString());
    for (const char* name : {"verticalLayout", "stack", "stack_2", "horizontalLayout", "progress_layout"}) {
        QVERIFY2(selector.findChild<QLayout*>(name) != nullptr, name);
    }
    QVERIFY(selector.findChild<QWidget*>("horizontalWidget") != nullptr);
    QCOMPARE(selector.getSpinner()->minimumSize(), QSize(40, 40));
    QVERIFY(selector.getSpinner()->isHidden());

    selector.fill();
    QCOMPARE(selector.rows().size(), size_t(14));
    QCOMPARE(selector.headerRow()->nameText(), QString("AI Model name"));
    QCOMPARE(selector.headerRow()->getOptimCheckbox()->text(), QString("Optimize all"));
    for (int i = 0; i < 14; ++i) {
        FormModel* row = selector.rows()[static_cast<size_t>(i)];
        QCOMPARE(static_cast<int>(row->getModel()), i);
        QCOMPARE(row->nameText(), QString::fromLatin1(ai::modelDisplayText(i)));
        QVERIFY(!row->isOptimized());
        QCOMPARE(row->optimText(), QString());
        QVERIFY(row->getOptimCheckbox()->isEnabled());
        QVERIFY(!row->needOptim());
    }
    // A second fill rebuilds rather than appends.
    selector.fill();
    QCOMPARE(selector.rows().size(), size_t(14));
    QCOMPARE(selector.findChild<QLayout*>("stack")->count(), 15);
}

void TestModelSelector::nothingTickedReturnsAtOnce() {
    AiRoot root;
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    QSignalSpy steps(&selector, &ModelSelector::optim_step);
    pressOptimize(selector);
    QVERIFY(!selector.isRunning());
    QVERIFY(buttonsShown(selector));
    QVERIFY(!selector.getSpinner()->isSpinning());
    QCOMPARE(steps.count(), 0);
    QVERIFY(root.optimizeCalls().isEmpty());
    QCOMPARE(selector.rows().size(), size_t(14));
}

void TestModelSelector::tickedModelsGetOptimized() {
    AiRoot root;
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    selector.rows()[0]->getOptimCheckbox()->setChecked(true);
    selector.rows()[11]->getOptimCheckbox()->setChecked(true);
    QVERIFY(selector.rows()[0]->needOptim());
    QSignalSpy steps(&selector, &ModelSelector::optim_step);
    QSignalSpy finished(&selector, &ModelSelector::optim_finished);
    QSignalSpy errors(&selector, &ModelSelector::optim_error);
    pressOptimize(selector);
    QVERIFY(selector.isRunning());
    QVERIFY(selector.getSpinner()->isSpinning());
    QVERIFY(selector.findChild<QPushButton*>("optimButton")->isHidden());
    QVERIFY(waitUntil([&] { return !selector.isRunning(); }, 20000));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(errors.count(), 0);
    QCOMPARE(steps.count(), 2);
    QCOMPARE(steps[0][0].toString(), QString::fromStdString(ai::getModelBaseName(0)));
    QCOMPARE(steps[1][0].toString(), QString::fromStdString(ai::getModelBaseName(11)));
    QVERIFY(buttonsShown(selector));
    QVERIFY(!selector.getSpinner()->isSpinning());
    QCOMPARE(selector.findChild<QLabel*>("optimInfoLabel")->text(), QString());
    QCOMPARE(optimizedRows(selector), QStringList({ai::modelDisplayText(0), ai::modelDisplayText(11)}));
    for (FormModel* row : selector.rows()) {
        if (!row->isOptimized())
            continue;
        QVERIFY(!row->getOptimCheckbox()->isEnabled());
        QVERIFY(row->getOptimCheckbox()->isChecked());
        QVERIFY(!row->needOptim());
    }
    QCOMPARE(root.optimizeCalls().size(), 2);
}

void TestModelSelector::headerTicksAllButLeavesOptimizedRows() {
    AiRoot root;
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    selector.rows()[3]->getOptimCheckbox()->setChecked(true);
    pressOptimize(selector);
    QVERIFY(waitUntil([&] { return !selector.isRunning(); }, 20000));
    QCOMPARE(optimizedRows(selector), QStringList({ai::modelDisplayText(3)}));

    selector.headerRow()->getOptimCheckbox()->setChecked(true);
    int needing = 0;
    for (FormModel* row : selector.rows()) {
        QVERIFY(row->getOptimCheckbox()->isChecked());
        if (row->needOptim())
            ++needing;
    }
    QCOMPARE(needing, 13);
    QVERIFY(selector.rows()[3]->isOptimized());
    QVERIFY(!selector.rows()[3]->getOptimCheckbox()->isEnabled());

    const int callsBefore = root.optimizeCalls().size();
    pressOptimize(selector);
    QVERIFY(waitUntil([&] { return !selector.isRunning(); }, 60000));
    QCOMPARE(root.optimizeCalls().size() - callsBefore, 13);  // the optimised one is not redone
    QCOMPARE(optimizedRows(selector).size(), 14);
}

void TestModelSelector::clearAllAfterYesEmptiesThem() {
    AiRoot root;
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    selector.rows()[1]->getOptimCheckbox()->setChecked(true);
    selector.rows()[12]->getOptimCheckbox()->setChecked(true);
    pressOptimize(selector);
    QVERIFY(waitUntil([&] { return !selector.isRunning(); }, 20000));
    QCOMPARE(optimizedRows(selector).size(), 2);
    QVERIFY(!root.resourceFiles().isEmpty());

    BoxAnswer answer;
    answerNextMessageBox("Yes", &answer);
    QTest::mouseClick(selector.findChild<QPushButton*>("clearButton"), Qt::LeftButton);
    QVERIFY(answer.answered);
    QCOMPARE(answer.title, QString("Warning"));
    QCOMPARE(answer.text,
             QString("All models will be deleted. Optimizations will be needed to run AI again."));
    QCOMPARE(selector.rows().size(), size_t(14));
    QVERIFY(optimizedRows(selector).isEmpty());
    QVERIFY(root.resourceFiles().isEmpty());
}

void TestModelSelector::failingModelDoesNotStopTheOthers() {
    AiRoot root;
    qputenv("KOV_STANDIN_AI_OPTIM_RESULT", "3");
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    for (int i : {0, 4, 9})
        selector.rows()[static_cast<size_t>(i)]->getOptimCheckbox()->setChecked(true);
    BoxAnswer answer;
    answerNextMessageBox("Ok", &answer);
    pressOptimize(selector);
    QVERIFY(waitUntil([&] { return !selector.isRunning() && answer.answered; }, 20000));
    QCOMPARE(answer.title, QString("Warning"));
    // The heading line, then each kept text right after its " => ".
    QCOMPARE(
        answer.text,
        QString("Errors occurred during the optimization process.\n"
                " => MULTI CLASS DETECTION encountered an issue during the optimization process : 3"
                " => HUMAN BODY MEDIUM DETECTION encountered an issue during the optimization process : 3"
                " => PERSON HEAD DETECTION encountered an issue during the optimization process : 3"));
    QCOMPARE(root.optimizeCalls().size(), 3);
    QVERIFY(optimizedRows(selector).isEmpty());
    QVERIFY(buttonsShown(selector));
}

void TestModelSelector::missingModuleFailsOnlyItsModels() {
    AiRoot root("no_disparity");
    QVERIFY(root.ok);
    ModelSelector selector(nullptr);
    selector.show();
    selector.fill();
    for (int i : {0, 12, 13})
        selector.rows()[static_cast<size_t>(i)]->getOptimCheckbox()->setChecked(true);
    BoxAnswer answer;
    answerNextMessageBox("Ok", &answer);
    pressOptimize(selector);
    QVERIFY(waitUntil([&] { return !selector.isRunning() && answer.answered; }, 20000));
    QCOMPARE(answer.text.count(" => "), 2);
    QVERIFY(answer.text.contains(QString(ai::modelDisplayText(12)) +
                                 " encountered an issue during the optimization process : 1"));
    QCOMPARE(optimizedRows(selector), QStringList({ai::modelDisplayText(0)}));
}

// The worker body given no rows signals the end as soon as it sees the empty
// list, and again when it reaches its last step.
void TestModelSelector::optimOfAnEmptyListReportsTheEndTwice() {
    AiRoot root;
    QVERIFY(root.ok);
    ModelSelector selector(nullptr);
    selector.fill();
    QSignalSpy finished(&selector, &ModelSelector::optim_finished);
    QSignalSpy errors(&selector, &ModelSelector::optim_error);
    selector.optim({}, "");
    QCOMPARE(finished.count(), 2);
    QCOMPARE(errors.count(), 0);
    QVERIFY(root.optimizeCalls().isEmpty());
    QVERIFY(!selector.isRunning());
    QCOMPARE(selector.rows().size(), size_t(14));
}

QTEST_MAIN(TestModelSelector)
#include "test_model_selector.moc"
