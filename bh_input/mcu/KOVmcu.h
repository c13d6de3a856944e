#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Eigen/Core>

#include "bh_input/mcu/IMU/AltitudeEstimator.h"
#include "bh_input/mcu/IMU/ComplementaryFilter.h"
#include "bh_input/mcu/IMU/FusionBias.h"
#include "bh_input/mcu/IMU/IMUStatus.h"
#include "bh_input/mcu/IMU/RTMath.h"
#include "bh_input/mcu/IMU/VirtualIMUReader.h"
#include "bh_input/mcu/IMUCalibParam.h"
#include "bh_input/mcu/IMUPacket.h"
#include "bh_input/mcu/KOVmcuModels.h"
#include "bh_input/mcu/synchronizedQVector.h"

namespace bh {

// The rotation from the reader's frame to the image's (row-major).
const Eigen::Matrix3f& Reader2ImageRotation();

// The full calibration matrices in the image frame (exportCalib).
struct IMUCalibExport {
    Eigen::Matrix3f acc_scale = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f acc_missalign = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f acc_full = Eigen::Matrix3f::Identity();
    Eigen::Vector3f acc_bias = Eigen::Vector3f::Zero();
    Eigen::Matrix3f gyro_scale = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f gyro_missalign = Eigen::Matrix3f::Identity();
    Eigen::Matrix3f gyro_full = Eigen::Matrix3f::Identity();
    Eigen::Vector3f gyro_bias = Eigen::Vector3f::Zero();  // degrees per second
};

// The sensor engine: owns the MCU reader, turns the EEPROM image into a
// calibration, runs the fusion thread that makes one IMUPacket per sample, and
// writes calibration back to the MCU.
class KOVmcu {
public:
    // Builds the reader the model calls for: HID for the USB models, the
    // inertial chip on I2C (IMUGMSLReader) for the GMSL ones. A test may
    // register another GMSL factory; with an empty one the engine has no
    // reader and open() answers FAILURE.
    KOVmcu(bool verbose, uint16_t vendor_id, MODEL model, bool allow_recording = false,
           std::string sid_path = "./imu.sid");
    // Takes a reader that is already built (GMSL layer, tests, benchmarks).
    KOVmcu(bool verbose, uint16_t vendor_id, MODEL model, std::unique_ptr<VirtualIMUReader> reader);
    ~KOVmcu();

    KOVmcu(const KOVmcu&) = delete;
    KOVmcu& operator=(const KOVmcu&) = delete;

    using ReaderFactory =
        std::function<std::unique_ptr<VirtualIMUReader>(bool verbose, uint16_t vendor_id, uint16_t product_id,
                                                        bool allow_recording, const std::string& sid_path)>;
    // The reader of the GMSL models; an empty function removes it.
    static void setGMSLReaderFactory(ReaderFactory factory);

    // ---- lifecycle
    MCU_STATUS open(unsigned int serial, bool skip_eeprom, _imu_odr rate, float* bias = nullptr,
                    float* variance = nullptr, bool recover = true, bool force = false);
    void close();
    bool startCapture(float yaw);
    bool stopCapture();
    void resetPosition(float unused = 0.f);

    int getMCUSerialNumber();
    int getMCUFirmwareVersion();
    bool getMCUDataSavingTime(std::string& text);
    bool hasMCUSyncCapabilities();
    Eigen::Matrix4f getIMUCameraTransform();
    McuSensorReport getIMUReaderData();
    int getIMUReaderNtpCount();
    void setIMUReaderTSOffset(uint64_t offset);
    bool getGyroRawData(short* x, short* y, short* z);
    bool getAccelRawData(short* x, short* y, short* z);

    // ---- data pipeline
    IMUPose getIMUPose(int offset = 0);
    IMUPose getIMUPoseAtImage(int offset = 0);
    IMUPose getClosestIMUPoseSubImage(uint64_t timestamp, int offset = 0);
    IMUPose getIMUPoseFromAccel(int offset, bool use_image_frame);
    std::vector<IMUPacket> getIMUPacketBatch(uint64_t start, uint64_t end);
    void setPriorOrientation(IMUPacket& packet);
    void setResetQuaternion(float w, float x, float y, float z);

