#!/usr/bin/env python3
"""Devices that are full, read-only, gone, or in the way: each time there has to be a clear word and a failed exit
status, whole files only, the old version of what was edited, and a complete backup once the cause is removed."""

import argparse
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import time

import rig
from crash import Bench

SERVICE = pathlib.Path(rig.SERVICE)


def can_mount():
    with rig.work_folder("mount") as work:
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "torture", work], capture_output=True)
        if done.returncode == 0:
            subprocess.run(["umount", work], check=True)
        return done.returncode == 0


@contextlib.contextmanager
def mounted(work, size, source):
    """A file system of so many KiB with a copy of a device in it."""
    folder = pathlib.Path(work) / f"disk-{size}-{time.monotonic_ns()}"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}k", "torture", folder], check=True)
    try:
        subprocess.run(["cp", "-a", f"{source}/.", folder], check=True)
        yield folder
    finally:
        for place in folder, aside_of(folder):
            subprocess.run(["umount", "-l", place], check=False, capture_output=True)


def aside_of(folder):
    """Where a device is put that was pulled."""
    return folder.with_name(f"aside-{folder.name}")


def remount(folder, options):
    subprocess.run(["mount", "-o", f"remount,{options}", folder], check=True)


def failed_run(bench, program, device, words, expected, **options):
    """A run that fails and says why, in one of the words."""
    run = program.backup(device, **options)
    check_failed(bench, run, device, words, expected)
    return run


def check_failed(bench, run, device, words, expected):
    rig.require(run.status in (1, 3), f"no failure told: {run}")
    told = " | ".join(run.told() or [run.err]).lower()
    rig.require(any(word in told for word in words), f"none of {words} is told: {told}")
    if device is not None:
        rig.require_sound(device, [bench.states["first"], expected])


def completes(bench, program, device, expected):
    """The cause is removed. The first run may have to be told again; the device is complete behind it."""
    run = program.backup(device)
    rig.require(run.status == 0, f"not complete without the cause: {run}")
    rig.State(device).require_alike(expected)
    verified = program.verify(device)
    rig.require(verified.status == 0, f"verify: {verified}")


def full_disk(bench, case):
    name, spare = case
    start, program, expected = bench.scenario(name)
    used = int(subprocess.check_output(["du", "-sk", start]).split()[0])
    with mounted(bench.work, used + spare, start) as device:
        run = program.backup(device)
        if run.status == 0:
            rig.State(device).require_alike(expected)
            return
        check_failed(bench, run, device, ["full", "space"], expected)
        remount(device, "size=100m")
        completes(bench, program, device, expected)


def at_call(bench, name, number, act, undo, words):
    """Stops the program before its n-th call on the device, and does something to the device there."""
    start, program, expected = bench.scenario(name)
    with mounted(bench.work, 20000, start) as device:
        process = program.start_backup(device, faults={"under": device, "at": number, "how": "stop"})
        os.waitpid(process.pid, os.WUNTRACED)
        act(device)
        process.send_signal(signal.SIGCONT)
        try:
            out, err = process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            process.kill()
            raise rig.Failed("hangs")
        run = rig.Run(process.returncode, out.decode(), err.decode(), 0)
        undo(device)
        if run.status == 0:
            rig.State(device).require_alike(expected)
            return
        check_failed(bench, run, device, words, expected)
        completes(bench, program, device, expected)


def read_only(bench, name):
    """From the start; calls that fail with EROFS in the middle are the crash test's."""
    start, program, expected = bench.scenario(name)
    with mounted(bench.work, 20000, start) as device:
        remount(device, "ro")
        check_failed(bench, program.backup(device), None, ["read-only"], expected)
        remount(device, "rw")
        completes(bench, program, device, expected)


def vanishes(bench, case):
    """The device is pulled and another file system stands at its place; later it is there again."""
    def pull(device):
        aside_of(device).mkdir()
        subprocess.run(["mount", "--move", device, aside_of(device)], check=True)

    def back(device):
        # The database library opens its files by name again; it writes nothing of the backup into them.
        for path in device.glob("backup.db-*"):
            path.unlink()
        rig.require(not any(device.iterdir()), f"written beside the device: {list(device.rglob('*'))}")
        subprocess.run(["mount", "--move", aside_of(device), device], check=True)
        os.rmdir(aside_of(device))

    at_call(bench, *case, pull, back, ["gone", "not there", "missing", "no longer", "cannot be", "no such", "failed"])


