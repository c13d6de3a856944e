// "Log Kernel Trace" with stand-in commands on PATH and a machine tree under
// KOV_SYSROOT: the file's blocks, banners and order, the file name, the
// bounds of a hanging command, and the progress values.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QString>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "diagnostic/DMesgLogger.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const char* const kRelease = "5.15.136-tegra";
const std::string kModules = std::string("/usr/lib/modules/") + kRelease + "/kernel/drivers/brennhaven/";

void writeFile(const std::string& path, const std::string& content, bool executable = false) {
    QDir().mkpath(QString::fromStdString(path.substr(0, path.find_last_of('/'))));
    std::ofstream(path, std::ios::binary) << content;
    if (executable)
        ::chmod(path.c_str(), 0755);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

// The three banner lines of a block.
std::string banner(const std::string& title) {
    const std::string line = "####################################\n";
    return line + title + "\n" + line;
}

// The text between the banner of `title` and the next blank line + banner
// (or the closing line): the block's output.
std::string blockOf(const std::string& file, const std::string& title) {
    const std::string head = banner(title);
    const size_t start = file.find(head);
    if (start == std::string::npos)
        return "<no block " + title + ">";
    const size_t from = start + head.size();
    size_t end = file.find("\n####################################\n", from);
    const size_t closing = file.find("\n#########################\n", from);
    if (end == std::string::npos || (closing != std::string::npos && closing < end))
        end = closing;
    return file.substr(from, end - from);
}

// A process that is gone or a zombie waiting for its reaper.
bool processEnded(pid_t pid) {
    if (::kill(pid, 0) != 0)
        return errno == ESRCH;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string all;
    std::getline(stat, all);
    const size_t paren = all.rfind(')');
    return paren != std::string::npos && paren + 2 < all.size() && all[paren + 2] == 'Z';
}

class DMesgFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        root = dir.path().toStdString() + "/root";
        bin = dir.path().toStdString() + "/bin";
        work = dir.path() + "/work";
        QDir().mkpath(QString::fromStdString(root));
        QDir().mkpath(QString::fromStdString(bin));
        QDir().mkpath(work);
        oldCwd = QDir::currentPath();
        ASSERT_TRUE(QDir::setCurrent(work));
        setenv("KOV_SYSROOT", root.c_str(), 1);
        oldPath = std::getenv("PATH") ? std::getenv("PATH") : "";
        setenv("PATH", (bin + ":" + oldPath).c_str(), 1);
        node.blockPause = milliseconds(0);
        node.finalPause = milliseconds(0);
        node.startTimeout = milliseconds(10000);
        node.finishTimeout = milliseconds(10000);
    }
    void TearDown() override {
        QDir::setCurrent(oldCwd);
        unsetenv("KOV_SYSROOT");
        setenv("PATH", oldPath.c_str(), 1);
    }
    void standIn(const std::string& name, const std::string& body) {
        writeFile(bin + "/" + name, "#!/bin/sh\n" + body, true);
    }
    // A Jetson with the GMSL stack: kernel messages of its drivers, device
    // trees, boot configuration, packages, three of the seven modules, the
    // daemon, and I2C buses that answer with their number.
    void gmslMachine() {
        standIn("uname",
                std::string("if [ \"$1\" = \"-r\" ]; then echo ") + kRelease + "; else echo Linux; fi\n");
        standIn("dmesg",
                "echo '[    1.0] Booting Linux'\n"
                "echo '[    5.1] kovq 30-0055: probe ok'\n"
                "echo '[    5.2] max96712 30-0029: link locked'\n"
                "echo '[    5.3] pca953x 1-0020: gpio expander'\n"
                "echo '[    0.1] OF: fdt: dts model Jetson'\n");
        standIn("dpkg",
                "echo 'ii  kovq-driver  1.2.0  arm64  KOV-Q camera driver'\n"
                "echo 'ii  kovs-tools   0.9.1  arm64  KOV-S tools'\n");
        standIn("systemctl",
                "echo \"kov_q_daemon.service - daemon ($1 $2)\"\necho '   Active: active (running)'\n");
        standIn("i2cdetect",
                "if [ \"$1\" = \"-l\" ]; then echo 'i2c-30\ti2c\tmux-30\tI2C adapter'; exit 0; fi\n"
                "echo \"scan of bus $3 ($1 $2)\"\n");
        writeFile(root + "/boot/dtb/kernel_tegra234.dtb", "dtb");
        writeFile(root + "/boot/brennhaven/tegra234-kovq.dtbo", "dtbo");
        writeFile(root + "/boot/extlinux/extlinux.conf", "LABEL primary\n  FDT /boot/brennhaven/x.dtb\n");
        writeFile(root + "/etc/nv_tegra_release", "# R35 (release), REVISION: 4.1\n");
        writeFile(root + kModules + "kovq/max96712.ko", "");
        writeFile(root + kModules + "kovq/bh_kovq.ko", "");
        writeFile(root + kModules + "max9296/bh_max9296.ko", "");
    }
    // A desktop PC: no GMSL stack, no I2C access, no daemon.
    void plainPc() {
        standIn("uname", "if [ \"$1\" = \"-r\" ]; then echo 6.1.0-18-amd64; else echo Linux; fi\n");
        standIn("dmesg", "echo '[    0.0] Linux version 6.1.0'\necho '[    1.2] usb 1-1: new device'\n");
        standIn("dpkg", "echo 'ii  bash  5.2.15  amd64  GNU Bourne Again SHell'\n");
        standIn("systemctl", "echo 'Unit kov_q_daemon.service could not be found.' >&2\nexit 4\n");
        standIn("i2cdetect",
                "if [ \"$1\" = \"-l\" ]; then exit 0; fi\n"
                "echo \"Error: Could not open file /dev/i2c-$3: No such file or directory\" >&2\nexit 1\n");
    }
    std::string runAndRead() {
        QJsonObject result;
        node.runDiagnostic(result);
        EXPECT_TRUE(result.isEmpty());
        EXPECT_TRUE(node.messages.empty());
        EXPECT_EQ(node.getPercent(), 100.f);
        return readFile(QString::fromStdString(node.writtenFile)).toStdString();
    }

    QTemporaryDir dir;
    std::string root, bin, oldPath;
    QString work, oldCwd;
    DMesgLogger node;
};

}  // namespace