    IMUPose transformData(const IMUPacket& packet, bool with_velocity);
    IMUPacket convertFromRTIMUData(const RTIMU_DATA& data) const;
    void calculateFirstIMUData(RTIMU_DATA& data, RTQuaternion& quaternion, bool use_given);

    static void calcMagHeading(IMUPacket& packet);
    static float calcMagHeading(const Eigen::Vector3f& mag, const Eigen::Vector3f& acc);
    static Eigen::Vector4f toQuaternion(double roll, double pitch, double yaw);  // w, x, y, z
    static float convertPressureToAltitude(float pressure, float reference, float temperature);

    void getGyroValue(Eigen::Vector3f& value, bool calibrated, bool remove_bias);
    void getAccelValue(Eigen::Vector3f& value, bool calibrated);
    Eigen::Matrix4f getPoseInImuFromPoseInImage(const Eigen::Matrix4f& pose_in_image) const;
    void estimateTranslation(float dt);
    void resetTranslation();
    Eigen::Vector3f getNGAcc();
    static void seuilVelocity(Eigen::Vector3f& value, float band);
    static void clampVelocity(Eigen::Vector3f& value, float limit);
    static float keepInsideRange(float value, float low, float high);

    // Thread internals, public so that a benchmark can run one round alone.
    bool readIMUData();
    void updateTime();
    void runIMUFusion();
    void beginFusion();  // step before the loop of the fusion thread
    bool fusionRound();  // one round; true when a packet was pushed

    // ---- calibration procedures
    void setCalibrationParameters(IMUCalibParam& param);
    void updateCameraIMUcalibration();
    MCU_STATUS calibrateIMU(std::vector<float>& values, int samples);
    MCU_STATUS calibrateIMU(std::vector<float>& bias, std::vector<float>& variance, int samples);
    MCU_STATUS calibrateIMU(calibrationIMUParams& params);
    bool calibrateIMUInternal(Eigen::Vector3f& acc, Eigen::Vector3f& gyro, int samples);
    bool calibrateIMUInternal(Eigen::Vector3f& gyro_bias, Eigen::Vector3f& acc_bias,
                              Eigen::Vector3f& gyro_variance, Eigen::Vector3f& acc_variance, int samples);
    int doImuRetrimming();

    // ---- EEPROM write-back
    MCU_STATUS writeSNinEEprom(int prefix, int body);
    MCU_STATUS writeBiasinEEprom(std::vector<float>& values, bool keep_stopped = false);
    MCU_STATUS writeVarianceinEEprom(std::vector<float>& values, bool keep_stopped = false);
    MCU_STATUS writeVarianceinEEprom(variance_data& values, bool keep_stopped = false);
    MCU_STATUS writeBarometerCalibInEEprom(float scale, float offset);
    MCU_STATUS writeKlibinEEprom(float x, float y, float z, bool keep_stopped = false);
    MCU_STATUS writeExtendedGyroCalibInEEprom(_extended_gyro_calib_data& data, bool keep_stopped = false);
    MCU_STATUS writeExtendedAccCalibInEEprom(_extended_acc_calib_data& data, bool keep_stopped = false);
    MCU_STATUS writeMagCalibInEEprom(_mag_calib_data& data);
    MCU_STATUS writeMonoCalibinEEprom(int resolution, int side, calib_mono_data& data);
    MCU_STATUS writeStereoCalibinEEprom(float p0, float p1, float p2, float* block1, float* block2,
                                        float* block3);
    MCU_STATUS writeStereoCalibinEEprom(_calib_stereo_data& data);
    MCU_STATUS writeImuFrequencyinEEprom(_imu_odr rate);
    // pairs: per resolution r, (side 0, side 1) mono records.
    MCU_STATUS writeFullCalibinEEprom(std::vector<std::pair<calib_mono_data, calib_mono_data>>& pairs,
                                      _calib_stereo_data& stereo, _extended_acc_calib_data& acc,
                                      _extended_gyro_calib_data& gyro, _mag_calib_data& mag,
                                      variance_data& variance, _bias_data& bias);
    MCU_STATUS formatFullEEprom(int prefix, int body);
    MCU_STATUS readFullEEprom(eepromMemoryStrc& out);
    MCU_STATUS switchToDFU();
    MCU_STATUS resetOV580();
    MCU_STATUS resetHW();
    IMUCalibExport exportCalib();
    bool writeInFileEepromMemory();

