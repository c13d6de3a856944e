#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>

#include "support/ConfFileManager.h"

namespace {

class ConfFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path() + "/user");
        QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, dir.path() + "/system");
    }
    QString iniPath() const { return dir.path() + "/user/BrennHaven/" + app + ".conf"; }

    QTemporaryDir dir;
    QString app = QString("TestApp%1").arg(reinterpret_cast<quintptr>(this));
};

}  // namespace

TEST_F(ConfFixture, EmptyStoreGivesTheDefaults) {
    ConfFileManager m;
    m.open(app.toStdString());
    EXPECT_EQ(m.appName, app.toStdString());
    EXPECT_EQ(m.conf.height, 0);
    EXPECT_EQ(m.conf.fps, 30);
    EXPECT_EQ(m.conf.quality, 1);
    EXPECT_EQ(m.conf.depth_max, 20000);
    EXPECT_EQ(m.conf.depth_min, 0);
    EXPECT_EQ(m.conf.sdk_v, 0);
    EXPECT_FALSE(m.conf.fw_check);
    EXPECT_EQ(m.conf.save_dir, ConfFileManager::defaultSaveDir());
    EXPECT_EQ(m.conf.save_dir.substr(m.conf.save_dir.size() - 4), "/KOV");
}

TEST_F(ConfFixture, OnlyFpsKeepsTheOtherDefaults) {
    {
        QSettings s("BrennHaven", app);
        s.setValue("input/fps", 60);
    }
    ConfFileManager m;
    m.open(app.toStdString());
    EXPECT_EQ(m.conf.fps, 60);
    EXPECT_EQ(m.conf.height, 0);
    EXPECT_EQ(m.conf.quality, 1);
    EXPECT_EQ(m.conf.depth_max, 20000);
    EXPECT_EQ(m.conf.depth_min, 0);
    EXPECT_EQ(m.conf.sdk_v, 0);
    EXPECT_FALSE(m.conf.fw_check);
    EXPECT_EQ(m.conf.save_dir, ConfFileManager::defaultSaveDir());
}

TEST_F(ConfFixture, SavedValuesComeBack) {
    {
        ConfFileManager m;
        m.open(app.toStdString());
        m.saveConf(720, 15, 3, 15000, "/data/out", 412, 300);
        m.saveConfFw(true);
    }
    EXPECT_TRUE(QFile::exists(iniPath())) << iniPath().toStdString();
    ConfFileManager again;
    again.open(app.toStdString());
    EXPECT_EQ(again.conf.height, 720);
    EXPECT_EQ(again.conf.fps, 15);
    EXPECT_EQ(again.conf.quality, 3);
    EXPECT_EQ(again.conf.depth_max, 15000);
    EXPECT_EQ(again.conf.depth_min, 300);
    EXPECT_EQ(again.conf.sdk_v, 412);
    EXPECT_TRUE(again.conf.fw_check);
    EXPECT_EQ(again.conf.save_dir, "/data/out");
    QSettings raw("BrennHaven", app);
    EXPECT_EQ(raw.value("dir/save").toString(), "/data/out");
    EXPECT_EQ(raw.value("input/sdk_v").toInt(), 412);
}

TEST_F(ConfFixture, MalformedValuesFallBackToNumbersNotCrashes) {
    {
        QSettings s("BrennHaven", app);
        s.setValue("input/fps", "fast");
        s.setValue("input/fw_check", "maybe");
    }
    ConfFileManager m;
    m.open(app.toStdString());
    EXPECT_EQ(m.conf.fps, 0);
    EXPECT_EQ(m.conf.height, 0);
}
