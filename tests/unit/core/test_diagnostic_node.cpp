#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include "diagnostic/DiagnosticNode.h"

namespace {

class PlainNode : public DiagnosticNode {
public:
    PlainNode() : DiagnosticNode("Plain") {}
    void runDiagnostic(QJsonObject&) override { setPercent(100.f); }
};

QStringList texts(const QJsonObject& o, const char* key) {
    QStringList out;
    for (const QJsonValue& v : o.value(key).toArray())
        out << v.toString();
    return out;
}

}  // namespace

TEST(DiagnosticNode, StartsIdleAndEmpty) {
    PlainNode node;
    EXPECT_EQ(node.name, "Plain");
    EXPECT_EQ(node.getPercent(), 0.f);
    EXPECT_TRUE(node.messages.empty());
    EXPECT_TRUE(node.statusText.empty());
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ALL).empty());
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
}

TEST(DiagnosticNode, LevelKeys) {
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_ERROR), "error");
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_WARNING), "warning");
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_INFO), "info");
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_VALID), "valid");
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_NOT_TESTED), "notTested");
    EXPECT_STREQ(diagnosticLevelKey(DIAGNOSTIC_ALL), "Unknown");
}

TEST(DiagnosticNode, TwoMessagesOfOneLevelKeepInsertionOrder) {
    PlainNode node;
    QJsonObject result;
    node.addMessage(result, DIAGNOSTIC_WARNING, "first");
    node.addMessage(result, DIAGNOSTIC_WARNING, "second");
    EXPECT_EQ(texts(result, "warning"), (QStringList{"first", "second"}));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_WARNING), (std::vector<std::string>{"first", "second"}));
    EXPECT_FALSE(result.contains("error"));
}

TEST(DiagnosticNode, AllLevelsInAddedOrderNotByLevel) {
    PlainNode node;
    QJsonObject result;
    node.addMessage(result, DIAGNOSTIC_WARNING, "a warning");
    node.addMessage(result, DIAGNOSTIC_ERROR, "an error");
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL),
              (std::vector<std::string>{"a warning", "an error"}));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR), (std::vector<std::string>{"an error"}));
}

TEST(DiagnosticNode, UnknownLevelGoesUnderUnknownAndOnlyAllFindsIt) {
    PlainNode node;
    QJsonObject result;
    node.addMessage(result, static_cast<DIAGNOSTIC_MESSAGE_LEVEL>(7), "odd");
    EXPECT_EQ(texts(result, "Unknown"), (QStringList{"odd"}));
    ASSERT_EQ(node.messages.size(), 1u);
    EXPECT_EQ(static_cast<int>(node.messages[0].level), 7);
    for (int level = DIAGNOSTIC_ERROR; level <= DIAGNOSTIC_NOT_TESTED; ++level)
        EXPECT_TRUE(node.getSpecificMessageList(static_cast<DIAGNOSTIC_MESSAGE_LEVEL>(level)).empty())
            << level;
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL), (std::vector<std::string>{"odd"}));
}

TEST(DiagnosticNode, ArraysStandBesideTheNodesKeysAndNestedObjectsWork) {
    PlainNode node;
    QJsonObject result;
    result.insert("cpu", "x");
    QJsonObject nested;
    node.addMessage(nested, DIAGNOSTIC_INFO, "inside");
    node.addMessage(result, DIAGNOSTIC_VALID, "outside");
    result.insert("sub", nested);
    EXPECT_EQ(result.value("cpu").toString(), "x");
    EXPECT_EQ(texts(result, "valid"), (QStringList{"outside"}));
    EXPECT_FALSE(result.contains("info"));
    EXPECT_EQ(texts(result.value("sub").toObject(), "info"), (QStringList{"inside"}));
    EXPECT_EQ(node.messages.size(), 2u);
}

TEST(DiagnosticNode, Utf8TextIsDecoded) {
    PlainNode node;
    QJsonObject result;
    node.addMessage(result, DIAGNOSTIC_INFO, "caf\xc3\xa9 50%");
    EXPECT_EQ(texts(result, "info"), (QStringList{QString::fromUtf8("caf\xc3\xa9 50%")}));
}
