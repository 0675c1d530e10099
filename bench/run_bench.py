#!/usr/bin/env python3
"""Runs every vigild benchmark on this machine and prints one table of medians and ratios.

Each row pairs vigild with its peer measured in the same run. Called by scripts/bench.sh
after the release build; usable on its own with --build <folder>.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

MiB = 1 << 20


def run(cmd, **kw):
    return subprocess.run(cmd, check=True, stdout=subprocess.PIPE, text=True, **kw).stdout


def timed(cmd, **kw):
    start = time.perf_counter()
    subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kw)
    return time.perf_counter() - start


def median(values):
    return statistics.median(values)


class Table:
    def __init__(self):
        self.rows = []

    def add(self, work, vigild, peer, ratio, goal, met, note=""):
        self.rows.append([work, vigild, peer, ratio, goal, met, note])

    def print(self, out=sys.stdout):
        head = ["work", "vigild", "peer", "ratio", "goal", "met", "note"]
        widths = [max(len(str(r[i])) for r in self.rows + [head]) for i in range(len(head))]
        line = lambda r: "| " + " | ".join(str(c).ljust(w) for c, w in zip(r, widths)) + " |"
        print(line(head), file=out)
        print("|" + "|".join("-" * (w + 2) for w in widths) + "|", file=out)
        for r in self.rows:
            print(line(r), file=out)


def verdict(ok):
    return "yes" if ok else "NO"


def fmt_time(seconds):
    if seconds >= 1:
        return f"{seconds:.3f} s"
    if seconds >= 1e-3:
        return f"{seconds * 1e3:.3f} ms"
    return f"{seconds * 1e6:.1f} us"


# In-process work: (benchmark, floor, goal ratio or None, label)
IN_PROCESS = [
    ("BM_GetConfig", "BM_BuildTreeAndDump", 1.25,
     "document build (root passed down) + dump vs tree from C values + dump"),
    ("BM_GetConfigKept", "BM_BuildTreeAndDump", None,
     "getConfig(root), settings unchanged (kept text) vs tree from C values + dump"),
    ("BM_GetConfigCall", "BM_BuildTreeAndDump", None,
     "getConfig() with its root look-up, settings unchanged vs tree from C values + dump"),
    ("BM_SetConfig", "BM_JsonLoadsDumps", 3.0, "setConfig vs json_loads + json_dumps"),
    ("BM_ValidateConfig", "BM_JsonLoadsDumps", None, "validateConfig vs json_loads + json_dumps"),
    ("BM_UpdateConfig", "BM_JsonLoadsDumps", None, "updateConfig vs json_loads + json_dumps"),
    ("BM_MakeUpdateConfig", "BM_JsonLoadsDumps", None, "makeUpdateConfig vs json_loads + json_dumps"),
    ("BM_ParcelEncodeConfig", "BM_ParcelEncodeFloor", None, "parcel encode (sendConfig) vs byte copy"),
    ("BM_ParcelDecodeConfig", "BM_ParcelDecodeFloor", None, "parcel decode (receiveConfig) vs byte copy"),
]
SIZES = (10, 40, 100, 400)


def in_process(args, table, results):
    cmd = [os.path.join(args.bench, "vd_config_bench"), "--benchmark_format=json",
           f"--benchmark_repetitions={args.repetitions}",
           "--benchmark_report_aggregates_only=true",
           f"--benchmark_min_time={args.min_time}"]
    if args.quick:
        cmd.append("--benchmark_filter=/10$")
    out = run(cmd, stderr=subprocess.DEVNULL)
    data = json.loads(out)
    med = {}
    for b in data["benchmarks"]:
        # One repetition reports no aggregates: its only run is its median.
        if b.get("aggregate_name") == "median" or (args.repetitions == 1 and
                                                     b.get("run_type") == "iteration"):
            scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}[b["time_unit"]]
            med[b.get("run_name", b["name"])] = (b["real_time"] * scale, b["cpu_time"] * scale)
    results["in_process"] = med
    if "BM_StorageRoot/10" in med:
        table.add("storage root look-up (once per operation)",
                  fmt_time(med["BM_StorageRoot/10"][0]), "-", "-", "-", "-",
                  "host file system, properties in memory")
    for size in SIZES:
        for name, floor, goal, label in IN_PROCESS:
            if f"{name}/{size}" not in med:
                continue
            v, f = med[f"{name}/{size}"], med[f"{floor}/{size}"]
            ratio, cpu_ratio = v[0] / f[0], v[1] / f[1]
            applies = goal is not None and (size == 40 or name == "BM_GetConfig") and size <= 100
            note = f"cpu {cpu_ratio:.2f}x"
            # Growth: 400 modules against 100 (4.00x is linear).
            if size == 400 and f"{name}/100" in med:
                note += f"; 400/100 modules {v[0] / med[f'{name}/100'][0]:.2f}x"
            table.add(f"{label}, {size} modules", fmt_time(v[0]), fmt_time(f[0]),
                      f"{ratio:.2f}x", f"<= {goal}x" if applies else "-",
                      verdict(ratio <= goal) if applies else "-", note)


def count_walk_syscalls(trace):
    """System calls between the two marker calls of vd_bench_delete."""
    inside, count = False, 0
    with open(trace) as f:
        for line in f:
            if "/vdbench-walk-begin" in line:
                inside = True
                continue
            if "/vdbench-walk-end" in line:
                break
            if inside and "(" in line and "resumed>" not in line and "+++" not in line \
                    and "---" not in line:
                count += 1
    return count


def strace_total(path):
    with open(path) as f:
        for line in f:
            if line.strip().endswith(" total"):
                return int(line.split()[3])  # % time, seconds, usecs/call, calls
    return 0


def big_deletion(args, table, results):
    """The growth of a deletion: 100,000 and 1,000,000 empty files, 100 to a folder, one pair
    each. Opt-in (--only delete1m): a million files take about 1 GiB of tmpfs per tree."""
    tree = os.path.join(args.bench, "vd_bench_tree")
    driver = os.path.join(args.bench, "vd_bench_delete")
    times = {}
    for files in (args.big_files // 10, args.big_files):
        folders = max(1, files // 100)
        base = tempfile.mkdtemp(prefix="vdbbig.", dir=args.tree_dir)
        try:
            root = os.path.join(base, "r")
            os.makedirs(os.path.join(root, "sdcard"))
            run([tree, os.path.join(root, "sdcard", "Tellwick"), str(files), str(folders), "0"])
            subprocess.run(["sync"], check=True)
            vd = timed([driver, root])
            assert not os.path.exists(os.path.join(root, "sdcard", "Tellwick")), "tree left"
            top = os.path.join(base, "rm")
            run([tree, top, str(files), str(folders), "0"])
            subprocess.run(["sync"], check=True)
            rm = timed(["rm", "-rf", top])
        finally:
            shutil.rmtree(base, ignore_errors=True)
        times[files] = (vd, rm, folders)
    results["delete_big"] = {str(k): {"vigild_s": v[0], "rm_s": v[1], "folders": v[2]}
                             for k, v in times.items()}
    small, big = args.big_files // 10, args.big_files
    for files in (small, big):
        vd, rm, folders = times[files]
        note = "one pair, empty files"
        if files == big:
            note += (f"; {big:,}/{small:,} files: vigild {vd / times[small][0]:.2f}x, "
                     f"rm {rm / times[small][1]:.2f}x (10x is linear)")
        table.add(f"deleteTwLogs type 0 vs rm -rf, {files} files in {folders} folders, files/s",
                  f"{files / vd:,.0f}/s", f"{files / rm:,.0f}/s", f"{vd / rm:.2f}x time",
                  "<= 1.0x time", verdict(vd / rm <= 1.0), note)


def deletion(args, table, results):
    files, folders = args.files, args.folders
    tree = os.path.join(args.bench, "vd_bench_tree")
    driver = os.path.join(args.bench, "vd_bench_delete")
    base = tempfile.mkdtemp(prefix="vdbdel.", dir=args.tree_dir)
    try:
        def device_tree(i):
            root = os.path.join(base, f"r{i}")
            os.makedirs(os.path.join(root, "sdcard"))
            run([tree, os.path.join(root, "sdcard", "Tellwick"), str(files), str(folders), "256"])
            return root

        def plain_tree(i):
            top = os.path.join(base, f"rm{i}")
            run([tree, top, str(files), str(folders), "256"])
            return top

        vd, rm = [], []
        for i in range(args.delete_runs):
            root, top = device_tree(i), plain_tree(i)
            subprocess.run(["sync"], check=True)
            # Alternate who goes first, so neither always meets a warmer cache.
            if i % 2 == 0:
                vd.append(timed([driver, root]))
                rm.append(timed(["rm", "-rf", top]))
            else:
                rm.append(timed(["rm", "-rf", top]))
                vd.append(timed([driver, root]))
            assert not os.path.exists(os.path.join(root, "sdcard", "Tellwick")), "tree left behind"
        # System calls: the walk only, on one more pair of trees.
        root, top = device_tree("s"), plain_tree("s")
        empty = os.path.join(base, "empty")
        os.makedirs(empty)
        subprocess.run(["sync"], check=True)
        trace = os.path.join(base, "vd.trace")
        subprocess.run(["strace", "-f", "-o", trace, driver, root], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        vd_calls = count_walk_syscalls(trace)
        counts = {}
        for name, target in (("rm", top), ("rm_empty", empty)):
            out = os.path.join(base, name + ".count")
            subprocess.run(["strace", "-f", "-c", "-o", out, "rm", "-rf", target], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            counts[name] = strace_total(out)
        rm_calls = counts["rm"] - counts["rm_empty"]
    finally:
        shutil.rmtree(base, ignore_errors=True)
    vt, rt = median(vd), median(rm)
    results["delete"] = {"vigild_s": vd, "rm_s": rm, "vigild_syscalls": vd_calls,
                         "rm_syscalls": rm_calls, "files": files, "folders": folders,
                         "tree_dir": args.tree_dir}
    label = f"deleteTwLogs type 0 vs rm -rf, {files} files in {folders} folders"
    table.add(label + ", files/s", f"{files / vt:,.0f}/s", f"{files / rt:,.0f}/s",
              f"{vt / rt:.2f}x time", "<= 1.0x time", verdict(vt / rt <= 1.0),
              f"median of {len(vd)} pairs")
    table.add(label + ", syscalls/file", f"{vd_calls / files:.3f}", f"{rm_calls / files:.3f}",
              "-", "<= 1.05", verdict(vd_calls / files <= 1.05), "walk only")


def copying(args, table, results):
    copy = os.path.join(args.bench, "vd_bench_copy")
    base = tempfile.mkdtemp(prefix="vdbcp.", dir=args.copy_dir)
    size = args.copy_mib * MiB
    try:
        root = os.path.join(base, "root")
        os.makedirs(os.path.join(root, "sdcard"))
        src = os.path.join(root, "sdcard", "archive.zip")
        with open(src, "wb") as f:
            chunk = os.urandom(MiB)
            for i in range(args.copy_mib):
                f.write(chunk[i % 7:] + chunk[:i % 7])
        dst = os.path.join(root, "sdcard", "copy.zip")
        subprocess.run(["sync"], check=True)
        times = {"vigild": [], "cp": [], "range": []}
        commands = {
            "vigild": [copy, "vigild", root, "/sdcard/archive.zip", "/sdcard/copy.zip"],
            "cp": ["cp", src, dst],
            "range": [copy, "range", src, dst],
        }
        order = ["vigild", "cp", "range"]
        for i in range(args.copy_runs):
            for name in order[i % 3:] + order[:i % 3]:
                if os.path.exists(dst):
                    os.unlink(dst)
                subprocess.run(["sync"], check=True)
                times[name].append(timed(commands[name]))
                assert os.path.getsize(dst) == size, f"{name} copied a wrong size"
    finally:
        shutil.rmtree(base, ignore_errors=True)
    results["copy"] = times
    mbs = {k: size / median(v) / 1e6 for k, v in times.items()}
    label = f"copyFile, {args.copy_mib} MiB"
    table.add(label + " vs copy_file_range loop", f"{mbs['vigild']:.0f} MB/s",
              f"{mbs['range']:.0f} MB/s", f"{mbs['vigild'] / mbs['range']:.2f}x",
              ">= 0.95x", verdict(mbs["vigild"] / mbs["range"] >= 0.95),
              f"median of {args.copy_runs}")
    table.add(label + " vs cp", f"{mbs['vigild']:.0f} MB/s", f"{mbs['cp']:.0f} MB/s",
              f"{mbs['vigild'] / mbs['cp']:.2f}x", ">= 1.0x", verdict(mbs["vigild"] >= mbs["cp"]),
              "")


# A device root with the twenty benchmark modules, or with `libraries` instead.
def device_root(args, libraries=None):
    # Short: the service socket lives inside it.
    root = tempfile.mkdtemp(prefix="vdb", dir="/tmp")
    os.makedirs(os.path.join(root, "sdcard", "Tellwick"))
    lib = os.path.join(root, "system", "lib64")
    os.makedirs(lib)
    mods = os.path.join(args.bench, "modules")
    if libraries is None:
        libraries = [os.path.join(mods, name) for name in sorted(os.listdir(mods))
                     if name.startswith("lib_vd_") and name.endswith(".so")]
    for library in libraries:
        shutil.copy(library, lib)
    return root


def daemon_runs(args, table, results):
    driver = os.path.join(args.bench, "vd_bench_daemon")
    vigild = os.path.join(args.build, "vigild")
    for command in ("refresh_state", "config_get:"):
        root = device_root(args)
        try:
            r = json.loads(run([driver, "roundtrip", vigild, root, command, str(args.rounds)]))
        finally:
            shutil.rmtree(root, ignore_errors=True)
        results.setdefault("roundtrip", {})[command] = r
        v, b = median(r["vigild"]), median(r["bare"])
        goal = 2.0 if command == "config_get:" else 1.5
        table.add(f"round trip \"{command}\" vs bare socket exchange", fmt_time(v), fmt_time(b),
                  f"{v / b:.2f}x", f"<= {goal}x", verdict(v / b <= goal),
                  f"{r['connections']} conn, {r['transactions']} transactions, {r['bytes']} B, "
                  f"{len(r['vigild'])} rounds")

    root = device_root(args)
    try:
        r = json.loads(run([driver, "startup", vigild, root, str(args.startups)]))
    finally:
        shutil.rmtree(root, ignore_errors=True)
    results["startup"] = r
    s, ready = median(r["stopped"]), median(r["ready"])
    table.add("start-up, 20 module libraries: exec to \"stopped\"", fmt_time(s), "-", "-",
              "< 30 ms", verdict(s < 0.030), f"first command request at {fmt_time(ready)}")

    root = device_root(args)
    try:
        lines = [json.loads(l) for l in run([driver, "idle", vigild, root,
                                             str(args.idle_seconds)]).splitlines() if l.strip()]
    finally:
        shutil.rmtree(root, ignore_errors=True)
    begin = next(l for l in lines if l.get("sample") == "begin")
    end = next(l for l in lines if l.get("sample") == "end")
    calls = next(l["transactions_during_idle"] for l in lines if "transactions_during_idle" in l)
    results["idle"] = lines
    window = end["t"] - begin["t"]
    cpu = (end["cpu_ns"] - begin["cpu_ns"]) / 1e9
    wakeups = end["switches"] - begin["switches"]
    label = f"idle daemon over {window:.0f} s"
    table.add(label + ": private", f"{end['private_kb'] / 1024:.2f} MiB", "-", "-",
              "<= 1.5 MiB", verdict(end["private_kb"] <= 1536),
              f"RSS {end['rss_kb'] / 1024:.2f} MiB, the rest shared library pages")
    table.add(label + ": PSS", f"{end['pss_kb'] / 1024:.2f} MiB", "-", "-", "<= 2.2 MiB",
              verdict(end["pss_kb"] <= 2.2 * 1024), "")
    table.add(label + ": threads", str(end["threads"]), "-", "-", "5 (main + 4 loops)",
              verdict(end["threads"] == 5), "")
    table.add(label + ": open fds", f"{begin['fds']} -> {end['fds']}", "-", "-", "no growth",
              verdict(end["fds"] <= begin["fds"]), "")
    table.add(label + ": CPU", f"{100 * cpu / window:.4f} %", "-", "-", "< 0.01 %",
              verdict(100 * cpu / window < 0.01), f"{cpu * 1e3:.2f} ms CPU in the window")
    table.add(label + ": wake-ups", f"{wakeups} ({wakeups / window:.2f}/s)", "-", "-", "-", "-",
              f"{calls} service transactions")

    # The soak: a long mixed command stream with the logcat module; the driver fails on a lost
    # answer or growing descriptors.
    root = device_root(args, [os.path.join(args.build, "modules", "logcat", "lib_vd_logcat.so")])
    try:
        props = os.path.join(root, "dev", "__properties__")
        os.makedirs(props)
        with open(os.path.join(props, "persist.sys.vd.storage_path"), "w") as f:
            f.write("/sdcard/")
        lines = [json.loads(l) for l in run([driver, "soak", vigild, root,
                                             str(args.soak_commands)]).splitlines() if l.strip()]
    finally:
        shutil.rmtree(root, ignore_errors=True)
    results["soak"] = lines
    end = next(l for l in lines if l.get("sample") == "end")
    s = next(l for l in lines if "commands" in l)
    table.add(f"soak, {s['commands']} commands: descriptors", f"{s['fds_baseline']} -> "
              f"{s['fds_max']} max", "-", "-", "no growth", verdict(True),
              f"every command answered in order; {s['commands'] / s['seconds']:.0f} commands/s "
              f"at time scale 0.01; RSS {end['rss_kb'] / 1024:.2f} MiB at the end")


def main():
    p = argparse.ArgumentParser(description=__doc__)
    p.add_argument("--build", required=True, help="the release build folder")
    p.add_argument("--files", type=int, default=100000)
    p.add_argument("--folders", type=int, default=1000)
    p.add_argument("--delete-runs", type=int, default=3)
    p.add_argument("--tree-dir", default=None,
                   help="where the deletion trees go (default: /dev/shm when it is a tmpfs)")
    p.add_argument("--copy-dir", default="/tmp")
    p.add_argument("--copy-mib", type=int, default=512)
    p.add_argument("--copy-runs", type=int, default=5)
    p.add_argument("--rounds", type=int, default=200)
    p.add_argument("--startups", type=int, default=15)
    p.add_argument("--idle-seconds", type=int, default=60)
    p.add_argument("--soak-commands", type=int, default=10000)
    p.add_argument("--repetitions", type=int, default=5)
    p.add_argument("--min-time", type=float, default=0.2)
    p.add_argument("--big-files", type=int, default=1000000,
                   help="the larger tree of --only delete1m")
    p.add_argument("--only", default="inproc,delete,copy,daemon",
                   help="parts to run: inproc, delete, copy, daemon, and delete1m (opt-in)")
    p.add_argument("--quick", action="store_true",
                   help="every part once on small inputs, to see that it builds and runs "
                        "(figures are not comparable)")
    p.add_argument("--json", help="also write the raw results here")
    args = p.parse_args()
    if args.quick:
        args.repetitions, args.min_time = 1, 0.01
        args.files, args.folders, args.delete_runs = 2000, 20, 1
        args.copy_mib, args.copy_runs = 16, 1
        args.rounds, args.startups, args.idle_seconds = 5, 2, 2
        args.soak_commands = 500
        args.big_files = 20000
    args.bench = os.path.join(args.build, "bench")
    if args.tree_dir is None:
        shm_ok = os.path.isdir("/dev/shm") and os.access("/dev/shm", os.W_OK)
        args.tree_dir = "/dev/shm" if shm_ok else "/tmp"

    load = os.getloadavg()[0]
    print(f"machine: {os.cpu_count()} cpus, load {load:.2f} at start"
          f"{' (busy: figures are noisy)' if load >= 1.5 else ''}; deletion trees in "
          f"{args.tree_dir}, copies in {args.copy_dir}", flush=True)
    table, results = Table(), {"load_start": load}
    steps = {"inproc": in_process, "delete": deletion, "copy": copying, "daemon": daemon_runs,
             "delete1m": big_deletion}
    for name in args.only.split(","):
        start = time.perf_counter()
        print(f"running {name} ...", file=sys.stderr, flush=True)
        steps[name](args, table, results)
        print(f"  {name} took {time.perf_counter() - start:.0f} s", file=sys.stderr, flush=True)
    results["load_end"] = os.getloadavg()[0]
    print()
    table.print()
    print(f"\nload average: {load:.2f} at start, {results['load_end']:.2f} at end")
    if args.json:
        with open(args.json, "w") as f:
            json.dump(results, f, indent=1)


if __name__ == "__main__":
    main()