TEST_F(DMesgFixture, NameIsTheReportKey) {
    EXPECT_EQ(node.name, "Log Kernel Trace");
}

TEST_F(DMesgFixture, GmslMachineFileHoldsEveryBlockInOrder) {
    gmslMachine();
    const std::string file = runAndRead();
    EXPECT_EQ(node.writtenFile, "./dmesg.log");
    ASSERT_TRUE(QFile::exists(work + "/dmesg.log"));

    const std::string created = "Created: " + QDate::currentDate().toString(Qt::ISODate).toStdString() + "\n";
    EXPECT_EQ(file.rfind(created, 0), 0u) << file.substr(0, 40);

    const std::vector<std::string> titles = {
        "############ DMESG [KOVQ] LOG #############",
        "############ DMESG [MAX9x] LOG #############",
        "############ DMESG [PCA] LOG #############",
        "############ DMESG [DTS] LOG #############",
        "############ DTB list original  ###########",
        "############ DTB list BHaven     ###########",
        "############ EXTlinux file      ###########",
        "############ Jetpack      ###########",
        "############ Dpkg list      ###########",
        "############ Driver list ###########",
        "############ KOVQ Daemon Status LS #############",
        "############ I2C Trace  [-l]       #############",
    };
    std::vector<std::string> all = titles;
    for (int bus : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 30, 31, 32, 33})
        all.push_back("############ I2C Trace /dev/i2C-" + std::to_string(bus) + " #############");
    size_t at = 0;
    for (const std::string& title : all) {
        const size_t found = file.find(banner(title), at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << title;
        at = found + 1;
    }
    for (int bus : {11, 20, 29, 34})
        EXPECT_EQ(file.find("/dev/i2C-" + std::to_string(bus) + " "), std::string::npos) << bus;

    EXPECT_EQ(blockOf(file, titles[0]), "[    5.1] kovq 30-0055: probe ok\n");
    EXPECT_EQ(blockOf(file, titles[1]), "[    5.2] max96712 30-0029: link locked\n");
    EXPECT_EQ(blockOf(file, titles[2]), "[    5.3] pca953x 1-0020: gpio expander\n");
    EXPECT_EQ(blockOf(file, titles[3]), "[    0.1] OF: fdt: dts model Jetson\n");
    EXPECT_EQ(blockOf(file, titles[4]), root + "/boot/dtb/kernel_tegra234.dtb\n");
    EXPECT_EQ(blockOf(file, titles[5]), root + "/boot/brennhaven/tegra234-kovq.dtbo\n");
    EXPECT_EQ(blockOf(file, titles[6]), "LABEL primary\n  FDT /boot/brennhaven/x.dtb\n");
    EXPECT_EQ(blockOf(file, titles[7]), "# R35 (release), REVISION: 4.1\n");
    EXPECT_EQ(
        blockOf(file, titles[8]),
        "ii  kovq-driver  1.2.0  arm64  KOV-Q camera driver\nii  kovs-tools   0.9.1  arm64  KOV-S tools\n");
    // Present modules only, in the list's order; the last two carry a blank
    // before the arrow.
    EXPECT_EQ(blockOf(file, titles[9]), kModules + "kovq/max96712.ko==> exists\n" + kModules +
                                            "kovq/bh_kovq.ko==> exists\n" + kModules +
                                            "max9296/bh_max9296.ko ==> exists\n");
    EXPECT_EQ(blockOf(file, titles[10]),
              "kov_q_daemon.service - daemon (status kov_q_daemon.service)\n   Active: active (running)\n");
    EXPECT_EQ(blockOf(file, titles[11]), "i2c-30\ti2c\tmux-30\tI2C adapter\n");
    EXPECT_EQ(blockOf(file, "############ I2C Trace /dev/i2C-0 #############"), "scan of bus 0 (-y -r)\n");
    EXPECT_EQ(blockOf(file, "############ I2C Trace /dev/i2C-33 #############"), "scan of bus 33 (-y -r)\n");

    const std::string closing = "\n#########################\n";
    ASSERT_GE(file.size(), closing.size());
    EXPECT_EQ(file.substr(file.size() - closing.size()), closing);
}

