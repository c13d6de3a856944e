# The inertial algorithms (no hardware knowledge), built as kov_inertial.
set(KOV_INERTIAL_SOURCES
    RTMath.h RTMath.cpp
    ComplementaryFilter.h ComplementaryFilter.cpp
    FusionBias.h FusionBias.cpp
    IMUStatus.h IMUStatus.cpp
    AltitudeMath.h AltitudeMath.cpp
    AltitudeKalmanFilter.h AltitudeKalmanFilter.cpp
    AltitudeComplementaryFilter.h AltitudeComplementaryFilter.cpp
    AltitudeEstimator.h AltitudeEstimator.cpp)
