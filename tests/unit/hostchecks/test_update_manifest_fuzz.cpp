// The manifest reader on random and mutated input: never a crash, nothing newer
// from garbage, and the hidden list untouched when nothing was hidden.
#include "support/Updater.h"

#include "StandinTestSupport.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <random>

using testsupport::SysRoot;

namespace {

const std::string valid =
    R"({"latest":{"version":{"webpage":"https://example.test/r","major":4,"minor":1,"patch":3,"message":"m"}},)"
    R"("messages":[{"version":"*","text":"t","title":"T","type":"info","webpage":"https://example.test/w"}]})";

}  // namespace

TEST(UpdateManifestFuzz, TableOfOddManifests) {
    SysRoot root;
    int shown = 0;
    setUpdateDialogPresenter([&](const UpdateDialog&) {
        ++shown;
        return false;
    });
    struct Case {
        const char* text;
        const char* result;
    };
    const Case cases[] = {
        {"", ""},
        {"null", ""},
        {"{}", ""},
        {"[]", ""},
        {R"({"latest":null})", ""},
        {R"({"latest":{"version":[]}})", ""},
        {R"({"latest":{"version":{"major":4.9,"minor":1,"patch":3}}})", ""},  // 4.9 reads as 0
        {R"({"latest":{"version":{"major":4,"minor":1,"patch":3}}})", ""},    // newer, no web page
        {R"({"latest":{"version":{"major":4,"minor":1,"patch":3,"webpage":7}}})", ""},
        {R"({"latest":{"version":{"major":4,"minor":1,"patch":3,"webpage":"w"}}})", "w"},
        {R"({"latest":{"version":{"major":-4,"minor":99,"patch":99,"webpage":"w"}}})", ""},
        {R"({"messages":"nope"})", ""},
        {R"({"messages":[1,"x",null,{}]})", ""},
        {R"({"messages":[{"version":"*"}]})", ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(evaluateUpdateManifest(QByteArray(c.text), false), c.result) << c.text;
    // Only the last row carries a message for all versions (empty text and title).
    EXPECT_EQ(shown, 1);
    setUpdateDialogPresenter(nullptr);
}

TEST(UpdateManifestFuzz, RandomBytesAndMutations) {
    SysRoot root;
    root.writeFile("/usr/local/kov/settings/.updates.bin", "keep\n");
    setUpdateDialogPresenter([](const UpdateDialog&) { return false; });
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int i = 0; i < 2000; ++i) {
        QByteArray data;
        if (i % 2 == 0) {
            const int n = std::uniform_int_distribution<int>(0, 200)(rng);
            for (int k = 0; k < n; ++k)
                data.append(static_cast<char>(byte(rng)));
        } else {
            data = QByteArray::fromStdString(valid);
            const int edits = std::uniform_int_distribution<int>(1, 6)(rng);
            for (int k = 0; k < edits && !data.isEmpty(); ++k) {
                const int pos = std::uniform_int_distribution<int>(0, data.size() - 1)(rng);
                switch (std::uniform_int_distribution<int>(0, 2)(rng)) {
                    case 0:
                        data[pos] = static_cast<char>(byte(rng));
                        break;
                    case 1:
                        data.remove(pos, 1);
                        break;
                    default:
                        data.insert(pos, static_cast<char>(byte(rng)));
                        break;
                }
            }
        }
        const std::string page = evaluateUpdateManifest(data, false);
        // Anything newer found in a mutation still names a page taken from the text.
        if (!page.empty()) {
            EXPECT_NE(data.indexOf(QByteArray::fromStdString(page)), -1);
        }
    }
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"), "keep\n");
    setUpdateDialogPresenter(nullptr);
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
