// "Graphics Card" against the stand-in CUDA runtime (devices from the
// environment) and the stand-in glxinfo on PATH.
#include "diagnostic/GPUNode.h"

#include "StandinTestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

using testsupport::ScopedEnv;

namespace {

struct GpuTest : public ::testing::Test {
    ScopedEnv env;
    void SetUp() override {
        env.unset("KOV_STANDIN_CUDA_COUNT_RESULT");
        env.unset("KOV_STANDIN_CUDA_DRIVER_RESULT");
        env.unset("KOV_STANDIN_CUDA_DRIVER_VERSION");
        env.unset("KOV_STANDIN_GLXINFO_FILE");
    }
    QJsonObject run(GPUNode& node, const std::string& devices) {
        env.set("KOV_STANDIN_CUDA_DEVICES", devices);
        node.stepPause = std::chrono::milliseconds(0);
        QJsonObject result;
        node.runDiagnostic(result);
        EXPECT_EQ(node.getPercent(), 100.f);
        return result;
    }
};

size_t count(GPUNode& node, DIAGNOSTIC_MESSAGE_LEVEL level) {
    return node.getSpecificMessageList(level).size();
}

}  // namespace

TEST_F(GpuTest, OrinIsAmpereAndValid) {
    GPUNode node;
    const QJsonObject r = run(node, "Orin|8.7|16|32000000000");
    EXPECT_EQ(r.value("initResult").toInt(-1), 0);
    EXPECT_EQ(r.value("deviceCount").toInt(), 1);
    const QJsonArray devices = r.value("devices").toArray();
    ASSERT_EQ(devices.size(), 1);
    const QJsonObject d = devices[0].toObject();
    EXPECT_EQ(d.value("name").toString(), "Orin");
    EXPECT_EQ(d.value("computeCapability").toString(), "8.7");
    EXPECT_EQ(d.value("arch").toString(), "Ampere");
    EXPECT_EQ(d.value("cores").toInt(), 16 * 128);
    EXPECT_EQ(d.value("totalMemoryBytes").toString(), "32000000000");
    EXPECT_NEAR(d.value("totalMemoryMB").toDouble(), 32000000000.0 / 1024 / 1024, 1.0);
    EXPECT_EQ(r.value("deviceDriverVersion").toInt(), 12020);
    EXPECT_TRUE(r.value("glx_info").toString().contains("OpenGL vendor string: NVIDIA Corporation"));
    EXPECT_FALSE(r.value("glx_info").toString().contains("name of display"));
    EXPECT_EQ(count(node, DIAGNOSTIC_ERROR), 0u);
    ASSERT_EQ(node.getSpecificMessageList(DIAGNOSTIC_VALID),
              std::vector<std::string>{"<b>Graphics card: </b> Orin"});
    EXPECT_FALSE(r.contains("error"));
    EXPECT_FALSE(node.driverFailed);
    EXPECT_TRUE(node.cudaAvailable);
}

TEST_F(GpuTest, RuntimeWithoutDevice) {
    GPUNode node;
    const QJsonObject r = run(node, "");
    EXPECT_FALSE(r.contains("deviceCount"));
    EXPECT_FALSE(r.contains("devices"));
    ASSERT_EQ(count(node, DIAGNOSTIC_ERROR), 1u);
    EXPECT_EQ(
        node.getSpecificMessageList(DIAGNOSTIC_ERROR)[0],
        "No CUDA-compatible graphics card detected. Install an NVIDIA GPU and reboot after the CUDA/drivers "
        "installation.");
    EXPECT_EQ(r.value("deviceDriverVersion").toInt(), 12020);
}

TEST_F(GpuTest, FailingDeviceCountIsUnableToDetect) {
    env.set("KOV_STANDIN_CUDA_COUNT_RESULT", "35");
    GPUNode node;
    const QJsonObject r = run(node, "Orin|8.7|16|1000");
    EXPECT_FALSE(r.contains("devices"));
    ASSERT_EQ(count(node, DIAGNOSTIC_ERROR), 1u);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR)[0], gpuUnableToDetectMessage());
    EXPECT_NE(
        gpuUnableToDetectMessage().find("Unable to detect your graphics card. Please install/repair <a "
                                        "href='https://download.brennhaven.com/cuda12_2_web' style='color: "
                                        "#d9ff42;' >CUDA</a>"),
        std::string::npos);
    EXPECT_TRUE(r.contains("deviceDriverVersion"));
}

