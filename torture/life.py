#!/usr/bin/env python3
"""Long and parallel life: many runs in one process, two runs on one device, clocks that jump, a log that has an
end, and a device that decays."""

import argparse
import gzip
import pathlib
import shutil
import subprocess
import time

import rig

FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1"
LOG_LIMIT = 3 * 16 * 1024 * 1024  # three files of 10 MiB, and what the test adds to one at a time


def small_sim(work, build, *more):
    return rig.Sim(work, build, "--generate", "2x4", "--videos", "1", "--loose", "2", "--item-bytes", "3000",
                   "--video-bytes", "60000", *more)


def soak(work, build, runs):
    sim = small_sim(work, build)
    program = rig.Program(work, build, sim.url, sim.credentials)
    shutil.copy(pathlib.Path(build) / "torture/soak", program.folder)
    # It has no user's settings: the plug-in finds its configuration beside itself.
    for configuration in (program.folder / "config").rglob("Flickr_plugin_config.xml"):
        shutil.copy(configuration, program.folder / "Resources/Plugins")
    device = pathlib.Path(work) / "soaked"
    device.mkdir()
    token = dict(line.split(" = ") for line in sim.credentials.read_text().splitlines())["token"]
    process = subprocess.Popen([program.folder / "soak", device, token], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               text=True)
    held = []
    for run in range(runs):
        line = process.stdout.readline().split()
        rig.require(len(line) == 5 and line[0] == "1", f"run {run}: {line}")
        held.append([int(number) for number in line[1:]])
        if run % 3 == 0:
            sim.order("edit")
        elif run % 3 == 1:
            sim.order("add", title=f"item {run}")
        process.stdin.write("\n")
        process.stdin.flush()
    process.stdin.close()
    rig.require(process.wait(timeout=60) == 0, "no proper end")
    # The first runs fill caches and pools; the account, and with it what a run has in memory, grows by a few items.
    settled = held[max(5, runs // 10)]
    last = held[-1]
    print(f"soak: {runs} runs, resident {settled[0]} KiB, then {last[0]} KiB; threads {settled[1]}, {last[1]}; "
          f"descriptors {settled[2]}, {last[2]}; locks {settled[3]}, {last[3]}")
    rig.require(last[0] - settled[0] < 1000 + 12 * runs, "memory grows")
    rig.require(last[1:] == settled[1:], "threads, descriptors or locks grow")
    verified = program.verify(device)
    rig.require(verified.status == 0, f"verify: {verified}")
    sim.stop()


def two_runs(work, build, _):
    sim = small_sim(work, build, "--fault", "kind=media,slow=500/100")
    first, second = (rig.Program(work, build, sim.url, sim.credentials) for _ in range(2))
    device = pathlib.Path(work) / "shared"
    device.mkdir()
    process = first.start_backup(device)
    while not list(device.rglob("*.jpg")):
        time.sleep(0.05)
        rig.require(process.poll() is None, "the first run ended early")
    for refused in second.backup(device), second.verify(device):
        rig.require(refused.status == 3 and "is going on" in refused.err, f"not refused: {refused}")
    sim.order("clear-faults")
    out, err = process.communicate(timeout=120)
    rig.require(process.returncode == 0, f"the first run: {out} {err}")
    run = second.backup(device)
    rig.require(run.status == 0 and run.summary["new"] == 0, f"afterwards: {run}")
    sim.stop()


def clocks(work, build, _):
    """The clock stands years off, and jumps forth and back while a run lasts."""
    if not pathlib.Path(FAKETIME).exists():
        print("skipped: clocks, because faketime is not installed")
        return
    sim = small_sim(work, build, "--fault", "kind=media,slow=1000/20")
    program = rig.Program(work, build, sim.url, sim.credentials)
    plain = pathlib.Path(work) / "plain"
    plain.mkdir()
    rig.require(program.backup(plain).status == 0, "no plain run")
    expected = rig.State(plain)
    stamp = pathlib.Path(work) / "clock"
    env = {"LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": str(stamp), "FAKETIME_NO_CACHE": "1"}
    for name, times in ("past", ["-20y"]), ("future", ["+15y"]), ("jumping", ["+0", "-3y", "+7d", "+10y", "-1h"] * 40):
        device = pathlib.Path(work) / f"clock-{name}"
        device.mkdir()
        stamp.write_text(times[0] + "\n")
        process = program.start_backup(device, env=env)
        for offset in times[1:]:
            if process.poll() is not None:
                break
            stamp.write_text(offset + "\n")
            time.sleep(0.02)
        out, err = process.communicate(timeout=120)
        rig.require(process.returncode == 0, f"{name}: {out} {err}")
        rig.State(device).require_equal(expected)
        again = program.backup(device)
        rig.require(again.status == 0 and again.summary["new"] + again.summary["edited"] == 0,
                    f"{name}, again: {again}")
    sim.stop()


def log_has_an_end(work, build, _):
    sim = small_sim(work, build)
    program = rig.Program(work, build, sim.url, sim.credentials)
    log = program.state / "NVHLDevLog.log"
    device = pathlib.Path(work) / "logged"
    device.mkdir()
    for _ in range(12):
        with log.open("ab") as file:
            file.write((b"y" * 200 + b"\n") * 25000)
        rig.require(program.backup(device).status == 0, "a run failed")
    size = sum(path.stat().st_size for path in program.state.glob("NVHLDevLog*"))
    rig.require(size < LOG_LIMIT, f"the log holds {size} bytes")
    secrets = [line.split(" = ")[1] for line in sim.credentials.read_text().splitlines()]
    text = "".join((gzip.open if path.suffix == ".gz" else open)(path, "rt", errors="replace").read()
                   for path in program.state.glob("NVHLDevLog*"))
    rig.require(not any(secret in text for secret in secrets), "a secret is in the log")
    sim.stop()


def decay(work, build, _):
    """What is missing, altered or not recorded is found, by verify and in the next run's summary."""
    sim = small_sim(work, build)
    program = rig.Program(work, build, sim.url, sim.credentials)
    device = pathlib.Path(work) / "decaying"
    device.mkdir()
    rig.require(program.backup(device).status == 0, "no backup")
    root = device / rig.SERVICE
    files = sorted(path for path in root.rglob("*.jpg") if rig.RECORDS not in path.parts)
    media = [path for path in files if "Thumbnail" not in path.parts]
    flipped, cut, gone, thumb = media[0], media[1], media[2], next(path for path in files if "Thumbnail" in path.parts)
    data = bytearray(flipped.read_bytes())
    data[len(data) // 2] ^= 1
    flipped.write_bytes(data)
    cut.write_bytes(cut.read_bytes()[:-1])
    gone.unlink()
    thumb.unlink()
    (root / "stranger.jpg").write_text("?")
    verified = program.verify(device)
    rig.require(verified.status == 1, f"verify finds nothing: {verified}")
    for path in flipped, cut, gone, thumb, root / "stranger.jpg":
        rig.require(str(path.relative_to(root)) in verified.out, f"not told: {path}\n{verified}")
    run = program.backup(device)
    told = " ".join(run.told())
    for path in cut, gone, thumb:
        rig.require(run.status == 1 and str(path.relative_to(root)) in told, f"not told by the run: {path}\n{run}")
    rig.require((root / "stranger.jpg").read_text() == "?", "a stranger's file is gone")
    sim.stop()


HONEST = [  # a fault, how the run ends, and what its summary has to say
    ("kind=media,status=503", 1, ["IMG_0001.jpg", "IMG_0002.jpg", "IMG_0003.jpg", "503"]),
    ("kind=thumbnail,item=53000000001,status=404", 1, ["IMG_0001.jpg", "404"]),
    ("item=53000000001,kind=media,short=10", 1, ["IMG_0001.jpg", "fewer bytes"]),
    ("item=53000000001,kind=media,drop=header", 1, ["IMG_0001.jpg"]),
    ("item=53000000001,kind=media,redirect=ftp://x/", 1, ["IMG_0001.jpg", "ftp"]),
    ("kind=media,nth=1,status=503", 0, []),  # mended by the second attempt
    ("method=flickr.photosets.getList,status=401", 3, ["401"]),
    ("method=flickr.photosets.getList,error=98", 3, ["Invalid Auth Token"]),
    ("method=flickr.photosets.getList,status=500", 3, ["500"]),
    ("method=flickr.photosets.getPhotos,error=105", 1, ["Set 0001", "105"]),
    ("method=flickr.photosets.getPhotos,malformed=1", 1, ["Set 0001"]),
    ("method=flickr.photos.getNotInSet,error=105", 1, ["Anonymous", "105"]),
    ("method=flickr.photos.getSizes,item=53000000001,error=1", 1, ["IMG_0001"]),
]


def honest(work, build, _):
    def check(case):
        spec, status, words = case
        sim = rig.Sim(work, build, "--generate", "1x2", "--loose", "1", "--videos", "0", "--plain-titles",
                      "--item-bytes", "3000", "--fault", spec)
        program = rig.Program(work, build, sim.url, sim.credentials)
        device = pathlib.Path(work) / f"honest-{program.folder.stem}"
        device.mkdir()
        run = program.backup(device)
        told = " ".join(run.told())
        rig.require(run.status == status and all(word in told for word in words), f"{run}")
        sim.order("clear-faults")
        again = program.backup(device)
        rig.require(again.status == 0 and program.verify(device).status == 0, f"without the fault: {again}")
        sim.stop()

    rig.require(rig.each(HONEST, check) == 0, "a summary does not say what failed")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--runs", type=int, default=500, help="of the soak")
    parser.add_argument("--only", default="")
    options = parser.parse_args()
    parts = {part.__name__: part for part in (soak, two_runs, clocks, log_has_an_end, decay, honest)
             if options.only in part.__name__}
    with rig.work_folder("life") as work:
        failures = rig.each(parts, lambda name: parts[name](work, options.build, options.runs))
    rig.finish("long life", failures, parts=len(parts), runs_in_one_process=options.runs)


if __name__ == "__main__":
    main()
