#!/bin/bash
# Builds a stand-in Jetson (an Orin on L4T 35.4.1 with the SDK 4.1.2, CUDA
# 12.2, cuDNN, TensorRT and the GMSL driver package) for the host checks, so
# that a run on a simulated camera looks like a run on a Jetson:
#
#   <folder>/root   the machine tree for KOV_SYSROOT: release file, /etc/issue,
#                   the stand-in SDK and AI libraries, a CUDA 12.2 toolkit
#   <folder>/bin    lscpu and dpkg of such a machine
#   <folder>/env    the environment to source (KOV_SYSROOT, PATH,
#                   LD_LIBRARY_PATH, the stand-ins' settings)
#
# Usage: scripts/standin_jetson.sh <build folder> <folder>
# The build folder must hold the stand-ins (target kov_standins).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "$1" && pwd)"
out="$2"
standins="$build/standins"
if [ ! -f "$standins/lib/libbh_ai.so" ]; then
    echo "standin_jetson.sh: no stand-ins in $standins (build the target kov_standins)" >&2
    exit 1
fi
mkdir -p "$out"
out="$(cd "$out" && pwd)"

machine="$out/root"
mkdir -p "$machine/etc" "$machine/proc" "$machine/usr/local/kov/lib" "$machine/usr/local/cuda-12.2/bin"
cp "$root/tests/e2e/trees/jetson_r35/etc/nv_tegra_release" "$root/tests/e2e/trees/jetson_r35/etc/issue" \
    "$machine/etc/"
cp "$root/tests/e2e/trees/jetson_r35/proc/cpuinfo" "$machine/proc/"
cp "$standins/lib/libbh_kov.so" "$standins/lib/libbh_ai.so" "$machine/usr/local/kov/lib/"
cp "$standins/bin/nvcc" "$machine/usr/local/cuda-12.2/bin/"
echo 12.2.140 >"$machine/usr/local/cuda-12.2/version.txt"

mkdir -p "$out/bin"
cat >"$out/bin/lscpu" <<'EOF'
#!/bin/sh
# lscpu of a 12-core Orin.
cat <<'OUT'
Architecture:                    aarch64
CPU(s):                          12
On-line CPU(s) list:             0-11
Thread(s) per core:              1
Core(s) per socket:              4
Socket(s):                       3
OUT
EOF
cat >"$out/bin/dpkg" <<'EOF'
#!/bin/sh
# dpkg -l of a Jetson with the GMSL driver package built for its L4T release.
cat <<'OUT'
Desired=Unknown/Install/Remove/Purge/Hold
| Status=Not/Inst/Conf-files/Unpacked/halF-conf/Half-inst/trig-aWait/Trig-pend
|/ Err?=(none)/Reinst-required (Status,Err: uppercase=bad)
||/ Name                              Version      Architecture Description
+++-=================================-============-============-==================================
ii  brennhaven-kovq-gmsl-35.4.1       1.2.0-1      arm64        GMSL camera driver for the KOV-Q (L4T 35.4.1)
OUT
EOF
chmod +x "$out/bin/lscpu" "$out/bin/dpkg"

cat >"$out/env" <<EOF
export KOV_SYSROOT="$machine"
export PATH="$out/bin:$standins/bin:\$PATH"
export LD_LIBRARY_PATH="$standins/lib\${LD_LIBRARY_PATH:+:\$LD_LIBRARY_PATH}"
export KOV_STANDIN_CUDA_DEVICES='Orin|8.7|16|32000000000'
EOF
