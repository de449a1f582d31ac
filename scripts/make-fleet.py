#!/usr/bin/env python3
"""Makes a fleet of bug report zips from the report tool's fixtures, for its tests and benchmark.

make-fleet.py OUT COUNT [FILLER_KB]

Each zip is one device's bug report (adb bugreport's layout: main_entry.txt, the report's text
with its header, SYSTEM PROPERTIES, SYSTEM LOG, KERNEL LOG and other sections, and FS/data/anr and
FS/data/tombstones files) holding the daemon's log of one end-to-end case among FILLER_KB (default
64) of other programs' lines. The same hangs recur on many devices, builds and kernel versions,
with device-specific ids (pids, tids), addresses, offsets and build ids, and times; a few kinds
differ (another lock, another state); some reports hold no incident; one zip is cut short.
OUT.tsv lists each report and the kind of hang it holds ("-": none, "damaged").
"""
import os
import random
import re
import sys
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))
FIXTURES = os.path.join(HERE, "..", "tests", "report")

# kind: (daemon log, kernel excerpts one of which a device's kernel writes, Java and native dumps)
KINDS = [
    ("binder", ["ABlockedThreadGetsKernelDumpsThenTheKill", "RebootEndsTheInitOfThePidNamespace"],
     ["handwritten-dmesg-4.14.txt", "handwritten-dmesg-5.4.txt"], False),
    ("fuse", ["ABlockedThreadGetsKernelDumpsThenTheKill"], ["handwritten-dmesg-6.6.txt"], False),
    ("zombie", ["AZombieMainThreadIsFoundThroughPsAndItsParentAnswers"], [], False),
    ("deadlock", ["AnAsleepThreadGetsItsStacksDumpedAndABlockedOneThePanic"], [], True),
    ("-", ["AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn",
           "ABlockedThreadGetsKernelDumpsThenTheKill-2"], [], False),
]
WEIGHTS = [4, 2, 1, 1, 2]
FILLER_TAGS = ["ActivityManager", "WindowManager", "PackageManager", "InputDispatcher", "chatty"]


def read(*path):
    with open(os.path.join(FIXTURES, *path), encoding="utf-8") as f:
        return f.read()


def remap_ids(log, rng):
    """The daemon's log with the watched processes' and threads' ids of another device."""
    ids = {}

    def new(match):
        old = match.group(2)
        ids.setdefault(old, str(rng.randrange(1000, 32000)))
        return match.group(1) + ids[old]

    pattern = r"(proc |/proc/|/task/|tid=|dumped |-p |ppid=)(\d+)"
    out = []
    for line in log.splitlines():
        head, sep, message = line.partition("stall_ward: ")
        out.append(head + sep + re.sub(pattern, new, message))
    return "\n".join(out) + "\n", ids


def device_addresses(text, rng):
    """Offsets, addresses, build ids and line numbers as another build of the same code has them."""
    hexa = lambda m: m.group(1) + "%x" % rng.randrange(16, 4096)
    text = re.sub(r"(\+0x)[0-9a-f]+", hexa, text)
    text = re.sub(r"(/0x)[0-9a-f]+", hexa, text)
    text = re.sub(r"(<0x)[0-9a-f]+", hexa, text)
    text = re.sub(r"(pc )[0-9a-f]{16}", lambda m: m.group(1) + "%016x" % rng.getrandbits(40), text)
    text = re.sub(r"(BuildId: )[0-9a-f]+", lambda m: m.group(1) + "%032x" % rng.getrandbits(128),
                  text)
    text = re.sub(r"(\.java:)\d+", lambda m: m.group(1) + str(rng.randrange(30, 9000)), text)
    return re.sub(r"\+(\d+)\)", lambda m: "+%d)" % rng.randrange(4, 4000), text)


POOL = []


