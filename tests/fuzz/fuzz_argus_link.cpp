// What the link to the GMSL daemon reads: the daemon's systemd unit file
// (an INI text of any shape, its ports of any size), this machine's L4T
// release file reduced to a version, and the daemon's REPORT reply split at
// '#' and looked up in the local version. No socket is opened here.
//
// Input: the reply (a length byte, then its text), then the file, used both
// as the unit file and as the release file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const std::string reply = in.text();
    const std::string file = in.rest();
    fuzz::writeFile(fuzz::sysroot("/etc/systemd/system/kov_q_daemon.service"), file);

    bool parsed = false;
    const int port = ArgusCamera::readServicePort("Service:Port", 20206, &parsed);
    const int portSub = ArgusCamera::readServicePort("Service:PortSub", 20207);
    if (!parsed && (port != 20206 || portSub != 20207))
        __builtin_trap();  // an unread file gives the fallbacks

    const std::string local = ArgusCamera::reduceL4TRelease(file);
    if (local.size() > file.size())
        __builtin_trap();  // the reduction only drops characters ('(' becomes '.')
    ArgusCamera::l4tReplyMatches(local, reply);
    return 0;
}