TEST_F(DMesgFixture, EveryDriverModuleOfTheListIsLookedFor) {
    gmslMachine();
    for (const char* module :
         {"kovs4k/bh_kovqs_uhd.ko", "max96712/max96712.ko", "max9296/max9296.ko", "max96712/bh_max96712.ko"})
        writeFile(root + kModules + module, "");
    const std::string file = runAndRead();
    EXPECT_EQ(blockOf(file, "############ Driver list ###########"),
              kModules + "kovq/max96712.ko==> exists\n" + kModules + "kovq/bh_kovq.ko==> exists\n" +
                  kModules + "kovs4k/bh_kovqs_uhd.ko==> exists\n" + kModules +
                  "max96712/max96712.ko==> exists\n" + kModules + "max9296/max9296.ko==> exists\n" +
                  kModules + "max96712/bh_max96712.ko ==> exists\n" + kModules +
                  "max9296/bh_max9296.ko ==> exists\n");
}

TEST_F(DMesgFixture, PlainPcStillGetsTheFileWithEmptyBlocks) {
    plainPc();
    const std::string file = runAndRead();
    EXPECT_EQ(node.writtenFile, "./dmesg.log");
    for (const char* title :
         {"############ DMESG [KOVQ] LOG #############", "############ DMESG [MAX9x] LOG #############",
          "############ DMESG [PCA] LOG #############", "############ DMESG [DTS] LOG #############",
          "############ Dpkg list      ###########", "############ Driver list ###########",
          "############ I2C Trace  [-l]       #############"})
        EXPECT_EQ(blockOf(file, title), "") << title;
    // Failures reach the file through standard error.
    EXPECT_EQ(blockOf(file, "############ KOVQ Daemon Status LS #############"),
              "Unit kov_q_daemon.service could not be found.\n");
    EXPECT_EQ(blockOf(file, "############ I2C Trace /dev/i2C-31 #############"),
              "Error: Could not open file /dev/i2c-31: No such file or directory\n");
    EXPECT_NE(blockOf(file, "############ DTB list original  ###########").find("/boot/dtb/"),
              std::string::npos);
    EXPECT_NE(blockOf(file, "############ Jetpack      ###########").find("/etc/nv_tegra_release"),
              std::string::npos);
}

TEST_F(DMesgFixture, ExistingLogsAreKeptAndTheFirstFreeNameIsTaken) {
    plainPc();
    writeFile(work.toStdString() + "/dmesg.log", "first run\n");
    writeFile(work.toStdString() + "/dmesg_1.log", "second run\n");
    const std::string file = runAndRead();
    EXPECT_EQ(node.writtenFile, "./dmesg_2.log");
    EXPECT_EQ(file.rfind("Created: ", 0), 0u);
    EXPECT_EQ(readFile(work + "/dmesg.log"), "first run\n");
    EXPECT_EQ(readFile(work + "/dmesg_1.log"), "second run\n");
    EXPECT_FALSE(QFile::exists(work + "/dmesg_3.log"));
}

TEST_F(DMesgFixture, AGapInTheNumbersIsFilledFirst) {
    plainPc();
    writeFile(work.toStdString() + "/dmesg.log", "a\n");
    writeFile(work.toStdString() + "/dmesg_2.log", "c\n");
    runAndRead();
    EXPECT_EQ(node.writtenFile, "./dmesg_1.log");
    EXPECT_EQ(readFile(work + "/dmesg_2.log"), "c\n");
}