    // ---- state (plain data, as the other layers refer to it)
    float accel_lsb = 1.f / 4096.f;
    float gyro_lsb = 1000.f / 32768.f;
    float barometer_scale = 1.f;
    float barometer_offset = 0.f;
    uint8_t debug_static = 0;

    imu_tools::ComplementaryFilter filter;
    FusionBias fusion_bias;
    std::unique_ptr<IMUStatus> imu_status;
    std::unique_ptr<AltitudeEstimator> altitude_estimator;

    std::unique_ptr<VirtualIMUReader> imu_reader;
    uint8_t verbose = 0;

    std::atomic<bool> running{false};
    std::thread capture_thread;
    std::atomic<bool> thread_started{false};
    std::atomic<bool> first_sample_seen{false};

    IMUCalibParam calib;
    eepromMemoryStrc eeprom{};

    synchronizedQVector<IMUPacket> imu_queue;
    synchronizedQVector<IMUPacket> batch_queue;
    synchronizedQVector<IMUPacket> sync_queue;

    MODEL model = KOV;
    BH_DEVICE device = BH_DEVICE_NONE;
    MCUModelInfo model_info;
    uint16_t vendor_id = 0;

    float start_yaw = 0.f;
    std::atomic<bool> reset_orientation{false};
    RTQuaternion current_orientation;  // guarded by queue_mutex

    // rate of the stream in Hz, as open set it
    int rate_hz = 800;
    // camera to IMU transform (translation in metres), built at every start
    Eigen::Matrix4f cam_imu_transform = Eigen::Matrix4f::Identity();
    Eigen::Vector3f imu_position_default = Eigen::Vector3f::Zero();

    // The engine's mutex over the queues (and the current orientation).
    std::mutex queue_mutex;

    // External orientation (setPriorOrientation): own mutex and mark.
    std::mutex prior_mutex;
    std::atomic<bool> prior_pending{false};
    Eigen::Vector4f prior_quaternion = Eigen::Vector4f(1.f, 0.f, 0.f, 0.f);  // w, x, y, z

    // Last pose delivered by the getters.
    IMUPose last_delivered;

    // ---- fusion thread state
    RTIMU_DATA sample;
    Eigen::Vector3f previous_acc = Eigen::Vector3f::Zero();  // engine frame, g
    uint64_t previous_timestamp = 0;
    uint32_t round_counter = 0;
    uint32_t first_estimate_target = 4;
    double pressure_sum = 0.0;
    int pressure_count = 0;
    float last_pressure = 0.f;
    float reference_pressure = 0.f;  // 0: not yet known

    // translation estimate
    int translation_state = 0;
    uint32_t translation_counter = 0;
    Eigen::Vector3f trans_acc_prev = Eigen::Vector3f::Zero();
    Eigen::Vector3f trans_velocity = Eigen::Vector3f::Zero();
    Eigen::Vector3f trans_velocity_prev = Eigen::Vector3f::Zero();
    Eigen::Vector3f trans_position = Eigen::Vector3f::Zero();
    // copies of the translation estimate for the getters (under queue_mutex)
    Eigen::Vector3f pose_position = Eigen::Vector3f::Zero();
    Eigen::Vector3f pose_velocity = Eigen::Vector3f::Zero();

    // Waits (ms) of startCapture for the first sample: rounds of 5 ms.
    int first_sample_wait_rounds = 1002;

private:
    void construct(bool verbose_flag, uint16_t vendor, MODEL model_value);
    void fillCalibrationFromEeprom();
    bool writePrologue(const char* where, bool& stream_was_on, bool stop_capture = true);
    MCU_STATUS writeEpilogue(bool stream_was_on, bool reread, bool camera_calib);
    MCU_STATUS checkReader(const char* where);
    void pushPacket(const IMUPacket& packet, const RTQuaternion& orientation);
};

}  // namespace bh
