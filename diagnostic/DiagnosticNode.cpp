#include "diagnostic/DiagnosticNode.h"

#include <QJsonArray>
#include <QString>

const char* diagnosticLevelKey(DIAGNOSTIC_MESSAGE_LEVEL level) {
    switch (level) {
        case DIAGNOSTIC_ERROR:
            return "error";
        case DIAGNOSTIC_WARNING:
            return "warning";
        case DIAGNOSTIC_INFO:
            return "info";
        case DIAGNOSTIC_VALID:
            return "valid";
        case DIAGNOSTIC_NOT_TESTED:
            return "notTested";
        default:
            return "Unknown";
    }
}

DiagnosticNode::DiagnosticNode(std::string name) : name(std::move(name)) {}

void DiagnosticNode::addMessage(QJsonObject& result, DIAGNOSTIC_MESSAGE_LEVEL level, std::string text) {
    const QString key = QString::fromLatin1(diagnosticLevelKey(level));
    QJsonArray array = result.value(key).toArray();
    array.append(QString::fromUtf8(text.c_str(), static_cast<int>(text.size())));
    result.insert(key, array);
    messages.push_back({level, std::move(text)});
}

std::vector<std::string> DiagnosticNode::getSpecificMessageList(DIAGNOSTIC_MESSAGE_LEVEL level) {
    std::vector<std::string> texts;
    for (const Message& message : messages) {
        if (level == DIAGNOSTIC_ALL || message.level == level)
            texts.push_back(message.text);
    }
    return texts;
}