TEST_F(DMesgFixture, AFileThatCannotBeOpenedIsGivenUpSilently) {
    plainPc();
    // A dangling link under the free name: opening it fails, even for root.
    ASSERT_EQ(::symlink((dir.path() + "/no/such/folder/file").toLocal8Bit().constData(),
                        (work + "/dmesg.log").toLocal8Bit().constData()),
              0);
    QJsonObject result;
    node.runDiagnostic(result);
    EXPECT_TRUE(node.writtenFile.empty());
    EXPECT_TRUE(node.messages.empty());
    EXPECT_TRUE(result.isEmpty());
    EXPECT_EQ(node.getPercent(), 100.f);
    EXPECT_EQ(QDir(work).entryList(QDir::Files | QDir::NoDotAndDotDot).size(), 0);
}

TEST_F(DMesgFixture, OutputIsStandardOutputThenStandardError) {
    EXPECT_EQ(node.startBlockingProcess("./", "sh -c \"echo err >&2; echo out\""), "out\nerr\n");
}

TEST_F(DMesgFixture, CommandRunsInTheGivenFolder) {
    EXPECT_EQ(node.startBlockingProcess(dir.path(), "pwd"), (dir.path() + "\n").toUtf8());
}

TEST_F(DMesgFixture, ACommandThatCannotStartGivesNothing) {
    EXPECT_EQ(node.startBlockingProcess("./", "no-such-command-kov-test --flag"), "");
    EXPECT_EQ(node.startBlockingProcess("./", ""), "");
}

TEST_F(DMesgFixture, AHangingCommandCostsAtMostItsBoundsAndIsKilledWithItsChildren) {
    const std::string pidFile = dir.path().toStdString() + "/child.pid";
    standIn("hang", "echo partial\nsleep 60 &\necho $! > '" + pidFile + "'\nwait\n");
    node.startTimeout = milliseconds(2000);
    node.finishTimeout = milliseconds(300);
    const auto start = steady_clock::now();
    const QByteArray out = node.startBlockingProcess("./", "hang");
    const auto elapsed = steady_clock::now() - start;
    EXPECT_EQ(out, "partial\n");
    EXPECT_GE(elapsed, milliseconds(250));
    // 2.3 s of bounds; generous room for a loaded machine, far from 60 s.
    EXPECT_LT(elapsed, milliseconds(2300 + 10000));

    std::ifstream in(pidFile);
    pid_t child = 0;
    in >> child;
    ASSERT_GT(child, 0);
    const auto deadline = steady_clock::now() + std::chrono::seconds(10);
    while (!processEnded(child) && steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(20));
    EXPECT_TRUE(processEnded(child)) << "the hanging command's child still runs: " << child;
}

TEST_F(DMesgFixture, HangingKernelLogCommandsStillGiveTheWholeFile) {
    gmslMachine();
    standIn("dmesg", "echo '[    5.1] kovq 30-0055: probe ok'\nexec sleep 60\n");
    node.startTimeout = milliseconds(300);
    node.finishTimeout = milliseconds(300);
    const auto start = steady_clock::now();
    const std::string file = runAndRead();
    const auto elapsed = steady_clock::now() - start;
    // Four blocks hang, each for at most 0.6 s of bounds.
    EXPECT_LT(elapsed, std::chrono::seconds(4 * 1 + 20));
    EXPECT_NE(file.find(banner("############ DMESG [DTS] LOG #############")), std::string::npos);
    EXPECT_EQ(blockOf(file, "############ Jetpack      ###########"), "# R35 (release), REVISION: 4.1\n");
    EXPECT_EQ(blockOf(file, "############ I2C Trace /dev/i2C-33 #############"), "scan of bus 33 (-y -r)\n");
}

TEST_F(DMesgFixture, ProgressFollowsTheDescribedValues) {
    gmslMachine();
    node.blockPause = milliseconds(15);
    node.finalPause = milliseconds(50);
    std::atomic<bool> done{false};
    std::vector<float> seen;
    std::thread watcher([&] {
        while (!done.load()) {
            const float p = node.getPercent();
            if (seen.empty() || seen.back() != p)
                seen.push_back(p);
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    runAndRead();
    done = true;
    watcher.join();
    const std::vector<float> expected = {0,  5,  10, 15, 20, 25, 28, 30, 40, 50, 55, 60, 63, 66,
                                         69, 72, 75, 78, 81, 84, 87, 90, 80, 85, 90, 95, 100};
    // Every value seen is one of the expected ones, in the expected order
    // (a busy machine may hide some, never reorder them).
    size_t at = 0;
    for (float p : seen) {
        while (at < expected.size() && expected[at] != p)
            ++at;
        ASSERT_LT(at, expected.size()) << "unexpected or out-of-order progress " << p;
    }
    EXPECT_EQ(seen.back(), 100.f);
    EXPECT_GE(seen.size(), expected.size() / 2);
}
