#include "diagnostic/CommandLine.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ai/ModelMaintenance.h"
#include "diagnostic/ConsoleColor.h"
#include "diagnostic/NodeList.h"
#include "support/KLogger.h"

volatile std::sig_atomic_t GUICheck = 1;
bool skip_json = false;
DiagnosticNode* currentNode = nullptr;
int currentIndex = 0;

const char* const kReportFileName = "KOV_Diagnostic_Results.json";

std::string removeHTMLMarkup(std::string text) {
    QString t = QString::fromUtf8(text.c_str(), static_cast<int>(text.size()));
    t.replace("<br/>", "");
    t.replace("<b>", "");
    t.replace("</b>", "");
    t.replace("<i>", "");
    t.replace("</i>", "");
    t.replace("</a>", "");
    t.replace("<a href='", "(");
    t.replace("'>", ") ");
    return t.toStdString();
}

void printDiagnosticLine(DiagnosticNode* node) {
    if (node == nullptr)
        return;
    if (node->getPercent() < 100.f) {
        std::printf("- Running %s Diagnostic : %d%%\r", node->name.c_str(),
                    static_cast<int>(node->getPercent()));
        std::fflush(stdout);
        return;
    }
    if (node == currentNode)
        return;
    currentNode = node;

    std::printf("- Running %s Diagnostic : ", node->name.c_str());
    bool any[5] = {false, false, false, false, false};
    for (const DiagnosticNode::Message& m : node->messages)
        if (m.level >= DIAGNOSTIC_ERROR && m.level <= DIAGNOSTIC_NOT_TESTED)
            any[m.level] = true;

    if (node->messages.empty()) {
        setGreenConsoleColor();
        std::printf("OK  \n");
        setDefaultConsoleColor();
        return;
    }
    if (any[DIAGNOSTIC_ERROR]) {
        setRedConsoleColor();
        std::printf("Failed");
    } else if (any[DIAGNOSTIC_WARNING]) {
        setOrangeConsoleColor();
        std::printf("Warning");
    } else if (any[DIAGNOSTIC_INFO] || any[DIAGNOSTIC_VALID]) {
        setGreenConsoleColor();
        std::printf("OK  ");
    } else if (any[DIAGNOSTIC_NOT_TESTED]) {
        setGrayConsoleColor();
        std::printf("Not Tested");
    }
    std::printf("\n");
    setDefaultConsoleColor();

    void (*const colours[5])() = {setRedConsoleColor, setOrangeConsoleColor, setBlueConsoleColor,
                                  setGreenConsoleColor, setGrayConsoleColor};
    for (int level = DIAGNOSTIC_ERROR; level <= DIAGNOSTIC_NOT_TESTED; ++level) {
        colours[level]();
        for (const std::string& text :
             node->getSpecificMessageList(static_cast<DIAGNOSTIC_MESSAGE_LEVEL>(level)))
            std::printf("    %s\n", removeHTMLMarkup(text).c_str());
        setDefaultConsoleColor();
    }
    std::fflush(stdout);
}

bool printUpdateMessage(const UpdateDialog& dialog) {
    std::string line =
        removeHTMLMarkup(dialog.title.toStdString()) + " : " + removeHTMLMarkup(dialog.text.toStdString());
    if (!dialog.webpage.isEmpty())
        line += " (" + dialog.webpage.toStdString() + ")";
    spdlog::logger* log = bh::KLogger::get_instance().get_logger(bh::LOGGER_NAME::SDK);
    // The text comes from the network: it is an argument, never the format.
    switch (dialog.icon) {
        case UpdateDialog::Critical:
            log->error("{}", line);
            break;
        case UpdateDialog::Warning:
            log->warn("{}", line);
            break;
        default:
            log->info("{}", line);
            break;
    }
    return false;
}

void printDiagnosticStatus(DiagnosticRunner& runner) {
    const std::vector<DiagnosticNode*> nodes = runner.nodes;
    if (nodes.empty()) {
        currentIndex = 0;
        return;
    }
    int index = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const float p = nodes[i]->getPercent();
        if (p > 0.f && p <= 100.f)
            index = static_cast<int>(i);
    }
    currentIndex = index;
    struct winsize size {};
    (void)ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);  // asked, not used: lines are never wrapped by us
    printDiagnosticLine(nodes[static_cast<size_t>(index)]);
}

int runCommandLine(int argc, char** argv, AIParameters ai, bool arCheck, bool recoverMcu, bool kernelLog) {
    (void)argc;
    (void)argv;
    setDefaultConsoleColor();
    std::string reportName = kReportFileName;
    std::FILE* report = nullptr;

    if (!skip_json) {
        std::printf("KOV Diagnostic Tool\n\n");
        report = std::fopen(reportName.c_str(), "w");
        if (report == nullptr) {
            const char* home = std::getenv("HOME");
            reportName = std::string(home != nullptr ? home : "") + "/" + kReportFileName;
            report = std::fopen(reportName.c_str(), "w");
        }
        if (report == nullptr) {
            std::printf(
                "\n ERROR : Cannot create diagnostic file. \nPlease run the application with administrator "
                "rights.");
            std::fflush(stdout);
            (void)std::getchar();
            return 1;
        }
    } else {
        std::printf("\n");
    }
    std::fflush(stdout);

    DiagnosticRunner runner;

    if (ai.clear || ai.download || ai.optimize || ai.specific) {
        if (report != nullptr)
            std::fclose(report);
        return runAIModelMaintenance(ai);
    }

    // The maker's messages found by the "KOV SDK" node are printed, not boxed.
    setUpdateDialogPresenter(&printUpdateMessage);

    std::vector<DiagnosticNode*> nodes;
    if (recoverMcu || kernelLog) {
        DiagnosticNode* single = recoverMcu ? buildRecoverMcuNode() : buildKernelLogNode();
        const char* checkName = recoverMcu ? "Recover MCU Serial Number" : "Log Kernel Trace";
        if (single == nullptr) {
            std::printf("The check \"%s\" is not available in this build.\n", checkName);
            if (report != nullptr)
                std::fclose(report);
            return kExitCheckUnavailable;
        }
        if (!recoverMcu)
            std::printf(" ** Please wait for completion... This might take up to 1 minute **\n");
        nodes.push_back(single);
    } else {
        nodes = buildDiagnosticNodes(arCheck);
    }

    QJsonObject results;
    runner.nodes = nodes;
    runner.results = &results;
    runner.start();

    while (!runner.finished.load(std::memory_order_acquire)) {
        printDiagnosticStatus(runner);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    printDiagnosticStatus(runner);
    std::printf("\n");
    runner.stopAndJoin();
    setUpdateDialogPresenter(nullptr);

    if (!skip_json && report != nullptr) {
        // Written verbatim: report values are never used as a format string.
        const QByteArray json = QJsonDocument(results).toJson(QJsonDocument::Indented);
        std::fwrite(json.constData(), 1, static_cast<size_t>(json.size()), report);
        std::fclose(report);
        std::printf("Diagnostic finished, a file has been generated : ");
        setGreenConsoleColor();
        std::printf("%s\n", reportName.c_str());
        setDefaultConsoleColor();
    }
    std::fflush(stdout);
    return 0;
}
