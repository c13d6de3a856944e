#include "diagnostic/ConsoleColor.h"

#include <cstdio>

void setDefaultConsoleColor() {
    std::fputs("\033[37m", stdout);
}
void setRedConsoleColor() {
    std::fputs("\033[31m", stdout);
}
void setOrangeConsoleColor() {
    std::fputs("\033[33m", stdout);
}
void setGreenConsoleColor() {
    std::fputs("\033[32m", stdout);
}
void setBlueConsoleColor() {
    std::fputs("\033[34m", stdout);
}
// The same sequence as the default colour.
void setGrayConsoleColor() {
    std::fputs("\033[37m", stdout);
}
