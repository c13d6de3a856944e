#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <string>
#include <vector>

// Online update check: fetches the manifest from the download server, tells
// whether a newer SDK exists and shows the announcements published for this
// version, each of which the user may hide for good.

// One announcement to show. The dialog has the title, the text, the icon, a
// check box "Hide" and the buttons "More" (only with a web page) and "Close";
// "More" opens `webpage`.
struct UpdateDialog {
    enum Icon { NoIcon, Information, Warning, Critical, Question };
    QString title;
    QString text;
    QString webpage;
    Icon icon = NoIcon;
    bool moreButton = false;
};

// Shows one dialog and answers whether "Hide" was ticked. It is called on the
// thread that runs the check. The core links no widgets, so each mode installs
// its own: the window's shows a modal QMessageBox on the GUI thread (font
// "Nunito Sans", 10 pt, weight 40; QDesktopServices::openUrl for "More"), the
// command line prints the message and waits for nothing. Without one no
// dialog is shown and nothing gets hidden.
using UpdateDialogPresenter = std::function<bool(const UpdateDialog&)>;
void setUpdateDialogPresenter(UpdateDialogPresenter presenter);

// The SDK version this tool was built for.
constexpr int KOV_SDK_MAJOR = 4;
constexpr int KOV_SDK_MINOR = 1;
constexpr int KOV_SDK_PATCH = 2;

// Whether major.minor.patch is newer than 4.1.2.
bool isNewerSDKVersion(int major, int minor, int patch);

// "/usr/local/kov/settings/.updates.bin" (under KOV_SYSROOT when set): one
// line per hidden message, the hex MD5 digest of its text.
std::string hiddenMessagesPath();
std::vector<std::string> readHiddenMessages();
bool writeHiddenMessages(const std::vector<std::string>& digests);

// Hex MD5 digest of a message text (UTF-8).
std::string messageDigest(const QString& text);

// Fetches the manifest (site::updateManifestUrl(), giving up after
// site::updateTimeoutMs()) and returns the web page of a newer release, or ""
// when there is none, no answer or no usable answer. The messages published
// for this version (or for "*") that are not hidden are shown through the
// presenter whatever the argument; the announcement of a newer release only
// when `noReleaseDialog` is false.
std::string CheckSDKUpdateOnline(bool noReleaseDialog);

// The part of the check after the fetch: reads the hidden list, judges the
// manifest text `data` (anything; not JSON or empty reads as nothing newer and
// no message), shows the dialogs (the release one unless `noReleaseDialog`),
// writes the list back when a message was hidden, and returns the newer
// release's web page or "".
std::string evaluateUpdateManifest(const QByteArray& data, bool noReleaseDialog);
