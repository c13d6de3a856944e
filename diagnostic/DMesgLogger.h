#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>

#include <chrono>
#include <memory>
#include <string>

#include "diagnostic/DiagnosticNode.h"

// "Log Kernel Trace": gathers what the GMSL stack leaves in the system (kernel
// messages, device-tree files, boot configuration, packages, driver modules,
// the daemon's status, an I2C bus scan) into one text file for support,
// "./dmesg.log" or the first free "./dmesg_N.log". Runs alone, on the command
// line ("-dmesg"). It judges nothing and adds no message.
//
// Commands are found through PATH. Fixed paths of the machine (/boot, /etc,
// the driver modules) go through utils::sysPath, so a test tree can hold them.
class DMesgLogger : public DiagnosticNode {
public:
    DMesgLogger();
    ~DMesgLogger();

    void runDiagnostic(QJsonObject& result) override;

    // Runs `command` (program and arguments, double quotes group words) in
    // `workingDirectory` and returns its standard output followed by its
    // standard error. A command that does not start within startTimeout, or
    // does not end within finishTimeout, gives what it had written by then; a
    // command still running is killed with everything it started.
    QByteArray startBlockingProcess(const QString& workingDirectory, const QString& command);

    // Bounds of one command.
    std::chrono::milliseconds startTimeout{30000};
    std::chrono::milliseconds finishTimeout{30000};
    // Pause between two blocks, and after the last progress step.
    std::chrono::milliseconds blockPause{100};
    std::chrono::milliseconds finalPause{200};

    // The file the last run wrote; empty when it could not be written.
    std::string writtenFile;

    // A QProcess whose child leads a process group of its own, so that a hung
    // pipeline can be killed as a whole.
    class GroupProcess : public QProcess {
    protected:
        void setupChildProcess() override;
    };

private:
    void pause(std::chrono::milliseconds length);
    void appendBanner(const char* title);
    void appendOutput(const QByteArray& output);
    void runBlock(float progress, const char* title, const QString& command);
    void appendDriverList(const QString& kernelRelease);
    void appendI2cBlock(float progress, int bus);
    QString readKernelRelease();
    void writeLogFile();
    // The process of the calling thread (made there: a QObject belongs to the
    // thread that makes it).
    GroupProcess& process();
    void killProcessGroup();

    std::unique_ptr<GroupProcess> process_;
    QByteArray text;
};
