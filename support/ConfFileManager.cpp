#include "support/ConfFileManager.h"

#include <QDir>
#include <QSettings>
#include <QStandardPaths>
#include <QStringList>

namespace {
const char* const kOrganisation = "BrennHaven";
}

struct ConfFileManager::Keys {
    const QString input = "input";
    const QString dir = "dir";
    const QString height = "height";
    const QString fps = "fps";
    const QString quality = "quality";
    const QString depthMax = "depth_max";
    const QString depthMin = "depth_min";
    const QString sdkVersion = "sdk_v";
    const QString fwCheck = "fw_check";
    const QString save = "save";
};

ConfFileManager::ConfFileManager() : keys_(new Keys) {}

ConfFileManager::~ConfFileManager() {
    delete keys_;
}

std::string ConfFileManager::defaultSaveDir() {
    const QStringList docs = QStandardPaths::standardLocations(QStandardPaths::DocumentsLocation);
    const QString base = docs.isEmpty() ? QDir::homePath() : docs.first();
    return (base + "/KOV").toStdString();
}

void ConfFileManager::open(std::string name) {
    appName = std::move(name);
    QSettings settings(kOrganisation, QString::fromStdString(appName));
    const archConf defaults;
    settings.beginGroup(keys_->input);
    conf.height = settings.value(keys_->height, defaults.height).toInt();
    conf.fps = settings.value(keys_->fps, defaults.fps).toInt();
    conf.quality = settings.value(keys_->quality, defaults.quality).toInt();
    conf.depth_max = settings.value(keys_->depthMax, defaults.depth_max).toInt();
    conf.depth_min = settings.value(keys_->depthMin, defaults.depth_min).toInt();
    conf.sdk_v = settings.value(keys_->sdkVersion, defaults.sdk_v).toInt();
    conf.fw_check = settings.value(keys_->fwCheck, defaults.fw_check).toBool();
    settings.endGroup();
    settings.beginGroup(keys_->dir);
    conf.save_dir =
        settings.value(keys_->save, QString::fromStdString(defaultSaveDir())).toString().toStdString();
    settings.endGroup();
}

void ConfFileManager::saveConf(int height, int fps, int quality, int depthMax, std::string saveDir,
                               int sdkVersion, int depthMin) {
    QSettings settings(kOrganisation, QString::fromStdString(appName));
    settings.beginGroup(keys_->input);
    settings.setValue(keys_->height, height);
    settings.setValue(keys_->fps, fps);
    settings.setValue(keys_->quality, quality);
    settings.setValue(keys_->sdkVersion, sdkVersion);
    settings.setValue(keys_->depthMax, depthMax);
    settings.setValue(keys_->depthMin, depthMin);
    settings.endGroup();
    settings.beginGroup(keys_->dir);
    settings.setValue(keys_->save, QString::fromStdString(saveDir));
    settings.endGroup();
    settings.sync();
}

void ConfFileManager::saveConfFw(bool answered) {
    QSettings settings(kOrganisation, QString::fromStdString(appName));
    settings.beginGroup(keys_->input);
    settings.setValue(keys_->fwCheck, answered);
    settings.endGroup();
    settings.sync();
}