TEST_F(GpuTest, PascalWithoutHighEndNameWarnsOnlyForAR) {
    {
        GPUNode node(true);
        run(node, "NVIDIA GeForce GTX 1060|6.1|10|6000000000");
        ASSERT_EQ(count(node, DIAGNOSTIC_WARNING), 1u);
        EXPECT_EQ(
            node.getSpecificMessageList(DIAGNOSTIC_WARNING)[0],
            "<b>Graphics card: </b> NVIDIA GeForce GTX 1060 <br/> A GTX 1070 or greater is recommended for "
            "AR/MR applications.");
        EXPECT_EQ(count(node, DIAGNOSTIC_VALID), 0u);
    }
    {
        GPUNode node(false);
        run(node, "NVIDIA GeForce GTX 1060|6.1|10|6000000000");
        EXPECT_EQ(count(node, DIAGNOSTIC_WARNING), 0u);
        EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_VALID),
                  std::vector<std::string>{"<b>Graphics card: </b> NVIDIA GeForce GTX 1060"});
    }
}

TEST_F(GpuTest, TitanAndHighEndPascalAreValidForAR) {
    for (const char* name : {"NVIDIA TITAN Xp", "GeForce GTX 1080 Ti", "GeForce GTX 1070"}) {
        GPUNode node(true);
        run(node, std::string(name) + "|6.1|30|12000000000");
        EXPECT_EQ(count(node, DIAGNOSTIC_WARNING), 0u) << name;
        EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_VALID),
                  std::vector<std::string>{std::string("<b>Graphics card: </b> ") + name});
    }
}

TEST_F(GpuTest, MaxwellAndKeplerWarnForAR) {
    for (const char* cc : {"5.2", "3.5"}) {
        GPUNode ar(true);
        run(ar, std::string("Old card|") + cc + "|4|1000");
        EXPECT_EQ(count(ar, DIAGNOSTIC_WARNING), 1u) << cc;
        GPUNode plain(false);
        run(plain, std::string("Old card|") + cc + "|4|1000");
        EXPECT_EQ(count(plain, DIAGNOSTIC_WARNING), 0u) << cc;
        EXPECT_EQ(count(plain, DIAGNOSTIC_VALID), 1u) << cc;
    }
}

TEST_F(GpuTest, FermiAndTeslaAreNotSupported) {
    for (bool ar : {false, true}) {
        for (const char* cc : {"2.1", "1.3"}) {
            GPUNode node(ar);
            run(node, std::string("Ancient|") + cc + "|2|1000");
            const auto errors = node.getSpecificMessageList(DIAGNOSTIC_ERROR);
            // The compute capability error and the "not supported" one.
            ASSERT_EQ(errors.size(), 2u) << cc;
            EXPECT_EQ(errors[1],
                      "<b>Graphics card: </b> Ancient <br/> This graphics card is not supported by CUDA 12.2 "
                      "and KOV SDK.");
        }
    }
}

