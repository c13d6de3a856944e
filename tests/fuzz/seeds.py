#!/usr/bin/env python3
"""Writes the hand-made seed inputs of the fuzz targets into corpus/<name>/.

Each seed follows the input layout described at the top of its target's
source, field after field; device answers use the convention of
FuzzSupport.h (kind byte 0 fails, 1 answers nothing, 2 answers a length byte
and that many bytes). Run it again after changing a layout:

    python3 tests/fuzz/seeds.py

The scenario seeds are the shipped scenarios of sim/scenarios, copied by hand.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def ans(data):
    """A successful device answer carrying `data`."""
    assert len(data) <= 255
    return bytes([2, len(data)]) + bytes(data)


NOTHING = b"\x01"  # success, nothing written
FAIL = b"\x00"  # failure


def text(s):
    b = s.encode() if isinstance(s, str) else s
    return bytes([len(b)]) + b


def floats(*values):
    return struct.pack("<%df" % len(values), *values)


# --- the MCU --------------------------------------------------------------

def report(report_id, ticks, acc_z=4096, frame_sync=0, sync_count=0, imu_temp=2500, mag_valid=0,
           env_valid=0, pressure=101325, humidity=40960, env_temp=2300):
    """One 62-byte sample report off the interrupt stream."""
    r = struct.pack("<BBQhhhhhhBBIhBhhh5sB4sBhIIhh", report_id, 0, ticks, 10, -5, 3, 12, -20, acc_z,
                    frame_sync, 1, sync_count, imu_temp, mag_valid, 320, -160, 480, b"\0" * 5, 0,
                    b"\0" * 4, env_valid, env_temp, pressure, humidity, 3100, 3150)
    assert len(r) == 62
    return r


def serial_record(rid, prefix=2, body=1234567):
    return struct.pack("<Bii", rid, prefix, body)


def bias_record(rid):
    return bytes([rid]) + floats(0.001, -0.002, 0.0005, 0.01, -0.02, 0.005)


def variance_record(rid):
    return bytes([rid]) + floats(1e-5, 2e-5, 3e-5, 4e-4, 5e-4, 6e-4)


def cam_imu_record(rid):
    return bytes([rid]) + floats(0.01, -0.02, 0.003)


def mono_record(rid):
    return bytes([rid]) + floats(*[700.0, 700.0, 640.0, 360.0] + [0.0] * 8)


def stereo_record(rid):
    return bytes([rid]) + floats(*[120.0, 0.0, 0.0] + [0.0] * 12)


def barom_record(rid):
    return bytes([rid]) + floats(0.0, 1.0)


def ext_gyro_record(rid):
    return bytes([rid]) + floats(*[1.0, 1.0, 1.0] + [0.001] * 6 + [0.0] * 3 + [0.0] * 3)


def ext_acc_record(rid):
    return bytes([rid]) + floats(*[1.0, 1.0, 1.0] + [0.001] * 3 + [0.0] * 3 + [0.0] * 3)


def mag_record(rid):
    return bytes([rid]) + floats(1.0, 1.0, 1.0, 0.0, 0.0, 0.0)


def date_record(rid):
    t = b"2025/01/01 00:00:00 UTC"
    return bytes([rid, 1]) + t + b"\0" * (24 - len(t))


def image(serial_prefix=2):
    """A whole 697-byte EEPROM image as a calibrated camera holds it."""
    img = (serial_record(0x33, serial_prefix) + bias_record(0x34) + variance_record(0x35) +
           cam_imu_record(0x36) + b"".join(mono_record(0x37 + i) for i in range(8)) + stereo_record(0x3F) +
           barom_record(0x40) + ext_gyro_record(0x41) + ext_acc_record(0x42) + mag_record(0x43) +
           bytes([0x44, 2]) + date_record(0x45))
    assert len(img) == 697, len(img)
    return img


def identity(release, path="0001:0009:00", serial="12345678", flags=0):
    return bytes([flags]) + struct.pack("<H", release) + text(path) + text(serial)


# The answers an open of a programmed MCU takes: the USB recovery on its path
# (init succeeds, an empty device list), then the open of the HID path.
OPEN = bytes([0, 0, 0]) + b"\x01"


def mcu_hid():
    stream = b""
    for i in range(12):
        stream += b"\x00\x00" + ans(report(1, 1000 + 256 * i, frame_sync=i % 3 == 0, sync_count=i // 3,
                                           mag_valid=2 if i % 4 == 0 else 1, env_valid=2 if i % 5 == 0 else 1))
    write("mcu_hid", "feature_stream", identity(0x305) + b"\x00" + OPEN + stream)

    eeprom = b"\x03\x01"  # read the EEPROM with the camera calibration
    eeprom += ans([0x32, 1]) + b"\x00"  # streaming: stopped first
    eeprom += ans(serial_record(0x33)) + ans(bias_record(0x34)) + ans(variance_record(0x35))
    eeprom += ans(cam_imu_record(0x36))
    eeprom += b"".join(ans(mono_record(0x37 + i)) for i in range(8)) + ans(stereo_record(0x3F))
    eeprom += ans(barom_record(0x40)) + ans(ext_gyro_record(0x41)) + ans(ext_acc_record(0x42))
    eeprom += ans(mag_record(0x43)) + ans([0x44, 2]) + ans(date_record(0x45))
    eeprom += b"\x00"  # streaming started again
    eeprom += b"\x0c" + ans(date_record(0x45))  # the date of the last calibration
    eeprom += b"\x0d" + ans([0x25, 3])  # retrimming status: done
    eeprom += b"\x1a" + struct.pack("<q", 5000000)  # time offset, then the getters
    write("mcu_hid", "feature_eeprom", identity(0x305) + b"\x00" + OPEN + eeprom)

    legacy = b"\x03\x00" + b"\x00"  # read the EEPROM: the command is written
    legacy += ans(serial_record(1)) + ans(bias_record(2)) + ans(variance_record(3)) + ans(cam_imu_record(4))
    for i in range(6):
        legacy += b"\x00\x00" + ans(report(0, 2000 + 32 * i, imu_temp=-300))
    write("mcu_hid", "legacy_eeprom_stream", identity(0x204) + b"\x00" + OPEN + legacy)

    # A long stream at 400 Hz (64 ticks of 39.0625 us make 2.5 ms a report), a frame trigger
    # every 5 reports, host time moving 2500 us a report: the clock pairing and the ping.
    burst = b"\x1b" + bytes([255]) + struct.pack("<H", 64) + bytes([5]) + struct.pack("<H", 2500)
    burst += report(1, 5000, env_valid=2)
    write("mcu_hid", "feature_long_stream", identity(0x305) + b"\x00" + OPEN + burst + burst + burst + burst)

    # An unprogrammed MCU asked to recover: the reset report is written, the
    # device is re-opened by the caller.
    write("mcu_hid", "unprogrammed_recover",
          identity(0x305, serial="990123456") + b"\x01" + bytes([0, 0, 0]) + b"\x01\x00" + b"\x1c\x00\x00" +
          bytes([0, 0, 0]))
    write("mcu_hid", "malformed_path", identity(0x305, path="zz:yy:00") + b"\x00" + b"\x01" + b"\x00\x00" +
          ans(report(1, 7)))
    write("mcu_hid", "empty_serial", identity(0x300, serial="") + b"\x02" + bytes([0, 0, 0]) + b"\x01")


def mcu_eeprom():
    stream = b"".join(report(1, 1000 + 64 * i, frame_sync=i % 4 == 0, env_valid=2 if i % 8 == 0 else 0)
                      for i in range(24))
    legacy_stream = b"".join(report(0, 1000 + 32 * i, imu_temp=100) for i in range(24))
    # flags: release index (bits 0-2), model (bits 3-4), streaming (bit 5), rate (bits 6-7)
    write("mcu_eeprom", "pico_0x305", bytes([6 | 1 << 3 | 2 << 6]) + image() + stream)
    write("mcu_eeprom", "tera_0x307_streaming", bytes([7 | 2 << 3 | 1 << 5 | 3 << 6]) + image() + stream)
    write("mcu_eeprom", "pico_legacy_0x204", bytes([1 | 1 << 3]) + image() + legacy_stream)
    write("mcu_eeprom", "pico_legacy_0x205", bytes([2 | 1 << 3]) + image() + legacy_stream)
    write("mcu_eeprom", "erased_image", bytes([6 | 1 << 3]) + b"\xff" * 697 + stream[:62 * 4])
    nan = struct.pack("<f", float("nan"))
    poisoned = bytearray(image())
    for offset in range(10, 697 - 30, 7):
        poisoned[offset:offset + 4] = nan
    write("mcu_eeprom", "nan_image", bytes([5 | 2 << 3]) + bytes(poisoned) + stream[:62 * 4])
    write("mcu_eeprom", "short_image", bytes([6 | 1 << 3]) + image()[:300])


def sid_recording():
    header = struct.pack("<IIf", 1, 21234567, 0.5) + image() + b"\0\0\0"
    assert len(header) == 712

    def record(i):
        r = report(1, 1000 + 256 * i) + b"\0\0" + floats(0.0, 0.0, 0.0, 1.0, 0.1, 0.2, 0.3) + b"\0" * 4
        return r + struct.pack("<Q", 1_700_000_000_000_000_000 + i * 33_333_333)

    assert len(record(0)) == 104
    write("sid_recording", "five_records", header + b"".join(record(i) for i in range(5)))
    write("sid_recording", "header_only", header)
    write("sid_recording", "partial_record", header + record(0) + record(1)[:50])
    write("sid_recording", "version_2", struct.pack("<I", 2) + header[4:] + record(0))
    write("sid_recording", "short_header", header[:100])


# --- the USB camera -------------------------------------------------------

CBS_LEN = ans([0x80, 0x01])  # GET_LEN: 384 bytes
OK = b"\x00"  # SET_CUR accepted


def cbs_reply(value_bytes):
    return ans(bytes(17) + bytes(value_bytes))


def vendor_control():
    cbs = b"\x01"
    cbs += b"\x0c" + struct.pack("<I", 0x80181002) + CBS_LEN + OK + cbs_reply([0x10])  # system register
    cbs += b"\x0d" + struct.pack("<I", 0x80181002) + b"\x00" + CBS_LEN + OK  # write it
    cbs += b"\x0e\x00\x01" + struct.pack("<I", 0x3503) + CBS_LEN + OK + cbs_reply([0x04])  # sensor 0
    cbs += b"\x14\x01" + CBS_LEN + OK + cbs_reply([0x00])  # AEC/AGC bit of sensor 1
    cbs += b"\x10\x02\x03" + CBS_LEN + OK + cbs_reply([0x01])  # GPIO value
    cbs += b"\x13" + struct.pack("<I", 0x18000) + struct.pack("<h", 64) + CBS_LEN + OK + cbs_reply(
        b"OV\x00\x12\x34\x56" + bytes(range(6, 64)))
    cbs += b"\x11\x01" + struct.pack("<I", 0x19000) + CBS_LEN + OK + CBS_LEN + OK + cbs_reply([0xFF])
    write("vendor_control", "cbs_registers_flash", cbs)

    old = b"\x00"
    old += b"\x00" + struct.pack("<I", 0x8018FFF0) + OK + ans([0x05])  # system read
    old += b"\x05" + OK + ans([0x02])  # AEC/AGC state
    old += b"\x07\x01\x00" + OK + ans([0x01, 0x02, 0x03])  # exposure
    old += b"\x0b" + struct.pack("<i", 0x18000) + struct.pack("<h", 64) + OK + ans(
        bytes(8) + b"\x00\x00VO" + bytes(52))  # flash read, groups of four reversed
    old += b"\x0a\x20" + bytes(range(32)) + OK  # flash program
    write("vendor_control", "old_channel", old)

    write("vendor_control", "cbs_length_too_long", b"\x01" + b"\x0c" + struct.pack("<I", 1) + ans([0xFF, 0xFF]))
    write("vendor_control", "cbs_length_zero", b"\x01" + b"\x16" + struct.pack("<h", 256) + ans([0, 0]))
    write("vendor_control", "refusals", b"\x00" + b"\x00\x01\x02\x03\x04" + b"\x16" + b"\x02\x00" + b"\x00" +
          b"\x01\x02\x03\x04\x05" + b"\x02")


def flash_record_old(marker, value_bytes):
    """The 64-byte reply of an old-firmware flash read: data from byte 8,
    each group of four bytes reversed."""
    data = marker + value_bytes + bytes(range(6, 56))
    reply = bytearray(64)
    for i in range(56):
        reply[8 + (i // 4) * 4 + (3 - i % 4)] = data[i]
    return bytes(reply)


def camera_flash():
    cbs = b"\x01"
    cbs += b"\x00" + CBS_LEN + OK + ans(bytes(17) + b"OV\x00\x12\x34\x56" + bytes(range(6, 64)))
    cbs += b"\x02" + CBS_LEN + OK + ans(bytes(17) + b"EP\x00\x00\x20\x00" + bytes(range(6, 64)))
    cbs += b"\x03" + CBS_LEN + OK + cbs_reply([0x05]) + CBS_LEN + OK + cbs_reply([0x23])
    # The firmware watch at frame 0 and 30 frames a second: sensor 0.
    watch = b"\x06\x1e\x01" + struct.pack("<I", 0)
    for value in (0x00, 0x40, 0x00):  # 0x3503, 0x3744, 0x3745 (each repaired)
        watch += CBS_LEN + OK + cbs_reply([value]) + CBS_LEN + OK
    for _ in range(4):  # the four lock registers read 0
        watch += CBS_LEN + OK + cbs_reply([0x00])
    cbs += watch
    cbs += b"\x07" + ans(bytes(16) + struct.pack("<I", 30))
    write("camera_flash", "cbs_records_version_watch", cbs)

    old = b"\x00"
    old += b"\x00" + OK + ans(flash_record_old(b"OV", b"\x00\x12\x34\x56"))
    old += b"\x02" + OK + ans(flash_record_old(b"EP", b"\x00\x00\x20\x00"))
    old += b"\x03" + OK + ans(struct.pack("<I", 1523))
    old += b"\x04" + struct.pack("<i", 12345678) + OK + OK + OK  # erase, address, program
    write("camera_flash", "old_records", old)
    write("camera_flash", "digits_not_decimal", b"\x00" + b"\x00" + OK + ans(flash_record_old(b"OV", b"\xab\xcd\xef\xff")))
    write("camera_flash", "first_frame_not_seen", b"\x03" + b"\x00\x02\x03" + CBS_LEN + OK + cbs_reply([0x99]))


def v4l2_buffer(index, length, bytesused, sec=0, usec=0, offset=0):
    b = bytearray(88)
    struct.pack_into("<IIII", b, 0, index, 1, bytesused, 0)
    struct.pack_into("<qq", b, 24, sec, usec)
    struct.pack_into("<I", b, 60, 1)
    struct.pack_into("<I", b, 64, offset)
    struct.pack_into("<I", b, 72, length)
    return bytes(b)


def v4l2_capture():
    frame = 64 * 8 * 2
    count = 4
    opening = b"\x01\x01"  # stat, open
    opening += NOTHING * 3  # QUERYCAP, CROPCAP, S_FMT (the size asked stays)
    opening += NOTHING  # S_PARM
    opening += NOTHING  # REQBUFS: the 4 buffers asked for
    for i in range(count):
        opening += ans(v4l2_buffer(i, frame, 0, offset=i * frame)) + b"\x01"  # QUERYBUF, mmap
    opening += NOTHING * count + NOTHING * 2  # QBUF each, S_PRIORITY, STREAMON
    producing = b"\x00"  # select: ready
    for n in range(12):
        producing += ans(v4l2_buffer(n % count, frame, frame, sec=1000 + n // 30, usec=(n % 30) * 33333))
        producing += NOTHING  # QBUF
    producing += ans(v4l2_buffer(1, frame, frame // 2)) + NOTHING + b"\x01"  # a short frame
    write("v4l2_capture", "small_frames", bytes([0, 4, 30]) + opening + producing + ans(bytes(16) + struct.pack("<I", 30)))
    write("v4l2_capture", "size_refused", bytes([2, 4, 0]) + b"\x01\x01" + NOTHING * 2 +
          ans(bytes(8) + struct.pack("<II", 1280, 720)))
    write("v4l2_capture", "no_buffers", bytes([1, 2, 15]) + b"\x01\x01" + NOTHING * 4 + ans(struct.pack("<I", 0)))
    write("v4l2_capture", "busy", bytes([0, 4, 30]) + b"\x01\x01" + FAIL + b"\x10" + FAIL + b"\x10" + FAIL + b"\x10" +
          FAIL + b"\x10")


def capability(driver=b"uvcvideo", caps=0x84200001, device_caps=0x04200001):
    c = bytearray(104)
    c[0:len(driver)] = driver
    c[16:16 + 7] = b"KOV-CBS"
    c[48:48 + 14] = b"usb-0000:00:14"
    struct.pack_into("<III", c, 80, 0x050a00, caps, device_caps)
    return bytes(c)


def device_list():
    modalias = b"usb:v2B03pF582d0100dcEFdsc02dp01ic0Eisc01ip00in00\n"
    node = b"\x01" + NOTHING  # open, QUERYCAP
    node += b"\x01" + ans(modalias) + NOTHING  # modalias: open, read, end of file
    node += ans(capability())  # QUERYCAP again
    node += ans(struct.pack("<II", 0, 1)) * 2 + FAIL + b"\x16"  # two formats, then EINVAL
    first = b"\x01" + ans(modalias) + NOTHING
    write("device_list", "one_cbs_camera", b"\x00" + text("/dev/video0") + first + node)
    write("device_list", "mcu_node_then_camera", b"\x02" + text("/dev/video2") + b"\x01" +
          ans(b"usb:v2B03pF681d0305dc00\n") + NOTHING + b"\x01" + NOTHING + b"\x01" +
          ans(b"usb:v2B03pF681d0305\n") + NOTHING + node + node)
    write("device_list", "not_uvc_driver", b"\x00" + text("/dev/video0") + first + b"\x01" + NOTHING + b"\x01" +
          ans(modalias) + NOTHING + ans(capability(driver=b"uvcvideo_but_longer")))
    write("device_list", "short_modalias", b"\x00" + text("/dev/v") + b"\x01" + ans(b"usb:v2B03") + NOTHING)


# --- GMSL -----------------------------------------------------------------

def i2c_read(data):
    """One block read: the two address ioctls, the register write, the read."""
    return b"\x00\x00\x00" + ans(data)


def gmsl_eeprom():
    sn = struct.pack("<I", 42000150)
    block = b"\x01" + i2c_read(sn) + i2c_read([0x11, 4])
    write("gmsl_eeprom", "ext_pico_bus30", b"\x00\x00" + block)
    write("gmsl_eeprom", "ext_qs_bus31", b"\x00\x00" + b"\x00" + b"\x01" + i2c_read(sn) + i2c_read([0x11, 30]))
    sensors = b"\x02"
    for _ in range(2):
        sensors += b"\x00" + text("kovq_ar0234 module") + text("kovq") + text("KOVQ_CAM")
    # getGMSLDevices: the cheap sweep, then the filter's sweep, then the list.
    sweep = block + b"\x00" * 9  # buses 31 to 37, 9 and 10 do not open; 0 to 8 are skipped
    write("gmsl_eeprom", "devices_two_sensors", b"\x01" + sensors + sweep + sweep + block)
    write("gmsl_eeprom", "filter_qs", b"\x03" + b"\x01" + b"\x00" + text("kovq_imx678") + text("kovqs") +
          text("KOVQS_CAM") + b"\x01" + i2c_read(sn) + i2c_read([0x11, 31]))
    write("gmsl_eeprom", "garbage_eeprom", b"\x00\x00" + b"\x01" + i2c_read(b"\xde\xad\xbe\xef") +
          i2c_read([0x99, 0x77]))
    write("gmsl_eeprom", "frozen_service", b"\x09\x00" + block)


def argus_link():
    unit = b"[Unit]\nDescription=GMSL daemon\n\n[Service]\nExecStart=/usr/bin/kov_q_daemon\nPort=20206\nPortSub=20207\n"
    write("argus_link", "unit_file", text("KOVQ#35.3.1#REPORT") + unit)
    release = b"# R35 (release), REVISION: 3.1, GCID: 32827747, BOARD: t186ref, EABI: aarch64, DATE: Sun Mar 19\n"
    write("argus_link", "release_file", text("KOVQ#35.3") + release)
    write("argus_link", "odd_ports", text("KOVQ") + b"[Service]\nPort=99999999999999999999\nPortSub=-7junk\n")
    write("argus_link", "empty", b"\x00")


# --- the host ---------------------------------------------------------------

def processor():
    write("processor", "tegra_release",
          b"# R35 (release), REVISION: 4.1, GCID: 33958178, BOARD: t186ref, EABI: aarch64, DATE: Tue Aug  1\n"
          b"# KERNEL_VARIANT: oot\n")
    write("processor", "cpuinfo", b"processor\t: 0\nvendor_id\t: GenuineIntel\nmodel name\t: Intel(R) Core(TM)   "
          b"i7-8700 CPU @ 3.20GHz\nflags\t\t: fpu vme\n")
    write("processor", "issue", b"Debian GNU/Linux 12 \\n \\l\n\n")
    write("processor", "no_colon", b"model name without a colon\n")


def display_name():
    write("display_name", "local_x", text("xcb") + text("") + b":0")
    write("display_name", "screen", text("") + text("") + b"unix:1.0")
    write("display_name", "wayland", text("wayland") + text("wayland-0") + b"")
    write("display_name", "offscreen", text("offscreen") + text("") + b"")
    write("display_name", "remote", text("") + text("") + b"host.example:10.0")
    write("display_name", "ipv6", text("") + text("") + b"::1:0")


def update_manifest():
    manifest = (b'{"latest":{"version":{"webpage":"https://example.test/r","major":4,"minor":1,"patch":3,'
                b'"message":"A new release"}},"messages":[{"version":"*","text":"t","title":"T","type":"info",'
                b'"webpage":"https://example.test/w"},{"version":"4.1.2","text":"u","title":"U","type":"warning"}]}')
    hidden = b"e358efa489f58062f10dd7316b65649e\n"
    write("update_manifest", "newer_with_messages", b"\x06" + struct.pack("<H", len(hidden)) + hidden + manifest)
    write("update_manifest", "no_release_dialog", b"\x01" + struct.pack("<H", 0) + manifest)
    write("update_manifest", "not_json", b"\x00" + struct.pack("<H", 5) + b"\xff\xfe\x00ab" + b"<html>404</html>")


def arguments():
    write("arguments", "command_line", b"kov_diagnostic\0-c")
    write("arguments", "ai_specific", b"kov_diagnostic\0-ais\0" + b"12")
    write("arguments", "ai_without_number", b"kov_diagnostic\0-ais")
    write("arguments", "verbosity", b"kov_diagnostic\0-v\0" + b"5\0-dmesg")
    write("arguments", "neural", b"kov_diagnostic\0-nrlo_plus\0-r\0-h")
    write("arguments", "huge_model", b"kov_diagnostic\0-ais\0-99999999999999999999")


if __name__ == "__main__":
    for make in (mcu_hid, mcu_eeprom, sid_recording, vendor_control, camera_flash, v4l2_capture, device_list,
                 gmsl_eeprom, argus_link, processor, display_name, update_manifest, arguments):
        make()
