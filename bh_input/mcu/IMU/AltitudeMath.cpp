#include "bh_input/mcu/IMU/AltitudeMath.h"

#include <cstdio>

void printMatrix3X3(const float m[3][3]) {
    for (int i = 0; i < 3; i++)
        std::printf("%f %f %f\n", m[i][0], m[i][1], m[i][2]);
}

void vecPrint(const float* a) {
    std::printf("%f %f %f\n", a[0], a[1], a[2]);
}
