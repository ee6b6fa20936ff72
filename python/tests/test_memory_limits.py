"""Memory running out under an address-space limit (ulimit -v): the program and the module end with the
memory status 66049 and one message saying what to change, never with a crash."""
import json
import os
import resource
import subprocess
import sys
import textwrap

import pytest

CLI = os.environ.get("TESSALINE_CLI")
GIB = 1 << 30
# GiB of address space: below the program's start-up (the engine's first buffers), below the octree's table
# (about 1.6 GiB mapped at once) and below the mesh stage's reserve beside it.
LIMITS = [0.5, 1, 1.5, 2]
RESOLUTION = 0.5  # mm
ADVICE = "lower the resolution or raise the memory limit"
MEMORY_STATUS = 66049


def limited(gib):
    """A child's start: the address-space limit set before it runs."""
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (int(gib * GIB), int(gib * GIB)))


@pytest.fixture(scope="module")
def scan(tmp_path_factory):
    if not CLI:
        pytest.skip("TESSALINE_CLI is not set")
    folder = tmp_path_factory.mktemp("scan")
    made = subprocess.run([CLI, "simulate", "--points", "300000", "-o", str(folder)], capture_output=True,
                          text=True, check=False)
    assert made.returncode == 0, made.stderr
    return folder


def assert_no_crash(returncode, stderr):
    assert returncode >= 0, f"ended by signal {-returncode}: {stderr[-2000:]}"
    assert "terminate called" not in stderr
    assert "CUDA" not in stderr or "backend: cuda" in stderr.lower()


@pytest.mark.parametrize("gib", LIMITS)
def test_program_reports_memory_status_under_limit(scan, tmp_path, gib):
    run = subprocess.run([CLI, "reconstruct", str(scan), "--resolution", str(RESOLUTION), "-o",
                          str(tmp_path / "mesh.ply"), "--json", "--quiet"], capture_output=True, text=True,
                         check=False, preexec_fn=limited(gib), timeout=300)
    assert_no_crash(run.returncode, run.stderr)
    # The library's status reaches the exit code as every library failure does: 1, and 66049 in the JSON.
    assert run.returncode == 1, run.stderr
    lines = [line for line in run.stderr.splitlines() if line.strip()]
    assert len(lines) == 1, run.stderr
    assert ADVICE in lines[0] and "MiB" in lines[0]
    report = json.loads(run.stdout)
    assert report["library_status"] == MEMORY_STATUS
    assert report["status"] == 1
    assert report["error"] == lines[0][len("tessaline: "):]
    assert not (tmp_path / "mesh.ply").exists()


MODULE_RUN = textwrap.dedent("""
    import pathlib, sys
    import numpy as np
    import tessaline
    vertex = np.dtype([("p", "<f4", 3), ("n", "<f4", 3), ("w", "<i4")])
    frames = []
    for path in sorted(pathlib.Path(sys.argv[1]).glob("*.ply")):
        data = path.read_bytes()
        header, _, body = data.partition(b"end_header\\n")
        count = int(header.split(b"element vertex ")[1].split()[0])
        v = np.frombuffer(body, vertex, count)
        frames.append((v["p"], v["n"], v["w"].astype(np.uint32)))
    try:
        tessaline.reconstruct(frames, resolution=float(sys.argv[2]))
    except tessaline.Error as e:
        print("Error:", e)
        sys.exit(3)
    print("no error")
""")


@pytest.mark.parametrize("gib", LIMITS)
def test_module_raises_memory_error_under_limit(scan, gib):
    run = subprocess.run([sys.executable, "-c", MODULE_RUN, str(scan), str(RESOLUTION)], capture_output=True,
                         text=True, check=False, preexec_fn=limited(gib), timeout=300, env=os.environ.copy())
    assert_no_crash(run.returncode, run.stderr)
    assert run.returncode == 3, run.stdout + run.stderr
    assert f"status {MEMORY_STATUS}" in run.stdout and ADVICE in run.stdout
