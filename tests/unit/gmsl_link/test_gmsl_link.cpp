// The link to the GMSL daemon: the unit file's ports, the message texts and
// their order as the stand-in daemon records them, the shared link of several
// cameras, the L4T check of a container, and the failures (no daemon, a
// daemon that never answers, a taken port, a malformed unit file).

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LinkTestSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

using namespace linktest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kConnectWarning = "[KOV-Q][Warning] Failed to connect to kov_q_daemon.\n";
const std::string kVersionWarning =
    "[KOV-Q][Warning] Failed to verify the match between the L4T version of the host and the container. "
    "If you are indeed in a container, be sure to run the same L4T version on both.\n";
const std::string kRelease3531 =
    "# R35 (release), REVISION: 3.1, GCID: 32827747, BOARD: t186ref, EABI: aarch64, DATE: Sun Mar 19 "
    "15:19:21 "
    "UTC 2023";
const std::string kRelease353 = "# R35 (release), REVISION: 3, GCID: 32827747, BOARD: t186ref, EABI: aarch64";

}  // namespace

// ---- message texts and the RUN cadence

TEST(GmslLinkMessages, TextsOfEachVerb) {
    EXPECT_EQ(ArgusCamera::statusMessage(0, 0, "REPORT"), "KOVQ#0#0#REPORT");
    EXPECT_EQ(ArgusCamera::statusMessage(1, 9, "OPENING"), "KOVQ#1#9#OPENING");
    EXPECT_EQ(ArgusCamera::statusMessage(3, 17, "FROZEN"), "KOVQ#3#17#FROZEN");
    EXPECT_EQ(ArgusCamera::statusMessage(-1, 10, "CLOSING"), "KOVQ#-1#10#CLOSING");
    EXPECT_EQ(ArgusCamera::runMessage(1, 9, 0), "KOVQ#1#9#RUN#0");
    EXPECT_EQ(ArgusCamera::runMessage(2, 6, 18446744073709551615ULL), "KOVQ#2#6#RUN#18446744073709551615");
}

TEST(GmslLinkMessages, RunEveryFrameRateFrames) {
    EXPECT_TRUE(ArgusCamera::shouldSendRun(0, 30));
    EXPECT_FALSE(ArgusCamera::shouldSendRun(1, 30));
    EXPECT_FALSE(ArgusCamera::shouldSendRun(29, 30));
    EXPECT_TRUE(ArgusCamera::shouldSendRun(30, 30));
    EXPECT_FALSE(ArgusCamera::shouldSendRun(31, 30));
    EXPECT_TRUE(ArgusCamera::shouldSendRun(60, 30));
    EXPECT_TRUE(ArgusCamera::shouldSendRun(7, 1));
}

TEST(GmslLinkMessages, FrameRateZeroSendsRunOnlyForCounterZero) {
    EXPECT_TRUE(ArgusCamera::shouldSendRun(0, 0));
    for (uint64_t counter = 1; counter < 100; ++counter)
        EXPECT_FALSE(ArgusCamera::shouldSendRun(counter, 0)) << counter;
    EXPECT_TRUE(ArgusCamera::shouldSendRun(0, -5));
    EXPECT_FALSE(ArgusCamera::shouldSendRun(5, -5));
}

// ---- local L4T version

TEST(GmslLinkRelease, ReducedCharacterByCharacter) {
    EXPECT_EQ(ArgusCamera::reduceL4TRelease(kRelease3531 + "\n# KERNEL_VARIANT: oot\n"), "35.3.1");
    EXPECT_EQ(ArgusCamera::reduceL4TRelease("# R32 (release), REVISION: 7.4, GCID: 1, BOARD: t210ref"),
              "32.7.4");
    EXPECT_EQ(ArgusCamera::reduceL4TRelease("# R36 (release), REVISION: 4.0"), "36.4.0");
    EXPECT_EQ(ArgusCamera::reduceL4TRelease(kRelease353), "35.3");
    EXPECT_EQ(ArgusCamera::reduceL4TRelease(""), "");
    // The first comma is an ordinary character (here kept, no skip in force).
    EXPECT_EQ(ArgusCamera::reduceL4TRelease("1,2,3"), "1,2");
}

