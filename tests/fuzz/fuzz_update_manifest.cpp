// The online update check after its fetch: the manifest the server answered
// (any bytes, any JSON shape) judged against the list of hidden messages read
// from disk (a damaged file of any content), the dialogs it asks for, and the
// list written back when the user hides one.
//
// Input: flags (the release dialog wanted or not; which dialogs the user
// hides, one bit each in turn), the hidden list (two length bytes, then its
// text), then the manifest.
#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "support/Updater.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    const std::vector<uint8_t> list = in.bytes(in.u16());
    const std::string manifest = in.rest();
    fuzz::writeFile(hiddenMessagesPath(), std::string(list.begin(), list.end()));

    int shown = 0;
    setUpdateDialogPresenter([&](const UpdateDialog&) {
        const bool hide = ((flags >> (1 + shown % 7)) & 1) != 0;
        ++shown;
        return hide;
    });
    const std::string page = evaluateUpdateManifest(QByteArray::fromStdString(manifest), (flags & 1) != 0);
    (void)page;
    (void)readHiddenMessages();
    setUpdateDialogPresenter(nullptr);
    return 0;
}
