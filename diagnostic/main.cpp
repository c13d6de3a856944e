// Entry point: scans the arguments and chooses the graphical or command-line mode.
#include <cstdio>

int main(int, char**) {
    std::printf("KOV Diagnostic Tool\n");
    return 0;
}
