#!/usr/bin/env python3
"""Backups on images of the file systems of the devices that people plug in, exFAT and NTFS, through FUSE: whole runs,
kills, and plugs that are pulled: the image is copied while the run stands still before a call, and the copy, which
nobody unmounted, is put in order by the file system's own tool, mounted and given to the next run."""

import argparse
import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile

import rig

SIZE = 24 << 20


class FileSystem:
    """How an image is made, mended and mounted; what has to be installed for it."""

    def __init__(self, name, make, mend, mount, tools, loop):
        self.name, self.make, self.mend, self.mount, self.tools, self.loop = name, make, mend, mount, tools, loop


# exfat-fuse wants a block device of root.
KINDS = (FileSystem("exfat", ["mkfs.exfat"], ["fsck.exfat", "-y"], ["mount.exfat-fuse"],
                    ["mkfs.exfat", "fsck.exfat", "mount.exfat-fuse"], True),
         FileSystem("ntfs", ["mkntfs", "-F", "-Q", "-q"], ["ntfsfix"], ["ntfs-3g"],
                    ["mkntfs", "ntfsfix", "ntfs-3g"], False))


def call(*arguments):
    return subprocess.run(arguments, check=True, capture_output=True, text=True).stdout.strip()


@contextlib.contextmanager
def mounted(kind, image, mend=False):
    """A folder that shows what is in an image."""
    folder, loop = tempfile.mkdtemp(prefix=f"{kind.name}-", dir=image.parent), None
    try:
        loop = call("losetup", "-f", "--show", image) if kind.loop else None
        source = loop or image
        if mend:  # says by its status that there was something to mend
            subprocess.run([*kind.mend, source], check=False, capture_output=True)
        call(*kind.mount, source, folder)
        try:
            yield pathlib.Path(folder)
        finally:
            call("umount", folder)
    finally:
        if loop:
            call("losetup", "-d", loop)
        os.rmdir(folder)


def reason_to_skip(kind, work):
    if os.getuid() != 0:
        return "only root can mount"
    missing = [tool for tool in kind.tools if not shutil.which(tool)]
    if missing:
        return f"{missing[0]} is not installed"
    try:
        with mounted(kind, new_image(kind, work)):
            return None
    except (subprocess.CalledProcessError, OSError) as failure:
        return (getattr(failure, "stderr", "") or str(failure)).strip().splitlines()[-1]


def new_image(kind, work):
    image = pathlib.Path(work) / f"{next(tempfile._get_candidate_names())}.img"
    with open(image, "wb") as file:
        file.truncate(SIZE)
    call(*kind.make, image)
    return image


class Bench:
    """An account before and after a change, images of devices, and what has to be on them."""

    def __init__(self, work, build):
        self.work = pathlib.Path(work)
        self.early, self.late = self.account(work, build), self.account(work, build)
        self.change(self.late[0])
        self.states = []
        device = self.work / "device"
        device.mkdir()
        for sim, program in self.early, self.late:
            succeed(program.backup(device))
            self.states.append(rig.State(device))
        self.images = {}

    @staticmethod
    def account(work, build):
        sim = rig.Sim(work, build, "--generate", "3x2", "--videos", "1", "--loose", "2", "--item-bytes", "5000",
                      "--video-bytes", "40000")
        return sim, rig.Program(work, build, sim.url, sim.credentials)

    @staticmethod
    def change(sim):
        sets = [line.split(maxsplit=2)[1:] for line in sim.order("list").splitlines() if line.startswith("set ")]
        photos = [line.split()[1:] for line in sim.order("list").splitlines() if line.startswith("  photo ")]
        rig.change_account(sim)
        # Two of the three sets swap their titles, in the same run. The other, and a photo of the first of
        # them, change the case of their titles only: on such disks the new name is there already, and is their own.
        sim.order("rename-set", id=sets[1][0], title=sets[2][1])
        sim.order("rename-set", id=sets[2][0], title=sets[1][1])
        sim.order("rename-set", id=sets[0][0], title=sets[0][1].upper())
        sim.order("retitle", id=photos[1][0], title="SUNSET")

    def prepare(self, kind):
        """Whole runs; afterwards the image of the first one is where every case begins."""
        image = new_image(kind, self.work)
        with mounted(kind, image) as device:
            succeed(self.early[1].backup(device))
            self.require(device, self.states[0])
        self.images[kind.name] = image
        with self.copy(image) as changed, mounted(kind, changed) as device:
            trace = self.work / f"{kind.name}-trace"
            succeed(self.late[1].backup(device, faults={"under": device, "trace": trace}))
            self.require(device, self.states[1])
            return len(trace.read_text().splitlines())

    def require(self, device, state):
        rig.State(device).require_equal(state)
        verified = self.late[1].verify(device)
        rig.require(verified.status == 0, f"verify: {verified}")

    @contextlib.contextmanager
    def copy(self, image):
        """A copy of an image, removed afterwards."""
        target = self.work / f"{next(tempfile._get_candidate_names())}.img"
        rig.copy_device(image, target)
        try:
            yield target
        finally:
            target.unlink()

    def kill(self, kind, at):
        with self.copy(self.images[kind.name]) as image, mounted(kind, image) as device:
            run = self.late[1].backup(device, faults={"under": device, "at": at, "how": "before"})
            rig.require(run.killed, f"not killed: {run}")
            self.recover(device)

    def pull(self, kind, at):
        with contextlib.ExitStack() as pulled:
            with self.copy(self.images[kind.name]) as image, mounted(kind, image) as device:
                process = self.late[1].start_backup(device, faults={"under": device, "at": at, "how": "stop"})
                os.waitpid(process.pid, os.WUNTRACED)
                now = pulled.enter_context(self.copy(image))
                process.kill()
                process.communicate()
            self.recover(pulled.enter_context(mounted(kind, now, mend=True)))

    def recover(self, device):
        rig.require_sound(device, self.states, folder_records=False)
        succeed(self.late[1].backup(device))
        self.require(device, self.states[1])


def succeed(run):
    rig.require(run.status == 0, f"{run}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--moments", type=int, default=60, help="so many kills and so many pulled plugs on each")
    parser.add_argument("--case", help="one case, as it is printed")
    options = parser.parse_args()

    failures, counts = 0, {}
    with rig.work_folder("filesystems") as work:
        bench = Bench(work, options.build)
        for kind in KINDS:
            skip = reason_to_skip(kind, work)
            if skip:
                print(f"skipped: {kind.name}, because {skip}", flush=True)
                continue
            calls = bench.prepare(kind)
            cases = [(kind.name, how, at) for how in ("kill", "pull") for at in rig.spread(calls, options.moments)]
            if options.case:
                cases = [case for case in [eval(options.case)] if case[0] == kind.name]
            failures += rig.each(cases, lambda case: getattr(bench, case[1])(kind, case[2]))
            counts[f"on_{kind.name}"] = len(cases)
    rig.finish("file systems", failures, **counts)


if __name__ == "__main__":
    main()
