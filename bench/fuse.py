"""What an item costs on exFAT and NTFS where they run in user space (FUSE): there each request of the kernel's costs a
switch to another process and back. The requests are counted from outside, by what the file system's process reads."""

import collections
import os
import re
import shutil
import subprocess
import time

# Each with what makes an image and what mounts it; exFAT's program wants a block device.
SYSTEMS = {
    "exFAT": ("mkfs.exfat", "mount.exfat-fuse", True),
    "NTFS": ("mkfs.ntfs", "ntfs-3g", False),
}
IMAGE_BYTES = 200 << 20
# The kernel's numbers of requests, from <linux/fuse.h>.
NAMES = {1: "LOOKUP", 3: "GETATTR", 4: "SETATTR", 9: "MKDIR", 10: "UNLINK", 12: "RENAME", 14: "OPEN", 15: "READ",
         16: "WRITE", 18: "RELEASE", 20: "FSYNC", 22: "GETXATTR", 25: "FLUSH", 27: "OPENDIR", 28: "READDIR",
         29: "RELEASEDIR", 30: "FSYNCDIR", 34: "ACCESS", 35: "CREATE", 44: "READDIRPLUS", 45: "RENAME2"}


def call(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout.strip()


def requests_in(trace):
    """A request begins with its length and its number, 32 bits each, lowest byte first."""
    counts = collections.Counter()
    for line in trace.read_text(errors="replace").splitlines():
        found = re.search(r'read\(\d+, "((?:\\x[0-9a-f]{2}){8})', line)
        if found:
            number = int.from_bytes(bytes.fromhex(found.group(1).replace("\\x", ""))[4:], "little")
            counts[NAMES.get(number, f"request {number}")] += 1
    return counts


def counted(bench, system, items):
    """The requests of a first run of so many items."""
    make, mount, by_device = SYSTEMS[system]
    image, place, trace = (bench.directory / f"fuse-{part}" for part in ("image", "mounted", "trace"))
    image.unlink(missing_ok=True)
    with open(image, "wb") as file:
        file.truncate(IMAGE_BYTES)
    call(make, *(["-F", "-Q"] if not by_device else []), image)
    place.mkdir(exist_ok=True)
    device = call("losetup", "-f", "--show", image) if by_device else image
    # In the foreground, so that it is the process that is looked at.
    server = subprocess.Popen([shutil.which(mount), *(["-d"] if by_device else ["-o", "no_detach"]), device, place],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        while not os.path.ismount(place):
            if server.poll() is not None:
                raise OSError(f"{mount} ends with status {server.returncode}")
            time.sleep(0.05)
        tracer = subprocess.Popen(["strace", "-f", "-xx", "-s", "8", "-e", "trace=read", "-o", trace, "-p",
                                   str(server.pid)], stderr=subprocess.PIPE, text=True)
        tracer.stderr.readline()  # attached
        with bench.service(1, items, "--item-bytes", 100 * 1024):
            bench.backup(place, new=items)
        tracer.terminate()
        tracer.wait()
        return requests_in(trace)
    finally:
        subprocess.run(["umount", "-l", place], check=False, capture_output=True)
        server.wait()
        if by_device:
            call("losetup", "-d", device)
        image.unlink()


def fuse(bench):
    """requests for each new item to exFAT and NTFS in user space"""
    few, many = (5, 25) if bench.quick else (30, 130)
    lines = ["| file system | requests for an item | of them |", "| --- | --- | --- |"]
    for system, (make, mount, _) in SYSTEMS.items():
        missing = [tool for tool in (make, mount, "strace") if not shutil.which(tool)]
        if missing or not os.path.exists("/dev/fuse") or os.geteuid() != 0:
            print(f"{system}: skipped, {missing[0] + ' is not installed' if missing else 'FUSE needs root here'}")
            continue
        before, after = counted(bench, system, few), counted(bench, system, many)
        each = {name: (count - before[name]) / (many - few) for name, count in after.most_common()}
        shown = ", ".join(f"{name} {count:.1f}" for name, count in each.items() if count >= 0.5)
        lines.append(f"| {system} | {sum(each.values()):.0f} | {shown} |")
    bench.tables.append("\n".join(lines))