def obstacles(bench):
    """(name, scenario, put, remove, words): things that stand in the way of a run."""
    root = SERVICE
    first = bench.states["first"]
    second = bench.states["second"]
    media = [path for path in sorted(second.files)
             if path.endswith(".jpg") and path not in first.files and path.count("/") == 3 and rig.RECORDS not in path]
    new_item = pathlib.Path(media[0])
    edited = next(path for path in sorted(first.files) if second.files.get(path, "/") not in ("/", first.files[path])
                  and path.endswith(".jpg") and "Thumbnail" not in path)
    aside = pathlib.Path(edited).with_name(rig.aside(pathlib.Path(edited).name))

    def put_folder(device, path):
        (device / path / "inside").mkdir(parents=True)

    def remove_folder(device, path):
        shutil.rmtree(device / path)

    def put_file(device, path):
        (device / path).parent.mkdir(parents=True, exist_ok=True)
        (device / path).write_text("the user's own")

    def remove_file(device, path):
        rig.require((device / path).read_text() == "the user's own", "the user's own file is changed")
        (device / path).unlink()

    def put_link(device, path):
        outside = device.parent / f"outside-{device.name}"
        outside.mkdir(exist_ok=True)
        (device / path).parent.mkdir(parents=True, exist_ok=True)
        os.symlink(outside, device / path)

    def remove_link(device, path):
        outside = device.parent / f"outside-{device.name}"
        rig.require(not any(outside.iterdir()), "written through a link")
        (device / path).unlink()

    def put_fifo(device, path):
        (device / path).parent.mkdir(parents=True, exist_ok=True)
        os.mkfifo(device / path)

    def remove_any(device, path):
        if (device / path).exists():
            (device / path).unlink()

    def close_folder(device, path):
        (device / path).chmod(0o555)

    def open_folder(device, path):
        (device / path).chmod(0o755)

    trip = next(pathlib.Path(path).parent for path in sorted(first.files) if path.endswith("/Thumbnail")
                and path.count("/") == 3)
    yield "folder at a new file's name", "second", put_folder, remove_folder, new_item
    yield "folder at an edited file's aside name", "second", put_folder, remove_folder, aside
    yield "file at a new file's name", "second", put_file, remove_file, new_item
    yield "file at an edited file's aside name", "second", put_file, remove_file, aside
    yield "link at a new file's name", "second", put_link, remove_link, new_item
    yield "pipe at a new file's name", "second", put_fifo, remove_any, new_item
    yield "file at the service folder's name", "first", put_file, remove_file, root
    yield "link at the service folder's name", "first", put_link, remove_link, root
    yield "file at a set's name", "first", put_file, remove_file, trip
    yield "link at a set's name", "first", put_link, remove_link, trip
    yield "file at a thumbnail folder's name", "first", put_file, remove_file, root / "Thumbnail"
    yield "link at a thumbnail folder's name", "first", put_link, remove_link, root / "Thumbnail"
    yield "set that may not be written", "second", close_folder, open_folder, trip
    yield "thumbnails that may not be written", "second", close_folder, open_folder, trip / "Thumbnail"
    yield "service folder that may not be written", "second", close_folder, open_folder, root
    yield "device that may not be written", "first", close_folder, open_folder, pathlib.Path(".")


def in_the_way(bench, case, programs):
    """Run as a user for whom permissions count."""
    name, scenario, put, remove, path = case
    start, _, expected = bench.scenario(scenario)
    program = programs[scenario]
    with bench.device(start) as device:
        put(device, path)
        subprocess.run(["chown", "-Rh", "65534:65534", device], check=True)
        run = program.backup(device)
        rig.require(run.status in (0, 1, 3), f"no proper end: {run}")
        if run.status:
            rig.require(run.told() or run.err.strip(), f"failed without a word: {run}")
        if scenario == "second" and run.status == 3:
            done = run.summary["new"] + run.summary["edited"]
            rig.require(done > 0 or "service folder" in name, f"nothing else was backed up: {run}")
        remove(device, path)
        rig.require_sound(device, [bench.states["first"], expected])
        if run.status == 0:
            # Another name was found: only the user's own thing was to stay as it was, and remove() has looked.
            verified = program.verify(device)
            rig.require(verified.status == 0, f"verify: {verified}")
        else:
            completes(bench, program, device, expected)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--cases", type=int, help="so many of each kind; all when left out")
    options = parser.parse_args()

    counts, failures = {}, 0
    with rig.work_folder("device") as work:
        bench = Bench(work, options.build)
        moments = []
        for name in "first", "second":
            # Pulled before the run writes its first file, a device is another one from the start.
            calls = [int(call[0]) for call in bench.calls(name)]
            calls = calls[next(i for i, call in enumerate(bench.calls(name)) if ".part-" in call[2]):]
            moments += [(name, calls[n - 1]) for n in rig.spread(len(calls), options.cases or 60)]
        if can_mount():
            sizes = [(name, spare) for name in ("first", "second") for spare in
                     rig.spread(400, options.cases or 60)]
            failures += rig.each(sizes, lambda case: full_disk(bench, case))
            failures += rig.each(["first", "second"], lambda name: read_only(bench, name))
            failures += rig.each(moments, lambda case: vanishes(bench, case))
            counts = {"full_disks": len(sizes), "read_only_disks": 2, "vanishing_disks": len(moments)}
        else:
            print("skipped: full, read-only and vanishing disks, because mounting is not permitted here")
        if os.getuid() == 0:
            programs = {"first": bench.early.for_user(work, 65534), "second": bench.late.for_user(work, 65534)}
            ways = {case[0]: case for case in obstacles(bench)}
            chosen = [list(ways)[i - 1] for i in rig.spread(len(ways), options.cases)]
            failures += rig.each(chosen, lambda name: in_the_way(bench, ways[name], programs))
            counts["obstacles"] = len(chosen)
        else:
            print("skipped: obstacles, because only root can run the program as another user")
    rig.finish("failing devices", failures, **counts)


if __name__ == "__main__":
    main()
