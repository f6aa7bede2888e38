#!/usr/bin/env python3
"""Kills the program, or lets a call on the device fail, at each of the calls that change the device or the
database, and looks at what that leaves and at what the next run makes of it."""

import argparse
import errno
import itertools
import os
import pathlib
import random
import shutil
import tempfile

import rig

ERRORS = {"ENOSPC": errno.ENOSPC, "EIO": errno.EIO, "EROFS": errno.EROFS, "EACCES": errno.EACCES}


class Bench:
    """An account before and after a change, and the devices that undisturbed runs make of it."""

    def __init__(self, work, build):
        self.work = pathlib.Path(work)
        generation = ["--generate", "2x3", "--videos", "1", "--loose", "2", "--item-bytes", "3000",
                      "--video-bytes", "40000"]
        self.early_sim = rig.Sim(work, build, *generation)
        self.late_sim = rig.Sim(work, build, *generation)
        self.early = rig.Program(work, build, self.early_sim.url, self.early_sim.credentials)
        self.late = rig.Program(work, build, self.late_sim.url, self.late_sim.credentials)
        # The account is generated from a seed: that of late is the same with other addresses.
        self.empty, self.first, self.second = (self.work / name for name in ("empty", "first", "second"))
        self.empty.mkdir()
        rig.copy_device(self.empty, self.first)
        self.expect_success(self.early.backup(self.first))
        rig.change_account(self.late_sim)
        rig.copy_device(self.first, self.second)
        self.expect_success(self.late.backup(self.second))
        fresh = self.work / "fresh"
        fresh.mkdir()
        self.expect_success(self.late.backup(fresh))
        self.states = {name: rig.State(self.work / name) for name in ("first", "second", "fresh")}

    @staticmethod
    def expect_success(run):
        rig.require(run.status == 0 and run.summary and run.summary["result"] == "success", f"{run}")

    def scenario(self, name):
        """Where a run starts, the program that makes it, and the device that it should end with."""
        return {"first": (self.empty, self.early, self.states["first"]),
                "second": (self.first, self.late, self.states["second"])}[name]

    def held(self, name):
        """The bytes of the items that the device holds when the run begins."""
        return self.states["first"].media() if name == "second" else set()

    def calls(self, name):
        """The calls of an undisturbed run on the device, as the library traces them."""
        start, program, _ = self.scenario(name)
        with self.device(start) as device:
            trace = self.work / f"trace-{name}"
            self.expect_success(program.backup(device, faults={"under": device, "trace": trace}))
            return [line.split("\t") for line in trace.read_text().splitlines()]

    def device(self, start):
        return DeviceCopy(self.work, start)


class DeviceCopy:
    def __init__(self, work, start):
        self.path = pathlib.Path(work) / f"device-{next(tempfile._get_candidate_names())}"
        self.start = start

    def __enter__(self):
        return rig.copy_device(self.start, self.path)

    def __exit__(self, kind, value, trace):
        if kind and os.environ.get("TORTURE_KEEP"):
            print(f"kept {self.path}")
        else:
            shutil.rmtree(self.path, ignore_errors=True)


def recover(bench, device, program, expected, alike=False):
    """The next undisturbed run, and all that has to hold then."""
    run = program.backup(device)
    bench.expect_success(run)
    state = rig.State(device)
    state.require_alike(expected) if alike else state.require_equal(expected)
    verified = program.verify(device)
    rig.require(verified.status == 0, f"verify: {verified}")


def kill(bench, case):
    name, how, at = case[:3]
    start, program, expected = bench.scenario(name)
    with bench.device(start) as device:
        for index, moment in enumerate(case[2:]):
            run = program.backup(device, faults={"under": device, "at": moment, "how": how})
            # A later kill may come behind the end of what is left to do.
            rig.require(run.killed or index > 0, f"not killed: {run}")
            rig.require_sound(device, [bench.states["first"], expected])
            rig.require_held(device, bench.held(name), "after a kill")
        recover(bench, device, program, expected)
        rig.require_held(device, bench.held(name), "in the end")


def fail(bench, case):
    name, error, count, at = case
    start, program, expected = bench.scenario(name)
    with bench.device(start) as device:
        run = program.backup(device, faults={"under": device, "at": at, "how": ERRORS[error], "for": count})
        rig.require(run.status in (0, 1, 3), f"{run}")
        if run.status == 0:
            # Nothing was told: nothing may be missing.
            rig.State(device).require_alike(expected)
        else:
            rig.require(run.told(), f"failed without a word: {run}")
        rig.require_sound(device, [bench.states["first"], expected])
        rig.require_held(device, bench.held(name), "after a failure")
        recover(bench, device, program, expected, alike=True)
        rig.require_held(device, bench.held(name), "in the end")


def order_faults(trace):
    """Files that took their final name before their bytes were flushed, and rows that were written before the folders
    were that hold the new names. The records of folders are left out: each run writes them again."""
    flushed, named, faults = {}, set(), []
    for number, call, path, source in trace:
        if call in ("write", "writev", "pwrite", "pwrite64"):
            flushed[path] = False
            if path.endswith("/backup.db-wal"):
                faults += [f"{number}: a row is written, {folder} is unflushed" for folder in sorted(named)]
                named.clear()
        elif call in ("fsync", "fdatasync"):
            flushed[path] = True
            named.discard(path)
        elif call.startswith("rename") and ".part-" in source and not path.endswith("/.folder.xml"):
            name = source if source.startswith("/") else str(pathlib.Path(path).parent / source)
            if not flushed.get(name, False):
                faults.append(f"{number}: {path} takes its name unflushed")
            named.add(str(pathlib.Path(path).parent))
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--kills", type=int, help="so many moments of each kind; all when left out")
    parser.add_argument("--faults", type=int, help="the same for failing calls; 0: none")
    parser.add_argument("--twice", type=int, default=20,
                        help="runs that are killed again while they put things in order")
    parser.add_argument("--today", action="store_true", help="runs go through the gateway")
    parser.add_argument("--case", help="one case, as it is printed")
    options = parser.parse_args()
    rig.TODAY = options.today

    with rig.work_folder("crash") as work:
        bench = Bench(work, options.build)
        if options.case:
            case = eval(options.case)
            again = kill if case[1] in ("before", "after", "torn") else fail
            rig.finish("one case", rig.each([case], lambda c: again(bench, c)))
        kills, faults, failures = [], [], 0
        for name in "first", "second":
            trace = bench.calls(name)
            for fault in order_faults(trace):
                failures += 1
                print(f"FAILED order in the {name} run, {fault}")
            torn = [int(number) for number, call, *_ in trace if "write" in call]
            kills += [(name, "before", n) for n in rig.spread(len(trace), options.kills)]
            kills += [(name, "torn", torn[n - 1]) for n in rig.spread(len(torn), options.kills)]
            chance = random.Random(2)
            kills += [(name, "before", chance.randint(1, len(trace)), chance.randint(1, 60))
                      for _ in range(options.twice)]
            for error, count in itertools.product(ERRORS, (1, -1)):
                faults += [(name, error, count, n)
                           for n in rig.spread(len(trace), options.faults, seed=len(faults))]
        failures += rig.each(kills, lambda case: kill(bench, case))
        failures += rig.each(faults, lambda case: fail(bench, case))
        rig.finish("killed and failing" + ", through the gateway" * options.today, failures,
                   kills=len(kills), failing_calls=len(faults))


if __name__ == "__main__":
    main()
