// A planted violation: the seam check must reject this file.
int f() { return ::open("/dev/video0", 0); }
void g() { libusb_init(nullptr); }
