#include "diagnostic/DMesgLogger.h"

#include <signal.h>
#include <unistd.h>

#include <QDate>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <algorithm>
#include <thread>

#include "utils/SysPath.h"

namespace {

const char* const kBannerLine = "####################################";
const char* const kClosingLine = "#########################";
// How long a killed command may take to be reaped.
constexpr int kReapMs = 5000;

// The driver modules of the GMSL cameras; %1 is the kernel release. The last
// two lines of the list carry a blank before the arrow.
struct DriverModule {
    const char* path;
    const char* mark;
};
const DriverModule kDriverModules[] = {
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/kovq/max96712.ko", "==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/kovq/bh_kovq.ko", "==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/kovs4k/bh_kovqs_uhd.ko", "==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/max96712/max96712.ko", "==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/max9296/max9296.ko", "==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/max96712/bh_max96712.ko", " ==> exists"},
    {"/usr/lib/modules/%1/kernel/drivers/brennhaven/max9296/bh_max9296.ko", " ==> exists"},
};

int toMs(std::chrono::milliseconds d) {
    return static_cast<int>(std::clamp<long long>(d.count(), 0, 0x7fffffff));
}

// A fixed path of the machine as the shell sees it: unchanged on a real run;
// under a test root, the rooted path in single quotes (a glob may follow).
QString shellPath(const std::string& absolutePath) {
    const std::string rooted = utils::sysPath(absolutePath);
    if (rooted == absolutePath)
        return QString::fromStdString(absolutePath);
    QString quoted = QString::fromStdString(rooted);
    quoted.replace("'", "'\\''");
    return "'" + quoted + "'";
}

}  // namespace

void DMesgLogger::GroupProcess::setupChildProcess() {
    ::setpgid(0, 0);
}

DMesgLogger::DMesgLogger() : DiagnosticNode("Log Kernel Trace") {}

DMesgLogger::~DMesgLogger() = default;

void DMesgLogger::pause(std::chrono::milliseconds length) {
    if (length.count() > 0)
        std::this_thread::sleep_for(length);
}

DMesgLogger::GroupProcess& DMesgLogger::process() {
    if (!process_ || process_->thread() != QThread::currentThread())
        process_ = std::make_unique<GroupProcess>();
    return *process_;
}

void DMesgLogger::killProcessGroup() {
    GroupProcess& p = process();
    if (p.state() == QProcess::NotRunning)
        return;
    // The child still runs, so its process group is ours: kill the pipeline
    // it started too, not only the shell.
    const qint64 pid = p.processId();
    if (pid > 0)
        ::kill(-static_cast<pid_t>(pid), SIGKILL);
    p.kill();
    p.waitForFinished(kReapMs);
}

QByteArray DMesgLogger::startBlockingProcess(const QString& workingDirectory, const QString& command) {
    QStringList words = QProcess::splitCommand(command);
    if (words.isEmpty())
        return {};
    const QString program = words.takeFirst();
    GroupProcess& p = process();
    p.setWorkingDirectory(workingDirectory);
    p.start(program, words, QIODevice::ReadWrite);
    p.waitForStarted(toMs(startTimeout));
    p.waitForFinished(toMs(finishTimeout));
    killProcessGroup();
    return p.readAllStandardOutput() + p.readAllStandardError();
}

QString DMesgLogger::readKernelRelease() {
    GroupProcess& p = process();
    p.setWorkingDirectory("./");
    p.start("uname", {"-r"}, QIODevice::ReadWrite);
    p.waitForStarted(toMs(startTimeout));
    p.waitForFinished(toMs(finishTimeout));
    killProcessGroup();
    p.readAllStandardError();
    return QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed();
}

void DMesgLogger::appendBanner(const char* title) {
    text += '\n';
    text += kBannerLine;
    text += '\n';
    text += title;
    text += '\n';
    text += kBannerLine;
    text += '\n';
}