TEST_F(GpuTest, AdaRaisesTheCapabilityErrorAndKeepsItsArchitecture) {
    GPUNode node;
    const QJsonObject r = run(node, "NVIDIA GeForce RTX 4090|8.9|128|24000000000");
    const QJsonObject d = r.value("devices").toArray()[0].toObject();
    EXPECT_EQ(d.value("arch").toString(), "Ada Lovelace");
    EXPECT_EQ(d.value("computeCapability").toString(), "8.9");
    EXPECT_EQ(d.value("cores").toInt(), 128 * 128);
    const auto errors = node.getSpecificMessageList(DIAGNOSTIC_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(
        errors[0],
        "The graphics card compute capabilities doesn't match the requirements. Should be 5.3 for Jetson "
        "TX1/Nano // 6.2 for Jetson TX2 // 7.2 for XAVIER // 8.7 for ORIN but detected 8.9. <a "
        "href='https://developer.nvidia.com/cuda-gpus' style='color: #d9ff42;' >Compute Capabilities</a>");
    // The run goes on to the valid line of the card.
    EXPECT_EQ(count(node, DIAGNOSTIC_VALID), 1u);
}

TEST_F(GpuTest, VoltaCountsMultiprocessorsTimes128) {
    GPUNode node;
    const QJsonObject r = run(node, "Tesla V100|7.0|80|16000000000");
    const QJsonObject d = r.value("devices").toArray()[0].toObject();
    EXPECT_EQ(d.value("arch").toString(), "Volta");
    EXPECT_EQ(d.value("cores").toInt(), 80 * 128);
}

TEST_F(GpuTest, JetsonCapabilitiesRaiseNoCapabilityError) {
    GPUNode node;
    const QJsonObject r = run(node, "Nano|5.3|1|4000;TX2|6.2|2|8000;Xavier|7.2|8|16000;Orin|8.7|16|32000");
    EXPECT_EQ(r.value("deviceCount").toInt(), 4);
    EXPECT_EQ(r.value("devices").toArray().size(), 4);
    EXPECT_EQ(count(node, DIAGNOSTIC_ERROR), 0u);
    EXPECT_EQ(count(node, DIAGNOSTIC_VALID), 4u);
    EXPECT_EQ(r.value("devices").toArray()[2].toObject().value("arch").toString(), "Volta");
}

TEST_F(GpuTest, DriverCallFailing) {
    env.set("KOV_STANDIN_CUDA_DRIVER_RESULT", "3");
    GPUNode node;
    const QJsonObject r = run(node, "Orin|8.7|16|1000");
    EXPECT_TRUE(node.driverFailed);
    EXPECT_FALSE(r.contains("deviceDriverVersion"));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR),
              std::vector<std::string>{gpuUpdateDriversMessage()});
}

TEST_F(GpuTest, OldDriverIsStoredWithTheError) {
    env.set("KOV_STANDIN_CUDA_DRIVER_VERSION", "7050");
    GPUNode node;
    const QJsonObject r = run(node, "Orin|8.7|16|1000");
    EXPECT_FALSE(node.driverFailed);
    EXPECT_EQ(r.value("deviceDriverVersion").toInt(), 7050);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR),
              std::vector<std::string>{
                  "Your graphics drivers need to be updated. Please download the latest drivers "
                  "from <a href='https://download.brennhaven.com/nvidia/driver' style='color: "
                  "#d9ff42;' >NVIDIA website</a>."});
}

TEST_F(GpuTest, MissingGlxinfoLeavesAnEmptyText) {
    ScopedEnv path("PATH", "/nonexistent-bin:/bin");
    GPUNode node;
    const QJsonObject r = run(node, "Orin|8.7|16|1000");
    ASSERT_TRUE(r.contains("glx_info"));
    EXPECT_EQ(r.value("glx_info").toString(), "");
}

TEST_F(GpuTest, MalformedDeviceEntriesDoNotCrash) {
    GPUNode node;
    const QJsonObject r = run(node, "||;x|abc|zz|-5");
    EXPECT_EQ(r.value("deviceCount").toInt(), 2);
    EXPECT_EQ(r.value("devices").toArray()[1].toObject().value("arch").toString(), "unknown");
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST(GpuArchitecture, TableRows) {
    struct Row {
        int major, minor;
        const char* arch;
        int perSm;
    };
    const Row rows[] = {{1, 3, "Tesla", 0},    {2, 0, "Fermi", 32},         {2, 1, "Fermi", 48},
                        {3, 7, "Kepler", 192}, {5, 3, "Maxwell", 128},      {6, 0, "Pascal", 64},
                        {6, 1, "Pascal", 128}, {6, 2, "Pascal", 0},         {7, 0, "Volta", 128},
                        {7, 2, "Volta", 128},  {7, 5, "Turing", 128},       {8, 0, "Ampere", 128},
                        {8, 8, "Ampere", 128}, {8, 9, "Ada Lovelace", 128}, {9, 0, "Hopper", 128},
                        {4, 0, "unknown", 0},  {10, 0, "unknown", 0},       {0, 0, "unknown", 0}};
    for (const Row& r : rows) {
        std::string arch;
        int cores = -1;
        gpuArchitecture(r.major, r.minor, 10, arch, cores);
        EXPECT_EQ(arch, r.arch) << r.major << "." << r.minor;
        EXPECT_EQ(cores, 10 * r.perSm) << r.major << "." << r.minor;
    }
}