TEST(GmslLinkRelease, ReplyFieldTwoIsLookedUpInTheLocalVersion) {
    EXPECT_TRUE(ArgusCamera::l4tReplyMatches("35.3.1", "KOVQ#35.3.1#REPORT"));
    EXPECT_TRUE(ArgusCamera::l4tReplyMatches("35.3.1", "KOVQ#35.3"));
    EXPECT_FALSE(ArgusCamera::l4tReplyMatches("35.3", "KOVQ#35.3.1"));
    EXPECT_FALSE(ArgusCamera::l4tReplyMatches("35.3.1", "KOVQ#36.4.0#"));
    EXPECT_FALSE(ArgusCamera::l4tReplyMatches("35.3.1", ""));
    EXPECT_FALSE(ArgusCamera::l4tReplyMatches("35.3.1", "35.3.1"));
    // An empty second field is found in any local version.
    EXPECT_TRUE(ArgusCamera::l4tReplyMatches("35.3.1", "KOVQ##"));
}

// ---- the unit file

TEST_F(LinkTest, PortsReadFromTheUnitFile) {
    root.writeUnit(31001, 31002);
    bool parsed = false;
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206, &parsed), 31001);
    EXPECT_TRUE(parsed);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 31002);
}

TEST_F(LinkTest, SectionAndKeyAreCaseInsensitive) {
    root.writeUnit("[SERVICE]\nport = 31011\nPORTSUB=31012\n");
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206), 31011);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 31012);
}

TEST_F(LinkTest, UnitWithoutServiceSectionGivesDefaults) {
    root.writeUnit("[Unit]\nDescription=daemon\nPort=1234\n\n[Install]\nWantedBy=multi-user.target\n");
    bool parsed = false;
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206, &parsed), 20206);
    EXPECT_TRUE(parsed);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 20207);
}

TEST_F(LinkTest, ServiceWithoutPortGivesDefaultPort) {
    root.writeUnit("[Service]\nExecStart=/usr/bin/kov_q_daemon\nPortSub=31022\n");
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206), 20206);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 31022);
    root.writeUnit("[Service]\nExecStart=/usr/bin/kov_q_daemon\n");
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206), 20206);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 20207);
}

TEST_F(LinkTest, MissingUnitFileGivesFallbackAndNotParsed) {
    bool parsed = true;
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206, &parsed), 20206);
    EXPECT_FALSE(parsed);
}

TEST_F(LinkTest, MalformedUnitFilesNeverCrash) {
    // Binary garbage without a section: read, defaults.
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage += static_cast<char>((i * 73 + 11) % 256);
    root.writeUnit(garbage);
    bool parsed = false;
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206, &parsed), 20206);
    EXPECT_TRUE(parsed);
    // An unterminated section header and a value that is no number: strtol
    // of the text gives 0; a number followed by text gives the number.
    root.writeUnit("[Service\nPort=abc\n[Service]\nPort=abc\nPortSub=31033junk\n");
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206), 0);
    EXPECT_EQ(ArgusCamera::readServicePort("Service:PortSub", 20207), 31033);
    // A folder where the file should be: not readable, the fallback.
    fs::remove(root.unitPath());
    fs::create_directories(root.unitPath());
    EXPECT_EQ(ArgusCamera::readServicePort("Service:Port", 20206, &parsed), 20206);
    EXPECT_FALSE(parsed);
}

TEST_F(LinkTest, UnreadableUnitFileMeansNoLink) {
    fs::create_directories(root.unitPath());
    CaptureStdout();
    {
        ArgusCamera cam;
        EXPECT_EQ(GetCapturedStdout(), kConnectWarning);
        EXPECT_EQ(ArgusCamera::zmq_socket_pub, nullptr);
        EXPECT_EQ(ArgusCamera::zmq_socket_sub, nullptr);
        EXPECT_FALSE(cam.connectToKOVQDaemon());
    }
    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
}