void DMesgLogger::appendOutput(const QByteArray& output) {
    text += output;
    if (!output.isEmpty() && !output.endsWith('\n'))
        text += '\n';
}

void DMesgLogger::runBlock(float progress, const char* title, const QString& command) {
    setPercent(progress);
    appendBanner(title);
    appendOutput(startBlockingProcess("./", command));
    pause(blockPause);
}

void DMesgLogger::appendDriverList(const QString& kernelRelease) {
    appendBanner("############ Driver list ###########");
    for (const DriverModule& module : kDriverModules) {
        const QString path = QString(module.path).arg(kernelRelease);
        if (QFile::exists(QString::fromStdString(utils::sysPath(path.toStdString())))) {
            text += path.toLocal8Bit();
            text += module.mark;
            text += '\n';
        }
    }
}

void DMesgLogger::appendI2cBlock(float progress, int bus) {
    const QByteArray title = QString("############ I2C Trace /dev/i2C-%1 #############").arg(bus).toLatin1();
    runBlock(progress, title.constData(), QString("i2cdetect -y -r %1").arg(bus));
}

void DMesgLogger::writeLogFile() {
    QString name = "./dmesg.log";
    for (int n = 1; QFile::exists(name); ++n)
        name = QString("./dmesg_%1.log").arg(n);
    writtenFile.clear();
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly))
        return;  // nowhere to write: given up without a word
    file.write(text);
    file.close();
    writtenFile = name.toStdString();
}

void DMesgLogger::runDiagnostic(QJsonObject& /*result*/) {
    text.clear();
    const QString release = readKernelRelease();
    text += "Created: " + QDate::currentDate().toString(Qt::ISODate).toLatin1() + "\n";

    runBlock(0, "############ DMESG [KOVQ] LOG #############", "bash -c \"dmesg | grep  kovq\"");
    runBlock(5, "############ DMESG [MAX9x] LOG #############", "bash -c \"dmesg | grep  max9\"");
    runBlock(10, "############ DMESG [PCA] LOG #############", "bash -c \"dmesg | grep  pca\"");
    runBlock(15, "############ DMESG [DTS] LOG #############", "bash -c \"dmesg | grep  dts\"");
    runBlock(20, "############ DTB list original  ###########",
             "bash -c \"ls " + shellPath("/boot/dtb/") + "*\"");
    runBlock(20, "############ DTB list BHaven     ###########",
             "bash -c \"ls " + shellPath("/boot/brennhaven/") + "*\"");
    runBlock(25, "############ EXTlinux file      ###########",
             "bash -c \"cat " + shellPath("/boot/extlinux/extlinux.conf") + "\"");
    runBlock(25, "############ Jetpack      ###########",
             "bash -c \"cat " + shellPath("/etc/nv_tegra_release") + "\"");
    setPercent(28);
    appendBanner("############ Dpkg list      ###########");
    appendOutput(startBlockingProcess("./", "bash -c \"dpkg -l | grep kovq\""));
    appendOutput(startBlockingProcess("./", "bash -c \"dpkg -l | grep kovs\""));
    pause(blockPause);

    setPercent(30);
    appendDriverList(release);
    setPercent(40);
    pause(blockPause);

    runBlock(40, "############ KOVQ Daemon Status LS #############", "systemctl status kov_q_daemon.service");
    setPercent(50);
    runBlock(50, "############ I2C Trace  [-l]       #############", "i2cdetect -l");
    setPercent(55);
    for (int bus = 0; bus <= 10; ++bus)
        appendI2cBlock(static_cast<float>(60 + 3 * bus), bus);
    setPercent(80);
    for (int bus = 30; bus <= 33; ++bus)
        appendI2cBlock(static_cast<float>(80 + 5 * (bus - 30)), bus);

    text += '\n';
    text += kClosingLine;
    text += '\n';
    setPercent(100);
    pause(finalPause);
    writeLogFile();
    process_.reset();
}
