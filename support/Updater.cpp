#include "support/Updater.h"

#include "support/SiteConfig.h"
#include "utils/SysPath.h"

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTextStream>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <mutex>

namespace {

std::mutex presenterMutex;
UpdateDialogPresenter& presenterSlot() {
    static UpdateDialogPresenter presenter;
    return presenter;
}

UpdateDialogPresenter currentPresenter() {
    std::lock_guard<std::mutex> lock(presenterMutex);
    return presenterSlot();
}

// GET with a time-out: the request is aborted when no complete answer came in
// time, so that a server that never answers cannot hold the caller.
QByteArray fetch(const QUrl& url, int timeoutMs) {
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    QNetworkReply* reply = manager.get(request);
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    timer.start(timeoutMs);
    if (!reply->isFinished())
        loop.exec();
    QByteArray data;
    if (reply->isFinished()) {
        data = reply->readAll();
    } else {
        reply->abort();
    }
    delete reply;
    return data;
}

UpdateDialog::Icon iconOf(const QString& type) {
    if (type == "error")
        return UpdateDialog::Critical;
    if (type == "info")
        return UpdateDialog::Information;
    if (type == "question")
        return UpdateDialog::Question;
    if (type == "warning")
        return UpdateDialog::Warning;
    return UpdateDialog::NoIcon;
}

bool isHidden(const std::vector<std::string>& hidden, const std::string& digest) {
    return std::find(hidden.begin(), hidden.end(), digest) != hidden.end();
}

}  // namespace

void setUpdateDialogPresenter(UpdateDialogPresenter presenter) {
    std::lock_guard<std::mutex> lock(presenterMutex);
    presenterSlot() = std::move(presenter);
}

bool isNewerSDKVersion(int major, int minor, int patch) {
    if (major > KOV_SDK_MAJOR)
        return true;
    if (major == KOV_SDK_MAJOR && minor > KOV_SDK_MINOR)
        return true;
    return major == KOV_SDK_MAJOR && minor == KOV_SDK_MINOR && patch > KOV_SDK_PATCH;
}

std::string hiddenMessagesPath() {
    return utils::sysPath("/usr/local/kov/settings/.updates.bin");
}

std::vector<std::string> readHiddenMessages() {
    std::vector<std::string> list;
    QFile file(QString::fromStdString(hiddenMessagesPath()));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return list;
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (!line.isEmpty())
            list.push_back(line.toStdString());
    }
    return list;
}

bool writeHiddenMessages(const std::vector<std::string>& digests) {
    const QString path = QString::fromStdString(hiddenMessagesPath());
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return false;
    QTextStream out(&file);
    for (const std::string& d : digests)
        out << QString::fromStdString(d) << "\n";
    return true;
}

std::string messageDigest(const QString& text) {
    return QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Md5).toHex().toStdString();
}

std::string CheckSDKUpdateOnline(bool noReleaseDialog) {
    QLoggingCategory::setFilterRules("qt.network.ssl.warning=false");
    const QByteArray data =
        fetch(QUrl(QString::fromStdString(site::updateManifestUrl())), site::updateTimeoutMs());
    return evaluateUpdateManifest(data, noReleaseDialog);
}

std::string evaluateUpdateManifest(const QByteArray& data, bool noReleaseDialog) {
    std::vector<std::string> hidden = readHiddenMessages();
    bool hiddenChanged = false;
    const UpdateDialogPresenter presenter = currentPresenter();

    // A reply that is not JSON, or empty, reads as all zeros and empty texts.
    const QJsonObject root = QJsonDocument::fromJson(data).object();
    const QJsonObject version = root.value("latest").toObject().value("version").toObject();
    const QString webpage = version.value("webpage").toString();
    const int major = version.value("major").toInt();
    const int minor = version.value("minor").toInt();
    const int patch = version.value("patch").toInt();

    std::string result;
    if (isNewerSDKVersion(major, minor, patch)) {
        result = webpage.toStdString();
        const QString message = version.value("message").toString();
        if (!message.isEmpty()) {
            const std::string digest = messageDigest(message);
            // Only the release announcement depends on the argument.
            if (!noReleaseDialog && presenter && !isHidden(hidden, digest)) {
                UpdateDialog dialog;
                dialog.title = "New KOV SDK available";
                dialog.text = message;
                dialog.webpage = webpage;
                dialog.icon = UpdateDialog::NoIcon;
                dialog.moreButton = true;
                if (presenter(dialog)) {
                    hidden.push_back(digest);
                    hiddenChanged = true;
                }
            }
        }
    }

    // The maker's messages for this version, or for all, are shown whatever
    // the argument.
    const QString running = QString("%1.%2.%3").arg(KOV_SDK_MAJOR).arg(KOV_SDK_MINOR).arg(KOV_SDK_PATCH);
    for (const QJsonValue& value : root.value("messages").toArray()) {
        const QJsonObject msg = value.toObject();
        const QString forVersion = msg.value("version").toString();
        if (forVersion != "*" && forVersion != running)
            continue;
        const QString text = msg.value("text").toString();
        const std::string digest = messageDigest(text);
        if (isHidden(hidden, digest))
            continue;
        if (!presenter)
            continue;
        UpdateDialog dialog;
        dialog.title = msg.value("title").toString();
        dialog.text = text;
        dialog.webpage = msg.value("webpage").toString();
        dialog.icon = iconOf(msg.value("type").toString());
        dialog.moreButton = !dialog.webpage.isEmpty();
        if (presenter(dialog)) {
            hidden.push_back(digest);
            hiddenChanged = true;
        }
    }

    if (hiddenChanged)
        writeHiddenMessages(hidden);
    return result;
}