TEST_F(LinkTest, PortThatIsNoNumberBecomesZeroWithoutHarm) {
    const std::vector<int> ports = freePorts(1);
    ASSERT_EQ(ports.size(), 1u);
    root.writeUnit("[Service]\nPort=abc\nPortSub=" + std::to_string(ports[0]) + "\n");
    const auto start = Clock::now();
    CaptureStdout();
    {
        // strtol gives port 0; ZeroMQ takes the connect (it is made in the
        // background), so the link counts as made and what is sent is lost.
        ArgusCamera cam;
        EXPECT_NE(ArgusCamera::zmq_socket_pub, nullptr);
        EXPECT_NE(ArgusCamera::zmq_socket_sub, nullptr);
        for (uint64_t counter = 0; counter < 20; ++counter)
            EXPECT_TRUE(ArgusCamera::sendOnLink(ArgusCamera::runMessage(0, 17, counter)));
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(ArgusCamera::zmq_socket_pub, nullptr);
    EXPECT_LT(since(start), std::chrono::milliseconds(2000));
}

// ---- no daemon, and a daemon that is installed but not running

TEST_F(LinkTest, NoDaemonInstalledOnlyWarnsAndNeverBlocks) {
    const auto start = Clock::now();
    CaptureStdout();
    {
        ArgusCamera cam;
        cam.setPortIndex(1);
        cam.setDeviceCode(9);
        cam.sendStatus("OPENING");
        cam.sendRun(0);
        cam.sendStatus("CLOSING");
        EXPECT_FALSE(ArgusCamera::sendOnLink("KOVQ#1#9#FROZEN"));
    }
    EXPECT_EQ(GetCapturedStdout(), kConnectWarning);
    EXPECT_LT(since(start), std::chrono::milliseconds(2000));
    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
    EXPECT_TRUE(ArgusCamera::warning_displayed);
}

TEST_F(LinkTest, NoDaemonInstalledInContainerWarnsTwice) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    const auto start = Clock::now();
    CaptureStdout();
    { ArgusCamera cam; }
    EXPECT_EQ(GetCapturedStdout(), kConnectWarning + kVersionWarning);
    // The sockets are null: no wait for a reply.
    EXPECT_LT(since(start), std::chrono::milliseconds(900));
}

TEST_F(LinkTest, DaemonInstalledButNotRunning) {
    const std::vector<int> ports = freePorts(2);
    ASSERT_EQ(ports.size(), 2u);
    root.writeUnit(ports[0], ports[1]);
    CaptureStdout();
    {
        ArgusCamera cam;
        EXPECT_NE(ArgusCamera::zmq_socket_pub, nullptr);
        EXPECT_NE(ArgusCamera::zmq_socket_sub, nullptr);
        const auto start = Clock::now();
        for (int i = 0; i < 50; ++i)
            EXPECT_TRUE(ArgusCamera::sendOnLink(ArgusCamera::runMessage(0, 17, static_cast<uint64_t>(i))));
        EXPECT_LT(since(start), std::chrono::milliseconds(2000));
    }
    EXPECT_EQ(GetCapturedStdout(), "");
}

// ---- the daemon answers

class DaemonLinkTest : public LinkTest {
protected:
    // Starts the stand-in daemon on two free ports written into the unit file.
    void startDaemon(std::vector<std::string> extra) {
        ports = freePorts(2);
        ASSERT_EQ(ports.size(), 2u);
        root.writeUnit(ports[0], ports[1]);
        daemon =
            std::make_unique<Daemon>(root.unitPath(), root.path() / "daemon_record.txt", std::move(extra));
        ASSERT_TRUE(daemon->waitReady());
    }
    void TearDown() override {
        daemon.reset();
        LinkTest::TearDown();
    }

