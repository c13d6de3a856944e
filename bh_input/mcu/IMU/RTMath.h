// Small single-precision vector, quaternion and 4x4 matrix types used to pass
// inertial data between the sensor engine and the filters. Angles in radians.
#pragma once

#include <cstdint>

typedef float RTFLOAT;

#define RTMATH_PI 3.1415926535
#define RTMATH_DEGREE_TO_RAD (RTMATH_PI / 180.0)
#define RTMATH_RAD_TO_DEGREE (180.0 / RTMATH_PI)

class RTQuaternion;
class RTMatrix4x4;

class RTVector3 {
public:
    RTVector3();
    RTVector3(RTFLOAT x, RTFLOAT y, RTFLOAT z);
    RTVector3(const RTVector3&) = default;

    RTVector3& operator=(const RTVector3& vec);
    const RTVector3& operator+=(const RTVector3& vec);
    const RTVector3& operator-=(const RTVector3& vec);

    static RTFLOAT dotProduct(const RTVector3& a, const RTVector3& b);
    static void crossProduct(const RTVector3& a, const RTVector3& b, RTVector3& out);

    // Roll (x) and pitch (y) of the gravity vector; z is set to `yaw`.
    void accelToEuler(RTVector3& rollPitchYaw, RTFLOAT yaw = 0) const;
    // Quaternion that tilts (0, 0, 1) onto this vector; prints it on stdout.
    void accelToQuaternion(RTQuaternion& qPose, bool flag = false) const;
    RTFLOAT length() const;
    void normalize();
    void zero();

    inline RTFLOAT x() const { return m_data[0]; }
    inline RTFLOAT y() const { return m_data[1]; }
    inline RTFLOAT z() const { return m_data[2]; }
    inline RTFLOAT data(const int i) const { return m_data[i]; }

    inline void setX(const RTFLOAT val) { m_data[0] = val; }
    inline void setY(const RTFLOAT val) { m_data[1] = val; }
    inline void setZ(const RTFLOAT val) { m_data[2] = val; }
    inline void setData(const int i, RTFLOAT val) { m_data[i] = val; }
    inline void fromArray(const RTFLOAT* val) {
        m_data[0] = val[0];
        m_data[1] = val[1];
        m_data[2] = val[2];
    }
    inline void toArray(RTFLOAT* val) const {
        val[0] = m_data[0];
        val[1] = m_data[1];
        val[2] = m_data[2];
    }

    RTFLOAT m_data[3];
};

class RTQuaternion {
public:
    RTQuaternion();
    RTQuaternion(RTFLOAT scalar, RTFLOAT x, RTFLOAT y, RTFLOAT z);
    RTQuaternion(const RTQuaternion&) = default;

    RTQuaternion& operator+=(const RTQuaternion& quat);
    RTQuaternion& operator-=(const RTQuaternion& quat);
    RTQuaternion& operator*=(const RTQuaternion& qb);  // Hamilton product
    RTQuaternion& operator*=(const RTFLOAT val);
    RTQuaternion& operator-=(const RTFLOAT val);  // subtracted from all four components

    RTQuaternion& operator=(const RTQuaternion& quat);
    const RTQuaternion operator*(const RTQuaternion& qb) const;
    const RTQuaternion operator*(const RTFLOAT val) const;
    const RTQuaternion operator-(const RTQuaternion& qb) const;
    const RTQuaternion operator-(const RTFLOAT val) const;

    void normalize();  // a length of exactly 0 or 1 is left alone
    void toEuler(RTVector3& vec) const;
    void fromEuler(const RTVector3& vec);
    RTQuaternion conjugate() const;
    // Rotation angle and axis. Only the x component takes part in the axis:
    // all three components of `vec` are x / sin(angle / 2).
    void toAngleVector(RTFLOAT& angle, RTVector3& vec) const;
    void fromAngleVector(const RTFLOAT& angle, const RTVector3& vec);

    void zero();

    inline RTFLOAT scalar() const { return m_data[0]; }
    inline RTFLOAT x() const { return m_data[1]; }
    inline RTFLOAT y() const { return m_data[2]; }
    inline RTFLOAT z() const { return m_data[3]; }
    inline RTFLOAT data(const int i) const { return m_data[i]; }

    inline void setScalar(const RTFLOAT val) { m_data[0] = val; }
    inline void setX(const RTFLOAT val) { m_data[1] = val; }
    inline void setY(const RTFLOAT val) { m_data[2] = val; }
    inline void setZ(const RTFLOAT val) { m_data[3] = val; }
    inline void setData(const int i, RTFLOAT val) { m_data[i] = val; }
    inline void fromArray(const RTFLOAT* val) {
        for (int i = 0; i < 4; i++)
            m_data[i] = val[i];
    }
    inline void toArray(RTFLOAT* val) const {
        for (int i = 0; i < 4; i++)
            val[i] = m_data[i];
    }

    RTFLOAT m_data[4];  // scalar, x, y, z
};

class RTMatrix4x4 {
public:
    RTMatrix4x4();  // all zeros
    RTMatrix4x4(const RTMatrix4x4&) = default;

    RTMatrix4x4& operator+=(const RTMatrix4x4& mat);
    RTMatrix4x4& operator-=(const RTMatrix4x4& mat);
    RTMatrix4x4& operator*=(const RTFLOAT val);

    RTMatrix4x4& operator=(const RTMatrix4x4& vec);
    const RTQuaternion operator*(const RTQuaternion& q) const;  // q as a column of four
    const RTMatrix4x4 operator*(const RTFLOAT val) const;
    const RTMatrix4x4 operator*(const RTMatrix4x4& mat) const;
    const RTMatrix4x4 operator+(const RTMatrix4x4& mat) const;

    inline RTFLOAT val(int row, int col) const { return m_data[row][col]; }
    inline void setVal(int row, int col, RTFLOAT val) { m_data[row][col] = val; }
    void fill(RTFLOAT val);
    void setToIdentity();

    RTMatrix4x4 inverted() const;  // the identity when singular
    RTMatrix4x4 transposed() const;
    RTFLOAT matDet() const;
    RTFLOAT matMinor(const int row, const int col) const;

    RTFLOAT m_data[4][4];  // row-major
};

class RTMath {
public:
    // Display helpers: format into one shared buffer and return it. Not
    // thread-safe; each call overwrites the previous text.
    static const char* displayRadians(const char* label, const RTVector3& vec);
    static const char* displayDegrees(const char* label, const RTVector3& vec);
    static const char* display(const char* label, const RTQuaternion& quat);
    static const char* display(const char* label, const RTMatrix4x4& mat);

    // Height in metres from pressure and reference pressure (same unit).
    static RTFLOAT convertPressureToHeight(RTFLOAT pressure, RTFLOAT staticPressure = 1013.25);
    // Three signed 16-bit values, byte-swapped if bigEndian, times scale.
    static void convertToVector(const unsigned char* rawData, RTVector3& vec, RTFLOAT scale, bool bigEndian);
    // Roll and pitch from gravity, yaw from the tilt-compensated magnetic field.
    static RTVector3 poseFromAccelMag(const RTVector3& accel, const RTVector3& mag);

private:
    static char m_string[1000];
};
