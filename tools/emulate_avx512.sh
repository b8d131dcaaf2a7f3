#!/bin/bash
# Runs the tests of machine code and the fits of the examples on an emulated processor with AVX-512, for machines whose processor
# lacks it, and compares the results of the fits byte by byte with those of this machine.
#   tools/emulate_avx512.sh [BUILD FOLDER]      (default build/release, with tests)
# A whole machine is emulated (Debian's bochs): it boots Debian's kernel with a file system in memory that holds the programs, and
# writes to a serial line. Takes a few minutes. Ends with 1 when a test fails, a result differs, or the processor has no AVX-512.
. "$(dirname -- "$0")/common.sh"
build=$(cd "${1:-$root/build/release}" && pwd)
# These take longest there: two draw from posteriors or solve for steady states, one has the most points.
too_long="doses infusion limit"
packages="bochs bochs-term bochsbios vgabios busybox-static xorriso isolinux syslinux-common cpio"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# shellcheck disable=SC2086
dpkg-query -W $packages > /dev/null 2>&1 || as_root apt-get install -y -qq --no-install-recommends $packages

# kernel: unpacks the newest small kernel of the distribution; it is not installed.
kernel() {
  local package
  package=$(apt-cache depends linux-image-cloud-amd64 | grep -o 'linux-image-[0-9][^ ]*' | head -1)
  (cd "$scratch" && apt-get download -qq "$package" 2> /dev/null && dpkg-deb -x "$package"*.deb kernel)
  cp "$scratch"/kernel/boot/vmlinuz* "$scratch/disc/vmlinuz"
}

# file_system: the programs, the libraries they load, the examples, and what is run at the start.
file_system() {
  local machine=$scratch/machine
  mkdir -p "$machine"/{bin,proc,dev,tmp,examples}
  cp /bin/busybox "$build/torvale" "$build/tests/engine/engine_tests" "$machine/bin/"
  for command in sh mount cat echo poweroff sleep grep md5sum; do ln -s busybox "$machine/bin/$command"; done
  cp -r "$root"/examples/*.{tvl,csv} "$machine/examples/"
  for name in $too_long; do rm "$machine/examples/$name.tvl"; done
  ldd "$build/torvale" "$build/tests/engine/engine_tests" | grep -o '/[^ ]*lib[^ ]*\.so[^ ]*' | sort -u | while read -r library; do
    mkdir -p "$machine$(dirname "$library")" && cp -L "$library" "$machine$library"
  done
  cat > "$machine/fits.sh" << 'END'
for program in *.tvl; do
  torvale run $program --quiet --json /tmp/results.json > /dev/null 2>&1
  echo "fit $program $? $(md5sum < /tmp/results.json)"
done
END
  # Symbols are bound at the start: the emulator does not keep wide registers when the loader does it at a first call.
  cat > "$machine/init" << 'END'
#!/bin/sh
mount -t proc proc /proc; mount -t devtmpfs dev /dev
exec > /dev/ttyS0 2>&1
export PATH=/bin LD_BIND_NOW=1
grep -q avx512dq /proc/cpuinfo && echo "processor with AVX-512"
engine_tests --gtest_brief=1 --gtest_color=no --gtest_filter='*MachineCode*:*KernelPacking*' | grep -E 'Failure|PASSED|FAILED|Skipped|output'
cd /examples && sh /fits.sh
sleep 10; poweroff -f
END
  chmod +x "$machine/init"
  (cd "$machine" && find . | cpio -o -H newc 2> /dev/null) > "$scratch/disc/initrd"
}

disc() {
  cp /usr/lib/ISOLINUX/isolinux.bin /usr/lib/syslinux/modules/bios/ldlinux.c32 "$scratch/disc/"
  # The emulator's sizes of compacted register files are not those the kernel expects: features 321 and 323 ask for them.
  cat > "$scratch/disc/isolinux.cfg" << 'END'
DEFAULT torvale
LABEL torvale
 KERNEL vmlinuz
 APPEND initrd=initrd console=ttyS0 quiet nosmp mitigations=off clearcpuid=321,323 tsc=reliable no_timer_check lpj=1000000
END
  xorriso -as mkisofs -quiet -o "$scratch/disc.iso" -b isolinux.bin -c boot.cat -no-emul-boot -boot-load-size 4 -boot-info-table \
    "$scratch/disc" 2> /dev/null
}

emulate() {
  cat > "$scratch/bochsrc" << END
cpu: model=corei7_skylake_x, count=1, ips=100000000, ignore_bad_msrs=1
memory: guest=2048, host=2048
romimage: file=/usr/share/bochs/BIOS-bochs-latest
vgaromimage: file=/usr/share/bochs/VGABIOS-lgpl-latest
ata0-master: type=cdrom, path=$scratch/disc.iso, status=inserted
boot: cdrom
display_library: term
com1: enabled=1, mode=file, dev=$scratch/serial
log: $scratch/log
panic: action=fatal
END
  echo c > "$scratch/continue"
  TERM=xterm script -qec "bochs -q -f $scratch/bochsrc -rc $scratch/continue" /dev/null > /dev/null 2>&1 || true
  tr -d '\r' < "$scratch/serial" | grep -vE '^\[ +[0-9.]+\]' > "$scratch/there"
}

mkdir "$scratch/disc"
kernel
file_system
disc
emulate
(cd "$scratch/machine/examples" && PATH=$build:$PATH && sed "s|/tmp/|$scratch/|" ../fits.sh > "$scratch/fits.sh" && sh "$scratch/fits.sh") > "$scratch/here"
grep -v '^fit ' "$scratch/there"
echo "fits whose results differ from those of this machine:"
if diff "$scratch/here" <(grep '^fit ' "$scratch/there") && echo "none of $(wc -l < "$scratch/here")" &&
  grep -q AVX-512 "$scratch/there" && grep -q PASSED "$scratch/there" && ! grep -qE 'Failure|FAILED|Skipped' "$scratch/there"; then
  exit 0
fi
exit 1