    std::vector<int> ports;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(DaemonLinkTest, MessagesArriveInOrder) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("compute,utility,video"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--version", "35.3.1"});
    CaptureStdout();
    {
        ArgusCamera cam;
        cam.setPortIndex(1);
        cam.setDeviceCode(9);
        cam.sendStatus("OPENING");
        for (uint64_t counter = 0; counter <= 60; ++counter)
            if (ArgusCamera::shouldSendRun(counter, 30))
                cam.sendRun(counter);
        cam.sendStatus("FROZEN");
        cam.sendStatus("CLOSING");
        // Closing the link drops what is not yet sent (linger 0): wait for it.
        daemon->waitLines(7);
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    const std::vector<std::string> expected = {"KOVQ#0#0#REPORT", "KOVQ#1#9#OPENING", "KOVQ#1#9#RUN#0",
                                               "KOVQ#1#9#RUN#30", "KOVQ#1#9#RUN#60",  "KOVQ#1#9#FROZEN",
                                               "KOVQ#1#9#CLOSING"};
    EXPECT_EQ(daemon->lines(), expected);
}

TEST_F(DaemonLinkTest, FrameRateZeroRunsOnceOnTheWire) {
    startDaemon({"--version", "35.3.1"});
    ArgusCamera cam;
    cam.setPortIndex(0);
    cam.setDeviceCode(10);
    for (uint64_t counter = 0; counter < 40; ++counter)
        if (ArgusCamera::shouldSendRun(counter, 0))
            cam.sendRun(counter);
    cam.sendStatus("CLOSING");
    const std::vector<std::string> expected = {"KOVQ#0#10#RUN#0", "KOVQ#0#10#CLOSING"};
    EXPECT_EQ(daemon->waitLines(2), expected);
}

TEST_F(DaemonLinkTest, OutsideAContainerNoReportIsAsked) {
    startDaemon({"--version", "35.3.1"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(ArgusCamera::checkL4TVersionMatchInContainer());
    cam.sendStatus("OPENING");
    const std::vector<std::string> expected = {"KOVQ#0#17#OPENING"};
    EXPECT_EQ(daemon->waitLines(1), expected);
}

TEST_F(DaemonLinkTest, MatchingVersionInContainer) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--version", "35.3.1"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(ArgusCamera::checkL4TVersionMatchInContainer());
}

TEST_F(DaemonLinkTest, OtherHostVersionInContainer) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--version", "36.2.0"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_FALSE(ArgusCamera::checkL4TVersionMatchInContainer());
}

TEST_F(DaemonLinkTest, ReplyWithOneFieldIsFalse) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--reply", "a"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_FALSE(ArgusCamera::checkL4TVersionMatchInContainer());
}

TEST_F(DaemonLinkTest, ShorterHostVersionIsFoundInLocal) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--reply", "x#35.3"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(ArgusCamera::checkL4TVersionMatchInContainer());
}

TEST_F(DaemonLinkTest, LongerHostVersionIsNotFoundInLocal) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease353);
    startDaemon({"--reply", "x#35.3.1"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_FALSE(ArgusCamera::checkL4TVersionMatchInContainer());
}

TEST_F(DaemonLinkTest, SilentDaemonTimesOutAfterAboutOneSecond) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--silent"});
    auto start = Clock::now();
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_GE(since(start), std::chrono::milliseconds(900));
    EXPECT_LT(since(start), std::chrono::milliseconds(5000));

    start = Clock::now();
    EXPECT_FALSE(ArgusCamera::checkL4TVersionMatchInContainer());
    EXPECT_GE(since(start), std::chrono::milliseconds(900));
    EXPECT_LT(since(start), std::chrono::milliseconds(5000));
    const std::vector<std::string> expected = {"KOVQ#0#0#REPORT", "KOVQ#0#0#REPORT"};
    EXPECT_EQ(daemon->waitLines(2), expected);
}

TEST_F(DaemonLinkTest, ContainerWithoutTegraReleaseIsFalseThoughSocketsWork) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    startDaemon({"--version", "35.3.1"});
    CaptureStdout();
    ArgusCamera cam;
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_FALSE(ArgusCamera::checkL4TVersionMatchInContainer());
    // The link itself works; no REPORT was asked, since the file came first.
    cam.setPortIndex(2);
    cam.setDeviceCode(7);
    cam.sendStatus("OPENING");
    const std::vector<std::string> expected = {"KOVQ#2#7#OPENING"};
    EXPECT_EQ(daemon->waitLines(1), expected);
}

TEST_F(DaemonLinkTest, VersionWarningOncePerProcess) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--reply", "a"});
    CaptureStdout();
    { ArgusCamera first; }
    { ArgusCamera again; }
    EXPECT_EQ(GetCapturedStdout(), kVersionWarning);
    EXPECT_TRUE(ArgusCamera::warning_displayed);
    const std::vector<std::string> expected = {"KOVQ#0#0#REPORT"};
    EXPECT_EQ(daemon->waitLines(1), expected);
}

