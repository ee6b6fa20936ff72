"""tessaline.distributed on a local Dask cluster of two worker processes: the mesh of each input format
is the program's byte for byte, a worker killed during the run changes nothing, and a failing tile names
itself and its files."""
import os
import pathlib
import signal
import struct
import subprocess
import sys

import numpy as np
import pytest

distributed = pytest.importorskip("distributed")
import tessaline  # noqa: E402
import tessaline.distributed as td  # noqa: E402

CLI = os.environ.get("TESSALINE_CLI")
pytestmark = pytest.mark.skipif(not CLI, reason="TESSALINE_CLI is not set")


@pytest.fixture(scope="module")
def client():
    # The workers are fresh interpreters: they find the package where this one did.
    package = str(pathlib.Path(tessaline.__file__).parents[1])
    os.environ["PYTHONPATH"] = os.pathsep.join([package] + [p for p in [os.environ.get("PYTHONPATH")] if p])
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, memory_limit="1GiB",
                                       dashboard_address=None)
    with distributed.Client(cluster) as c:
        yield c
    cluster.close()


@pytest.fixture(scope="module")
def scan(tmp_path_factory):
    """A simulated scan with its markers, two frames registered wrongly for the markers to leave out."""
    folder = tmp_path_factory.mktemp("scan") / "frames"
    subprocess.run([CLI, "simulate", "-o", str(folder), "--points", "60000", "--misregister", "2"], check=True,
                   capture_output=True)
    return folder