def filler(rng, kb, month_day):
    """Other programs' lines of one day, drawn from a pool made once."""
    if not POOL:
        POOL.extend(" %02d:%02d:%02d.%03d  1000 %5d %5d I %s: event %d of %d\n" % (
            rng.randrange(24), rng.randrange(60), rng.randrange(60), rng.randrange(1000),
            rng.randrange(100, 30000), rng.randrange(100, 30000), rng.choice(FILLER_TAGS),
            rng.randrange(100000), rng.randrange(100000)) for _ in range(4096))
    lines = rng.choices(POOL, k=kb * 1024 // len(POOL[0]) + 1)
    return "".join(month_day + line for line in sorted(lines))


def bugreport(i, kind, rng, filler_kb):
    name, logs, kernels, dumps = kind
    serial = "SW%06d" % rng.randrange(max(2, COUNT // 3))
    build = "RP1A.2010%02d.00%d" % (5 + i % 3, 1 + i % 3)
    month, day = 1 + rng.randrange(11), 1 + rng.randrange(28)
    log_name = rng.choice(logs)
    log, ids = remap_ids(read("logs", log_name + ".log"), rng)
    log = re.sub(r"^11-22", "%02d-%02d" % (month, day), log, flags=re.M)
    pid = lambda old: ids.get(old, old)
    # -v uid: a uid column after the clock
    log = "".join(l[:18] + "  1000" + l[18:] + "\n" for l in log.splitlines())
    kernel = ""
    if kernels:
        tid = re.search(r"tid=(\d+), comm=watchdog", log).group(1)
        kernel = device_addresses(read("kernel", rng.choice(kernels)), rng).replace("@TID", tid)
    files = {}
    if dumps:
        clock = re.search(r"(\d\d-\d\d \d\d:\d\d:\d\d)\.\d+ +\d+ +\d+ +\d+ I stall_ward: dumped",
                          log).group(1)
        date = "2026-" + clock[:5] + " " + clock[6:14]
        subst = {"@PID": pid("7"), "@TID": pid("9"), "@UI": str(rng.randrange(1000, 32000)),
                 "@DATE": date}
        for path, text in [("FS/data/anr/anr_" + date.replace(" ", "-"), read(
                "java", "handwritten-system_server-deadlock.txt")),
                           ("FS/data/tombstones/tombstone_00",
                            read("native", "handwritten-system_server-signal35.txt"))]:
            for k, v in subst.items():
                text = text.replace(k, v)
            files[path] = device_addresses(text, rng)
    fingerprint = "acme/phone/phone:11/%s/%d:user/release-keys" % (build, 100 + i % 3)
    text = ("========================================================\n"
            "== dumpstate: 2026-%02d-%02d 23:50:00\n"
            "========================================================\n\n"
            "Build: %s\nBuild fingerprint: '%s'\nBootloader: unknown\n"
            "Bugreport format version: 2.0\n"
            "------ SYSTEM PROPERTIES (getprop) ------\n[ro.build.fingerprint]: [%s]\n"
            "[ro.serialno]: [%s]\n------ 0.010s was the duration of 'SYSTEM PROPERTIES' ------\n"
            "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n"
            "--------- beginning of main\n%s%s"
            "------ 0.112s was the duration of 'SYSTEM LOG' ------\n"
            "------ KERNEL LOG (dmesg) ------\n%s"
            "------ 0.020s was the duration of 'KERNEL LOG (dmesg)' ------\n"
            "------ DUMPSYS (/system/bin/dumpsys) ------\n%s"
            "------ 0.300s was the duration of 'DUMPSYS' ------\n") % (
                month, day, build, fingerprint, fingerprint, serial,
                filler(rng, filler_kb // 2, "%02d-%02d" % (month, day)), log, kernel,
                "  mCurrentFocus=Window{%x u0 Launcher}\n" % rng.getrandbits(32) * (
                    filler_kb * 1024 // 2 // 40))
    entry = "bugreport-phone-%s-2026-%02d-%02d.txt" % (build, month, day)
    return serial, entry, text, files


def write_zip(path, entry, text, files):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=1) as z:
        z.writestr("main_entry.txt", entry)
        z.writestr(entry, text)
        for name, content in files.items():
            z.writestr(name, content)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    out, COUNT = sys.argv[1], int(sys.argv[2])
    filler_kb = int(sys.argv[3]) if len(sys.argv) > 3 else 64
    os.makedirs(out, exist_ok=True)
    rng, kinds = random.Random(20), random.Random(18)  # the kinds drawn apart: the same any size
    expected = []
    for i in range(COUNT):
        kind = KINDS[i % len(KINDS)] if i < len(KINDS) else kinds.choices(KINDS, WEIGHTS)[0]
        serial, entry, text, files = bugreport(i, kind, rng, filler_kb)
        path = os.path.join(out, "bugreport-%04d.zip" % i)
        write_zip(path, entry, text, files)
        expected.append("%s\t%s\n" % (path, kind[0]))
    damaged = os.path.join(out, "bugreport-damaged.zip")
    with open(path, "rb") as good, open(damaged, "wb") as cut:
        data = good.read()
        cut.write(data[:len(data) // 2])
    expected.append("%s\tdamaged\n" % damaged)
    with open(out.rstrip("/") + ".tsv", "w") as f:
        f.writelines(expected)