TEST_F(DaemonLinkTest, TwoCamerasShareOneLink) {
    startDaemon({"--version", "35.3.1"});
    auto first = std::make_unique<ArgusCamera>();
    zmq::socket_t* link = ArgusCamera::zmq_socket_pub.get();
    ASSERT_NE(link, nullptr);
    auto second = std::make_unique<ArgusCamera>();
    EXPECT_EQ(ArgusCamera::argus_camera_count, 2);
    EXPECT_EQ(ArgusCamera::zmq_socket_pub.get(), link);

    first->setPortIndex(0);
    second->setPortIndex(1);
    first->sendStatus("OPENING");
    second->sendStatus("OPENING");
    ASSERT_EQ(daemon->waitLines(2).size(), 2u);

    first->releaseLink();
    first->releaseLink();  // a second call changes nothing
    EXPECT_EQ(ArgusCamera::argus_camera_count, 1);
    EXPECT_EQ(ArgusCamera::zmq_socket_pub.get(), link);
    second->sendStatus("CLOSING");
    const std::vector<std::string> expected = {"KOVQ#0#17#OPENING", "KOVQ#1#17#OPENING", "KOVQ#1#17#CLOSING"};
    EXPECT_EQ(daemon->waitLines(3), expected);

    first.reset();
    EXPECT_EQ(ArgusCamera::argus_camera_count, 1);
    second.reset();
    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
    EXPECT_EQ(ArgusCamera::zmq_socket_pub, nullptr);
    EXPECT_EQ(ArgusCamera::zmq_context_pub, nullptr);
    // The receiving side is left up.
    EXPECT_NE(ArgusCamera::zmq_socket_sub, nullptr);
    EXPECT_NE(ArgusCamera::zmq_context_sub, nullptr);
    EXPECT_FALSE(ArgusCamera::sendOnLink("KOVQ#1#17#RUN#1"));
}

TEST_F(DaemonLinkTest, NextFirstCameraRemakesTheLinkOnTheSamePorts) {
    ScopedEnv inContainer("NVIDIA_DRIVER_CAPABILITIES", std::string("all"));
    root.writeTegraRelease(kRelease3531);
    startDaemon({"--version", "35.3.1"});
    CaptureStdout();
    { ArgusCamera first; }
    zmq::socket_t* oldSub = ArgusCamera::zmq_socket_sub.get();
    ASSERT_NE(oldSub, nullptr);
    {
        // The old receiving socket still holds PortSub: it is closed before
        // the new bind, which would fail otherwise.
        ArgusCamera next;
        EXPECT_NE(ArgusCamera::zmq_socket_pub, nullptr);
        EXPECT_NE(ArgusCamera::zmq_socket_sub, nullptr);
        EXPECT_TRUE(ArgusCamera::checkL4TVersionMatchInContainer());
        next.sendStatus("CLOSING");
        daemon->waitLines(3);
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    const std::vector<std::string> expected = {"KOVQ#0#0#REPORT", "KOVQ#0#0#REPORT", "KOVQ#0#17#CLOSING"};
    EXPECT_EQ(daemon->lines(), expected);
}

TEST_F(LinkTest, ReceivePortTakenByAnotherSocket) {
    const std::vector<int> ports = freePorts(2);
    ASSERT_EQ(ports.size(), 2u);
    root.writeUnit(ports[0], ports[1]);
    PortHolder holder(ports[1]);
    ASSERT_TRUE(holder.ok());
    CaptureStdout();
    {
        ArgusCamera cam;
        EXPECT_EQ(GetCapturedStdout(), kConnectWarning);
        EXPECT_EQ(ArgusCamera::argus_camera_count, 1);
        // The sending socket was made before the bind failed.
        EXPECT_NE(ArgusCamera::zmq_socket_pub, nullptr);
        EXPECT_FALSE(cam.connectToKOVQDaemon());
    }
    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
    EXPECT_EQ(ArgusCamera::zmq_socket_pub, nullptr);
}