def program_mesh(inputs, out, *options):
    result = subprocess.run([CLI, "reconstruct", *map(str, inputs), "-o", str(out), "--quiet", *options],
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return out.read_bytes()


def scan_points(scan, keep=3):
    """Every `keep`-th point of the scan (positions and normals), as the program reads them."""
    frames = [f for p in sorted(scan.glob("*.ply")) for f in tessaline._core.tools.read_points(str(p))]
    points = np.concatenate([f["points"] for f in frames])[::keep].astype(np.float64)
    normals = np.concatenate([f["normals"] for f in frames])[::keep].astype(np.float64)
    return points, normals


# Resolution auto gives this scan codes 8, 4 and 2 (its density varies): each tile's codes must be the ones
# chooseScaleCodes gives over the whole scan, the left-out frames' points counted.
@pytest.mark.parametrize("resolution", ["0.5", "auto"])
@pytest.mark.parametrize("tile_blocks", [1, 8])
def test_the_mesh_of_a_scan_is_the_programs(client, scan, tmp_path, tile_blocks, resolution):
    expected = program_mesh([scan], tmp_path / "program.ply", "--resolution", resolution)
    plan = td.make_plan(client, [scan], resolution, tile_blocks=tile_blocks)
    # The markers leave out the two frames `simulate` registered wrongly, as the program's run does.
    assert sum(len(f) for f in plan.left_out) == 2
    assert len(plan.tiles) == (8 if tile_blocks == 1 else 1)
    td.run_plan(client, plan, tmp_path / "distributed.ply")
    assert (tmp_path / "distributed.ply").read_bytes() == expected


def write_ply(path, points, normals):
    header = ("ply\nformat binary_little_endian 1.0\nelement vertex %d\nproperty float x\nproperty float y\n"
              "property float z\nproperty float nx\nproperty float ny\nproperty float nz\nend_header\n" % len(points))
    body = np.hstack([points, normals]).astype("<f4").tobytes()
    path.write_bytes(header.encode() + body)


def write_text(path, points, normals):  # XYZ text with normals and colours by height
    colours = np.clip((points[:, 2:3] - points[:, 2].min()) * 4, 0, 255).astype(int) * np.array([[1, 0, 0]]) + [0, 80, 200]
    np.savetxt(path, np.hstack([points, normals, colours]), fmt=["%.5f"] * 6 + ["%d"] * 3)


def write_pcd(path, points, normals):
    header = ("# .PCD v0.7\nVERSION 0.7\nFIELDS x y z normal_x normal_y normal_z\nSIZE 4 4 4 4 4 4\nTYPE F F F F F F\n"
              "COUNT 1 1 1 1 1 1\nWIDTH %d\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS %d\nDATA ascii\n"
              % (len(points), len(points)))
    with open(path, "w") as f:
        f.write(header)
        np.savetxt(f, np.hstack([points, normals]), fmt="%.5f")


def write_ptx(path, points, normals):
    """A scan of a dome seen from above: 80 x 80 beams, a few of which found nothing (0 0 0)."""
    u, v = np.meshgrid(np.linspace(-30, 30, 80), np.linspace(-30, 30, 80), indexing="ij")
    z = np.sqrt(np.maximum(40.0**2 - u**2 - v**2, 0.0))
    grid = np.stack([u.ravel(), v.ravel(), z.ravel(), np.full(u.size, 0.5)], axis=1)
    grid[::97, :3] = 0.0
    lines = ["80", "80", "0 0 100", "1 0 0", "0 1 0", "0 0 1", "1 0 0 0", "0 1 0 0", "0 0 1 0", "0 0 0 1"]
    path.write_text("\n".join(lines) + "\n" + "\n".join("%.4f %.4f %.4f %.2f" % tuple(r) for r in grid) + "\n")


# Each format the program reads, meshed both ways; the single PLY lies 20 m away, so that the engine
# takes its run origin from the median of the points' sample.
FORMATS = [
    ("frames.ply", write_ply, (20000.0, -5.0, 3.0), "0.5"),
    ("frames.ply", write_ply, (20000.0, -5.0, 3.0), "auto"),
    ("points.xyz", write_text, (0.0, 0.0, 0.0), "0.5"),
    ("points.xyz", write_text, (0.0, 0.0, 0.0), "auto"),
    ("points.pcd", write_pcd, (0.0, 0.0, 0.0), "0.5"),
    ("dome.ptx", write_ptx, (0.0, 0.0, 0.0), "1"),
]


@pytest.mark.parametrize("name,writer,shift,resolution", FORMATS, ids=[f[0] + "-" + f[3] for f in FORMATS])
def test_every_format_gives_the_programs_mesh(client, scan, tmp_path, name, writer, shift, resolution):
    points, normals = scan_points(scan)
    path = tmp_path / name
    writer(path, points + shift, normals)
    expected = program_mesh([path], tmp_path / "program.ply", "--resolution", resolution)
    result = td.reconstruct([path], client, resolution=resolution, tile_blocks=2, output=tmp_path / "dist.ply")
    assert (tmp_path / "dist.ply").read_bytes() == expected
    if shift[0] != 0.0:
        block = result["block_size"] * float(np.float32(result["resolution"]))  # a whole number of blocks
        assert result["run_origin"][0] == pytest.approx(20000.0, abs=block)
        assert result["run_origin"][0] / block == pytest.approx(round(result["run_origin"][0] / block), abs=1e-9)


def write_las(path, points):
    """LAS 1.2, point format 0, a scale of 1 um: points without normals."""
    scale, n = 0.001, len(points)
    header = bytearray(227)
    header[0:4] = b"LASF"
    header[24:26] = bytes([1, 2])
    struct.pack_into("<HII", header, 94, 227, 227, 0)
    struct.pack_into("<BHI", header, 104, 0, 20, n)
    struct.pack_into("<3d3d", header, 131, scale, scale, scale, 0.0, 0.0, 0.0)
    hi, lo = points.max(axis=0), points.min(axis=0)
    struct.pack_into("<6d", header, 179, hi[0], lo[0], hi[1], lo[1], hi[2], lo[2])
    records = bytearray()
    for p in np.round(points / scale).astype(np.int32):
        records += struct.pack("<3iHBBbBH", *p, 0, 0, 0, 0, 0, 0)
    path.write_bytes(bytes(header) + bytes(records))


NORMALS = b"property float nx\nproperty float ny\nproperty float nz\n"
UNNAMED = b"property float a\nproperty float b\nproperty float c\n"


def test_points_without_normals_and_without_a_scanner_are_refused_with_the_fix(client, scan, tmp_path):
    points, normals = scan_points(scan, keep=20)
    write_las(tmp_path / "cloud.las", points)
    write_ply(tmp_path / "bare.ply", points, normals)
    (tmp_path / "bare.ply").write_bytes((tmp_path / "bare.ply").read_bytes().replace(NORMALS, UNNAMED))
    for path in ["cloud.las", "bare.ply"]:
        with pytest.raises(td.RefusedError, match=f"{path}: points without normals and no scanner.*--sensor X,Y,Z"):
            td.reconstruct([tmp_path / path], client, resolution=0.5, output=tmp_path / "x.ply")
    assert not (tmp_path / "x.ply").exists()


def lattice(n=90):
    """A gently stepped sheet on a lattice of 0.5 mm: many neighbours at exactly the same distance, whose
    order (the whole scan's) decides which are fitted and in what order they are summed."""
    i, j = np.meshgrid(np.arange(n), np.arange(n), indexing="ij")
    z = 0.25 * ((i * j) % 3) + 0.02 * i
    return np.stack([0.5 * i.ravel(), 0.5 * j.ravel(), z.ravel()], axis=1)


# Normals made from each point's nearest neighbours and turned toward the scanner: the frames' own poses (the
# simulated scan with its normals taken away, markers leaving two frames out), --sensor for LAS and a bare
# PLY. Tiles of one block cut through every neighbourhood.
@pytest.mark.parametrize("case,resolution", [("frames", "0.5"), ("frames", "auto"), ("las", "0.5"),
                                             ("lattice", "1"), ("lattice", "auto")])
def test_normals_made_tile_by_tile_are_the_programs(client, scan, tmp_path, case, resolution):
    options, sensor = [], None
    if case == "frames":
        inputs = tmp_path / "frames"
        inputs.mkdir()
        for p in scan.iterdir():
            data = p.read_bytes()
            (inputs / p.name).write_bytes(data.replace(NORMALS, UNNAMED, 1) if p.suffix == ".ply" else data)
    elif case == "las":
        inputs = tmp_path / "cloud.las"
        points, _ = scan_points(scan, keep=2)
        write_las(inputs, points)
        sensor = (0.0, 0.0, 400.0)
    else:
        inputs = tmp_path / "sheet.ply"
        points = lattice()
        write_ply(inputs, points, np.zeros_like(points))
        inputs.write_bytes(inputs.read_bytes().replace(NORMALS, UNNAMED))
        sensor = (20.0, 20.0, 100.0)
    if sensor:
        options = ["--sensor", ",".join(map(str, sensor))]
    expected = program_mesh([inputs], tmp_path / "program.ply", "--resolution", resolution, *options)
    result = td.reconstruct([inputs], client, resolution=resolution, tile_blocks=1, output=tmp_path / "dist.ply",
                            sensor=sensor)
    assert result["tiles"] > 1 and result["normals_estimated"] > 0
    assert (tmp_path / "dist.ply").read_bytes() == expected


class KillOnFirstTile(distributed.WorkerPlugin):
    """Kills its worker's process as the first tile starts to run there, once (the flag file says when)."""

    def __init__(self, flag):
        self.flag = flag

    def transition(self, key, start, finish, **kwargs):
        if finish == "executing" and str(key).startswith("tile-") and os.path.exists(self.flag):
            os.remove(self.flag)
            os.kill(os.getpid(), signal.SIGKILL)


def test_a_worker_killed_during_the_run_changes_nothing(client, scan, tmp_path):
    import cloudpickle

    cloudpickle.register_pickle_by_value(sys.modules[__name__])
    expected = program_mesh([scan], tmp_path / "program.ply", "--resolution", "0.5")
    flag = tmp_path / "kill-once"
    flag.write_text("")
    client.register_worker_plugin(KillOnFirstTile(str(flag)), name="kill-on-first-tile")
    try:
        td.reconstruct([scan], client, resolution=0.5, tile_blocks=1, output=tmp_path / "dist.ply")
    finally:
        client.unregister_worker_plugin("kill-on-first-tile")
    assert not flag.exists()  # a worker did die
    assert (tmp_path / "dist.ply").read_bytes() == expected


def test_a_failing_tile_names_itself_and_its_files(client, scan, tmp_path):
    frames = tmp_path / "frames"
    frames.mkdir()
    for p in sorted(scan.glob("frame_*.ply"))[:20]:
        (frames / p.name).write_bytes(p.read_bytes())
    plan = td.make_plan(client, [frames], 0.5, tile_blocks=1)
    # A file cut short after the plan was made: the tiles that read it fail, naming it.
    victim = frames / "frame_00005.ply"
    victim.write_bytes(victim.read_bytes()[:-100])
    with pytest.raises(td.TileError, match=r"tile \d+ \(1 block \(-?\d+, -?\d+, -?\d+\)\) failed: .*frame_00005"):
        td.run_plan(client, plan, tmp_path / "dist.ply")
    assert not (tmp_path / "dist.ply").exists()


def test_the_command_writes_the_programs_mesh(scan, tmp_path):
    expected = program_mesh([scan], tmp_path / "program.ply", "--resolution", "0.5")
    result = subprocess.run([sys.executable, "-m", "tessaline.distributed", str(scan), "-o", str(tmp_path / "d.ply"),
                             "--resolution", "0.5", "--local-workers", "2", "--memory-limit", "1GiB"],
                            capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stderr
    assert (tmp_path / "d.ply").read_bytes() == expected
    # The default resolution is the program's: auto.
    expected = program_mesh([scan], tmp_path / "program-auto.ply")
    result = subprocess.run([sys.executable, "-m", "tessaline.distributed", str(scan), "-o", str(tmp_path / "e.ply"),
                             "--local-workers", "1"], capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stderr
    assert (tmp_path / "e.ply").read_bytes() == expected


# The plan's passes in batches of a few units: a measured point's nearest come from its own batch and from the
# other batches whose frames lie within the bound of that first answer; the normals' reach from the batches
# whose frames reach the cells searched. The simulated scan's frames overlap everywhere; the sheet comes in 7
# strips 8.5 mm wide, two a batch, and a point's 65 nearest on its 0.5 mm lattice lie within 2.5 mm: each
# point is asked of one other batch at most.
@pytest.mark.parametrize("case,resolution", [("scan", "auto"), ("strips", "auto"), ("strips-no-normals", "1")])
def test_batches_of_a_few_units_give_the_programs_mesh(client, scan, tmp_path, monkeypatch, case, resolution):
    monkeypatch.setattr(td, "BATCH_UNITS", 3)
    monkeypatch.setattr(td, "BATCH_POINTS", 4200)
    inputs, sensor = scan, None
    if case != "scan":
        inputs = strips(tmp_path / "strips", normals=case == "strips")
        sensor = None if case == "strips" else (30.0, 30.0, 100.0)
    options = ["--sensor", ",".join(map(str, sensor))] if sensor else []
    expected = program_mesh([inputs], tmp_path / "program.ply", "--resolution", resolution, *options)
    plan = td.make_plan(client, [inputs], resolution, tile_blocks=4, sensor=sensor, work_dir=tmp_path)
    if resolution == "auto":  # the figures of the spacing are those of one task over all points
        monkeypatch.undo()
        whole = td.make_plan(client, [inputs], resolution).spacing
        assert whole["tasks"] == 1 and whole["asked"] == 0
        assert [plan.spacing[f] for f in ("median", "density", "resolution", "scale_code")] == \
            [whole[f] for f in ("median", "density", "resolution", "scale_code")]
    if case == "strips":
        assert plan.spacing["tasks"] == 4 and 0 < plan.spacing["asked"] <= plan.spacing["measured"]
    td.run_plan(client, plan, tmp_path / "dist.ply")
    assert (tmp_path / "dist.ply").read_bytes() == expected


def strips(folder, normals=True):
    """The stepped sheet in 7 strips 8.5 mm wide, a file each."""
    folder.mkdir()
    points = lattice(120)
    for i, rows in enumerate(np.array_split(np.arange(len(points)), 7)):
        path = folder / f"strip{i}.ply"
        write_ply(path, points[rows], np.tile([0.0, 0.0, 1.0], (len(rows), 1)))
        if not normals:
            path.write_bytes(path.read_bytes().replace(NORMALS, UNNAMED))
    return folder


# A batch's measure, split a unit at a time, is what each file measures alone: counts, boxes, codes, the
# flags, and each frame's markers and pose (the scan's frames all carry markers).
def test_a_batch_measured_together_splits_into_each_file_measured_alone(scan):
    settings = td.Settings(1.0, 8, False, (0.0, 0.0, 0.0))
    units = [tuple(u) for u in tessaline._core.tools.scan_units([str(scan)], "")][:12]
    together = td._per_unit(td._measure(units, settings))
    assert len(together) == len(units)
    with_markers = 0
    for unit, measured in zip(units, together):
        alone = td._per_unit(td._measure([unit], settings))[0]
        for key in ("counts", "finite", "lo", "hi", "seen", "codes", "normals", "colours", "sensors"):
            np.testing.assert_array_equal(measured[key], alone[key], err_msg=key)
        for a, b in zip(td._markers_of(measured), td._markers_of(alone), strict=True):
            assert (a is None) == (b is None)
            if a is not None:
                with_markers += 1
                for key in ("ids", "xyz", "nor", "rotation", "translation"):
                    np.testing.assert_array_equal(a[key], b[key], err_msg=key)
    assert with_markers >= len(units)


# The first answer from a query's own batch, completed from the batches within its bound: the 65 smallest
# squared distances to all usable points, as brute force finds them. The scan's frames overlap everywhere;
# the strips' batches lie side by side.
@pytest.mark.parametrize("case", ["scan", "strips"])
def test_the_nearest_from_batches_are_the_nearest_among_all_points(client, scan, tmp_path, case):
    tools, settings = tessaline._core.tools, td.Settings(1.0, 8, False, (0.0, 0.0, 0.0))
    inputs = scan if case == "scan" else strips(tmp_path / "strips")
    units = [tuple(u) for u in tools.scan_units([str(inputs)], "")]
    measured = td._per_unit(td._measure(units, settings))
    batches = td._batches([int(np.sum(m["counts"])) for m in measured], 4200)
    frames = [[f for f in tools.read_points(u[1])] for u in units]
    points = [np.concatenate([f["points"] for f in unit]) for unit in frames]
    normals = [np.concatenate([f["normals"] for f in unit]) for unit in frames]
    usable = [np.isfinite(p).all(1) & ((n * n).sum(1) > 0) & ~(np.abs(p) < 0.1).all(1) for p, n in zip(points, normals)]
    every = np.concatenate([p[u] for p, u in zip(points, usable)])
    queries = every[::37].copy()
    unit_of = np.repeat(np.arange(len(units)), [int(u.sum()) for u in usable])[::37]
    asked_of = np.searchsorted([b.stop for b in batches], unit_of, side="right")
    k = 65
    best = np.zeros((len(queries), k), dtype=np.float32)
    for i, b in enumerate(batches):
        mine = asked_of == i
        found = tools.nearest_units([units[u] for u in b], *settings.read_args(), queries[mine], k)
        best[mine] = np.asarray(found).reshape(-1, k)
    asked = td._nearest_beyond(client, units, settings, measured, batches, queries, asked_of, best, "test")
    assert asked > 0 and len(batches) == (4 if case == "strips" else len(batches))
    for q in range(len(queries)):
        d = every - queries[q]
        np.testing.assert_allclose(best[q], np.sort((d * d).sum(axis=1))[:k], rtol=1e-5)


def test_the_points_near_each_batch_are_those_brute_force_finds():
    rng = np.random.default_rng(7)
    points = rng.uniform(0, 100, (400, 3))
    radius = rng.uniform(0, 6, 400)
    radius[::50] = np.inf  # no bound: asked of every batch
    radius[1::97] = 80.0  # a far bound
    lo = rng.uniform(0, 95, (60, 3))
    hi = lo + rng.uniform(0, 10, (60, 3))
    box_batch = np.sort(rng.integers(0, 9, 60))
    near = td._within_boxes(points, radius, lo, hi, box_batch, 10)
    for b in range(10):
        expected = [q for q in range(len(points)) if any(
            np.linalg.norm(np.clip(points[q], lo[f], hi[f]) - points[q]) <= radius[q]
            for f in range(60) if box_batch[f] == b)]
        assert near[b].tolist() == expected


# (weights, limit): the batches as ranges of places, by hand; a unit above the limit makes its own batch.
@pytest.mark.parametrize("weights,limit,expected", [
    ([5, 5, 5, 5], 10, [(0, 2), (2, 4)]),
    ([20, 1, 1], 10, [(0, 1), (1, 3)]),
    ([1] * 300, 10**9, [(0, 256), (256, 300)]),
    ([], 10, []),
])
def test_batches_are_consecutive_units_within_the_limits(weights, limit, expected):
    assert [(b.start, b.stop) for b in td._batches(weights, limit)] == expected


def test_the_smallest_kept_do_not_depend_on_the_answers_order():
    rng = np.random.default_rng(3)
    answers = [(np.sort(rng.choice(50, rng.integers(1, 50), replace=False)),) for _ in range(12)]
    answers = [(p, np.sort(rng.integers(0, 9, (len(p), 4)).astype(np.float32), axis=1)) for (p,) in answers]
    kept = []
    for order in (range(12), reversed(range(12))):
        best = np.full((50, 4), np.inf, dtype=np.float32)
        for a in order:
            td._merge_smallest(best, *answers[a])
        kept.append(best)
    for q in range(50):  # the 4 smallest of everything answered for q
        every = sorted(float(x) for p, s in answers for row, values in zip(p, s) if row == q for x in values)
        assert kept[0][q].tolist() == (every + [np.inf] * 4)[:4]
    assert (kept[0] == kept[1]).all()


# A tile reads a PLY file a piece (16 MiB) at a time, keeping the points within its region: the files here
# take two pieces or more, with points the reader leaves out (a NaN, a zero normal) on the way. What it keeps
# is what the program reads, cut to the box, in order.
@pytest.mark.parametrize("body", ["binary", "ascii"])
def test_a_tile_reads_a_large_ply_in_pieces_as_the_program_reads_it(tmp_path, body):
    rng = np.random.default_rng(11)
    n = 800_000 if body == "binary" else 450_000
    points = rng.uniform(-50.0, 50.0, (n, 3)).round(3)
    normals = np.tile([0.0, 0.6, 0.8], (n, 1))
    points[::1001, 1] = np.nan
    normals[::777] = 0.0
    path = tmp_path / "large.ply"
    write_ply(path, points, normals)
    if body == "ascii":
        header = path.read_bytes().split(b"end_header\n")[0].replace(b"binary_little_endian", b"ascii")
        with open(path, "wb") as f:
            f.write(header + b"end_header\n")
            np.savetxt(f, np.hstack([points, normals]), fmt="%.3f")
    assert path.stat().st_size > 17 << 20
    whole = tessaline._core.tools.read_points(str(path))[0]
    for lo, hi in [((-10.0, -50.0, 0.0), (30.0, 5.0, 50.0)), ((-60.0,) * 3, (60.0,) * 3)]:
        inside = ((whole["points"] >= lo) & (whole["points"] <= hi)).all(axis=1)
        kept, kept_normals = tessaline._core.tools.read_points_within(str(path), 1.0, lo, hi)
        assert 0 < len(kept) < n
        assert (kept == whole["points"][inside]).all() and (kept_normals == whole["normals"][inside]).all()


def test_the_units_of_a_tile_are_those_whose_frames_reach_a_block_it_computes():
    rng = np.random.default_rng(5)
    tiles = [rng.integers(-4, 5, (rng.integers(1, 6), 3)).astype(np.int32) for _ in range(15)]
    lo = rng.integers(-6, 6, (80, 3))
    ranges = np.hstack([lo, lo + rng.integers(-1, 3, (80, 3))]).astype(np.int32)  # some empty
    unit_of_frame = np.sort(rng.integers(0, 30, 80))
    expected = []
    for blocks in tiles:  # each block and its 7 neighbours on the high side, against each frame's range
        computed = {(x + dx, y + dy, z + dz) for x, y, z in blocks.tolist()
                    for dx in (0, 1) for dy in (0, 1) for dz in (0, 1)}
        expected.append(sorted({int(unit_of_frame[f]) for f in range(80) for c in computed
                                if all(ranges[f, a] <= c[a] <= ranges[f, 3 + a] for a in range(3))}))
    assert td._tile_units(tiles, ranges, unit_of_frame) == expected
