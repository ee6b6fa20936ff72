"""tessaline.distributed against the single-machine program on one simulated scan: wall time and the peak
memory of each worker, of the merge and of `tessaline reconstruct` (where it fits the machine).

    /usr/bin/python3 bench/bench_distributed.py --cli build/tessaline --scan /tmp/bench30/s10 --points 10000000 --parts 3x3

The scan is simulated first when its folder does not exist (`tessaline simulate -o DIR --points N --parts
KxL`). The distributed run uses a LocalCluster of worker processes, one thread each, with a memory limit each;
a worker's peak is its process's resident high-water mark (VmHWM of /proc/self/status, as ru_maxrss), read
inside each worker (the processes live for the whole run): once the tiles are done, then the mark is reset
(`5` written to /proc/self/clear_refs) and read again after the merge, a task on one of them: that worker's
second mark is the merge's peak, and the merge's time runs from there to its result. The client's peak over
the plan (its mark reset before it; the scheduler runs in the client's process) is read the same way. With
`--parts-dir` the tiles' parts are kept there, so that the merge can be run again on them alone.
"""
import argparse
import json
import os
import pathlib
import resource
import subprocess
import sys
import time


def peak_mib():
    """This process's resident high-water mark since start or the last reset, MiB."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024.0
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0


def reset_peak():
    with open("/proc/self/clear_refs", "w") as f:
        f.write("5")


def simulate(cli, folder, points, parts):
    """Simulates the scan into `folder` unless it exists; says whether it did."""
    if folder.exists():
        return False
    folder.parent.mkdir(parents=True, exist_ok=True)
    start = time.monotonic()
    subprocess.run([cli, "simulate", "-o", str(folder), "--points", str(points), "--parts", parts], check=True)
    print(f"simulated {folder} in {time.monotonic() - start:.0f} s", file=sys.stderr)
    return True


def program_run(cli, folder, output, resolution, threads):
    """`tessaline reconstruct` as a whole process: wall time and peak resident memory (/usr/bin/time -v)."""
    command = ["/usr/bin/time", "-v", cli, "reconstruct", str(folder), "-o", str(output), "--quiet",
               "--resolution", resolution, "--threads", str(threads)]
    start = time.monotonic()
    done = subprocess.run(command, capture_output=True, text=True)
    wall = time.monotonic() - start
    if done.returncode != 0:
        return {"error": done.stderr.strip().splitlines()[-1] if done.stderr.strip() else str(done.returncode)}
    peak = next((int(line.split(":")[1]) / 1024.0 for line in done.stderr.splitlines()
                 if "Maximum resident set size" in line), None)
    return {"wall_s": round(wall, 1), "peak_mib": round(peak, 0) if peak else None}


def distributed_run(folder, output, resolution, workers, memory_limit, tile_blocks, parts_dir=None):
    import distributed

    import tessaline
    import tessaline.distributed as td

    package = str(pathlib.Path(tessaline.__file__).parents[1])
    os.environ["PYTHONPATH"] = os.pathsep.join([package] + [p for p in [os.environ.get("PYTHONPATH")] if p])
    cluster = distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                       memory_limit=memory_limit, dashboard_address=None)
    client = distributed.Client(cluster)
    try:
        reset_peak()
        start = time.monotonic()
        plan = td.make_plan(client, [folder], resolution, tile_blocks=tile_blocks, output=str(output))
        planned = time.monotonic() - start
        client_peak = peak_mib()
        tiles = {}
        merge_start = []

        def before_merge():
            tiles.update(client.run(peak_mib))
            client.run(reset_peak)
            merge_start.append(time.monotonic())

        result = td.run_plan(client, plan, output, parts_dir=parts_dir, before_merge=before_merge)
        end = time.monotonic()
        wall, merged = end - start, end - merge_start[0]
        merge = client.run(peak_mib)
    finally:
        client.close()
        cluster.close()
    return {"wall_s": round(wall, 1), "plan_s": round(planned, 1), "points": result["points"], "tiles": result["tiles"],
            "triangles": result["triangles"], "resolution": result["resolution"],
            "worker_peak_mib": sorted(round(v) for v in tiles.values()),
            "merge_peak_mib": round(max(merge.values())), "merge_s": round(merged, 1),
            "client_plan_peak_mib": round(client_peak),
            "spacing": {k: v for k, v in (plan.spacing or {}).items() if k in ("tasks", "asked", "measured")}}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cli", default="build/tessaline", help="the tessaline program")
    parser.add_argument("--scan", required=True, help="folder of the scan (simulated when missing)")
    parser.add_argument("--points", type=int, default=10000000)
    parser.add_argument("--parts", default="3x3", help="the grid of parts simulate lays out, KxL")
    parser.add_argument("--resolution", default="auto")
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--memory-limit", default="4GiB", help="of each worker")
    parser.add_argument("--tile-blocks", type=int, default=8)
    parser.add_argument("--no-program", action="store_true", help="skip the single-machine run (too large)")
    parser.add_argument("--threads", type=int, default=2, help="threads of the single-machine run")
    parser.add_argument("--parts-dir", help="keep the tiles' parts in this folder (a temporary one otherwise)")
    parser.add_argument("--json", help="write the figures here too")
    args = parser.parse_args()

    cli = os.path.abspath(args.cli)
    folder = pathlib.Path(args.scan)
    made = simulate(cli, folder, args.points, args.parts)
    out = folder.parent / (folder.name + "-meshes")
    out.mkdir(exist_ok=True)
    # --points and --parts describe a scan simulated here; an existing one is measured as it is.
    figures = {"scan": str(folder), "points": args.points if made else None, "parts": args.parts if made else None,
               "resolution": args.resolution,
               "workers": args.workers, "memory_limit": args.memory_limit, "tile_blocks": args.tile_blocks,
               "cores": os.cpu_count()}
    figures["distributed"] = distributed_run(folder, out / "distributed.ply", args.resolution, args.workers,
                                             args.memory_limit, args.tile_blocks, args.parts_dir)
    figures["points"] = figures["distributed"]["points"]
    print(json.dumps(figures["distributed"]), file=sys.stderr)
    if not args.no_program:
        figures["program"] = program_run(cli, folder, out / "program.ply", args.resolution, args.threads)
        same = (out / "program.ply").exists() and \
            (out / "program.ply").read_bytes() == (out / "distributed.ply").read_bytes()
        figures["same_mesh"] = same
    text = json.dumps(figures, indent=1)
    print(text)
    if args.json:
        pathlib.Path(args.json).write_text(text + "\n")


if __name__ == "__main__":
    main()
