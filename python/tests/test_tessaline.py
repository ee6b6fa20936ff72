"""The Python module on shapes whose answer is known, its errors, its callback, and the files of the
program as Open3D and meshio read them."""
import inspect
import json
import os
import pathlib
import signal
import subprocess
import sys
import threading

import numpy as np
import pytest

import tessaline

HERE = pathlib.Path(__file__).resolve().parent
DATA = pathlib.Path(os.environ.get("TESSALINE_TEST_DATA_DIR", HERE.parents[1].parent / "shared" / "data"))
CLI = os.environ.get("TESSALINE_CLI")
STEP_NAMES = ["点云预处理", "融合数据", "生成网格"]  # screening and blocks, fusion, the mesh


def sphere(n=20000, radius=30.0, centre=(100.0, 100.0, 100.0), cap=None):
    """A Fibonacci lattice on a sphere: points evenly spread, normals outward; without the top above `cap`."""
    i = np.arange(n) + 0.5
    phi, theta = np.arccos(1 - 2 * i / n), np.pi * (1 + 5**0.5) * i
    normals = np.stack([np.cos(theta) * np.sin(phi), np.sin(theta) * np.sin(phi), np.cos(phi)], axis=1)
    if cap is not None:
        normals = normals[radius * normals[:, 2] <= cap]
    return np.asarray(centre) + radius * normals, normals


def boundary_edges(triangles):
    edges = np.sort(np.concatenate([triangles[:, [0, 1]], triangles[:, [1, 2]], triangles[:, [2, 0]]]), axis=1)
    _, counts = np.unique(edges, axis=0, return_counts=True)
    return int((counts == 1).sum())


def test_a_sphere_gives_a_closed_mesh_on_the_sphere_facing_out():
    points, normals = sphere()
    mesh = tessaline.reconstruct([(points.astype(np.float32), normals.astype(np.float32))])
    assert mesh.vertices.dtype == np.float32 and mesh.vertices.shape[1] == 3
    assert mesh.triangles.dtype == np.int32 and mesh.triangles.shape[1] == 3
    assert mesh.words.dtype == np.uint32 and mesh.words.shape == (len(mesh.vertices),)
    assert mesh.normals.shape == mesh.vertices.shape
    assert len(mesh.triangles) > 10000
    assert boundary_edges(mesh.triangles) == 0
    offset = mesh.vertices - 100.0
    radii = np.linalg.norm(offset, axis=1)
    assert np.abs(radii - 30.0).max() < 0.05 * mesh.resolution
    np.testing.assert_allclose(np.linalg.norm(mesh.normals, axis=1), 1.0, atol=1e-5)
    assert (np.einsum("ij,ij->i", mesh.normals, offset / radii[:, None]) > 0.9).all()
    v = mesh.vertices[mesh.triangles]
    facing = np.einsum("ij,ij->i", np.cross(v[:, 1] - v[:, 0], v[:, 2] - v[:, 0]), v.mean(axis=1) - 100.0)
    assert (facing > 0).all()  # counter-clockwise seen from outside
    # 'auto': 1.5 times the even spacing of 20000 points over the sphere's area.
    even = np.sqrt(4 * np.pi * 30.0**2 / 20000)
    assert mesh.resolution == pytest.approx(1.5 * even, rel=0.05)
    assert mesh.point_spacing[1] == pytest.approx(even, rel=0.05)
    # Evenly spread, every point lies as densely as the median: all get the finest cells, code 8.
    assert mesh.scale_codes == {64: 0, 32: 0, 16: 0, 8: 20000, 4: 0, 2: 0, 1: 0}


def test_frames_in_metres_come_back_in_metres():
    points, normals = sphere(n=8000)
    mesh = tessaline.reconstruct([{"points": points / 1000.0, "normals": normals}], unit="m", resolution=1.0)
    assert mesh.resolution == 1.0  # millimetres, whatever the unit
    assert mesh.scale_codes is None  # a fixed resolution keeps the points' own words
    assert np.abs(np.linalg.norm(mesh.vertices - 0.1, axis=1) - 0.03).max() < 5e-5


def test_a_fixed_resolution_keeps_the_points_wishes_and_auto_gives_none_finer_than_code_8():
    # The upper half asks for cells of code 16. A vertex's word holds the OR of its cells' codes: at a fixed
    # resolution the wish reaches the run as it was given; auto gives every point code 8 or coarser.
    points, normals = sphere(n=20000)
    words = np.where(normals[:, 2] > 0, 16, 8).astype(np.int32)
    fixed = tessaline.reconstruct([(points, normals, words)], resolution=2.0)
    assert fixed.scale_codes is None
    assert np.any(fixed.words & 16) and np.any((fixed.words & 0xFF) == 8)
    automatic = tessaline.reconstruct([(points, normals, words)])
    assert not np.any(automatic.words & 0xF0)
    assert sum(automatic.scale_codes.values()) == 20000


def test_float64_points_far_from_the_origin_keep_their_precision():
    # 10,000 km out the floats of a run could not hold a tenth of a millimetre; the module takes a
    # whole number of metres off in double precision first and adds it back to float64 vertices.
    points, normals = sphere(n=20000, centre=(0.0, 0.0, 0.0))
    offset = np.array([1e7, -2e7, 5e6])
    near = tessaline.reconstruct([(points, normals)], resolution=1.0)
    far = tessaline.reconstruct([(points + offset, normals)], resolution=1.0)
    assert far.vertices.dtype == np.float64
    assert len(far.triangles) == pytest.approx(len(near.triangles), rel=0.01)
    radii = np.linalg.norm(far.vertices - offset, axis=1)
    assert np.median(np.abs(radii - 30.0)) < 0.02


def test_a_min_piece_that_removes_every_piece_says_so():
    points, normals = sphere(n=5000)
    with pytest.warns(RuntimeWarning, match="min_piece=1000000000 removed every piece"):
        mesh = tessaline.reconstruct([(points, normals)], min_piece=10**9)
    assert len(mesh.triangles) == 0


class _Cloud:  # what an Open3D point cloud offers
    def __init__(self, points, normals):
        self.points, self.normals = points, normals


@pytest.mark.parametrize(
    "frames, error, text",
    [
        ([(np.zeros((5, 3), np.int64), np.ones((5, 3)))], TypeError, "frame 0 points must be a float array"),
        ([(np.zeros((5, 2)), np.ones((5, 2)))], ValueError, "must have the shape (N, 3)"),
        ([(np.ones((5, 3)), np.ones((4, 3)))], ValueError, "5 points but 4 normals"),
        ([(np.ones((5, 3)), np.ones((5, 3)), np.ones(5))], TypeError, "words must be an integer array"),
        ([(np.ones((5, 3)), np.ones((5, 3)), np.ones(4, np.int32))], ValueError, "one word a point"),
        ([(np.ones((5, 3)), np.ones((5, 3)), np.full(5, 2**33))], ValueError, "does not fit in 32 bits"),
        ([{"points": np.ones((5, 3)), "sensor": (1.0, 2.0)}], ValueError, "frame 0 sensor must be three numbers"),
        ([(np.ones((5, 3)), np.ones((5, 3))), {"normals": np.ones((5, 3))}], ValueError, "frame 1: no 'points'"),
        ([{"points": np.ones((5, 3)), "normals": np.ones((5, 3)), "colours": 1}], ValueError, "unknown key 'colours'"),
        ((np.ones((5, 3)), np.ones((5, 3))), TypeError, "wrap it in a list"),
        ({"points": np.ones((5, 3)), "normals": np.ones((5, 3))}, TypeError, "wrap it in a list"),
        ([()], TypeError, "a frame is (points[, normals[, words[, sensor]]]), not 0 items"),
        ([42], TypeError, "a frame is a dict"),
        ([("abc", np.ones((5, 3)))], TypeError, "must be a float array"),
    ],
)
def test_frames_it_cannot_use_are_refused_with_a_clear_text(frames, error, text):
    with pytest.raises(error) as caught:
        tessaline.reconstruct(frames, resolution=0.5)
    assert text in str(caught.value)


@pytest.mark.parametrize(
    "kwargs, error, text",
    [
        ({"resolution": 0.0}, ValueError, "setResolution resolution must be between 0.001 and 100000"),
        ({"resolution": 1e9}, ValueError, "setResolution resolution must be between 0.001 and 100000"),
        ({"resolution": "fine"}, ValueError, "or 'auto'"),
        ({"resolution": None}, TypeError, "or 'auto'"),
        ({"unit": "furlong"}, ValueError, "unit must be"),
        ({"unit": None}, TypeError, "unit must be"),
        ({"min_piece": -1}, ValueError, "min_piece must be 0 or more"),
        ({"min_piece": 2.5}, TypeError, "min_piece must be a whole number"),
        ({"fill_holes": 2}, ValueError, "fill_holes must be 0 or at least 3"),
        ({"step_callback": 3}, TypeError, "must be callable"),
    ],
)
def test_settings_it_cannot_use_are_refused(kwargs, error, text):
    points, normals = sphere(n=500)
    with pytest.raises(error, match=None) as caught:
        tessaline.reconstruct([(points, normals)], **kwargs)
    assert text in str(caught.value)


def test_a_failed_run_raises_the_library_text():
    nowhere = np.full((10, 3), np.nan)
    with pytest.raises(tessaline.Error) as caught:
        tessaline.reconstruct([(nowhere, np.ones((10, 3)))], resolution=0.5)
    assert isinstance(caught.value, RuntimeError)
    assert "status 1" in str(caught.value)
    assert "no usable points: no frames, or every point was dropped!" in str(caught.value)


def test_the_step_callback_sees_every_step_by_name_in_order():
    steps = []
    points, normals = sphere(n=5000)
    tessaline.reconstruct([(points, normals)], step_callback=steps.append)
    names = [s.step_name for s in steps]
    assert names[0] == STEP_NAMES[0] and names[-1] == STEP_NAMES[2]
    assert set(names[1:-1]) == {STEP_NAMES[1]}
    assert [s.cur_step for s in steps] == sorted(s.cur_step for s in steps)
    assert all(s.total_steps == 3 for s in steps)
    blocks = steps[1].total_sub_steps
    assert [s.cur_sub_step for s in steps[2:-1]] == list(range(blocks))


def test_an_exception_in_the_callback_ends_the_run_and_is_raised():
    calls = []

    def stop(step):
        calls.append(step.cur_step)
        raise KeyError("stop at the first step")

    points, normals = sphere(n=5000)
    with pytest.raises(KeyError, match="stop at the first step"):
        tessaline.reconstruct([(points, normals)], step_callback=stop)
    assert calls == [1]  # nothing after the step that raised
    assert len(tessaline.reconstruct([(points, normals)]).triangles) > 0  # and the next run works


def _python(script, **popen):
    """Runs `script` in a fresh interpreter that imports this same module."""
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([str(pathlib.Path(tessaline.__file__).parents[1])] + sys.path))
    return subprocess.Popen([sys.executable, "-c", script], env=env, text=True, **popen)


SPHERE = "import numpy as np, sys, threading, tessaline\n" + inspect.getsource(sphere)


def test_ctrl_c_during_the_fusion_ends_the_run_with_keyboard_interrupt():
    # Ctrl-C arrives while the library fuses its first block without the GIL: the fusion stops at its next
    # safe point (the mesh step is never reached), and KeyboardInterrupt comes out of the call.
    script = SPHERE + """
points, normals = sphere(3000000)
said = set()
def step(info):
    if info.cur_step == 2 and info.cur_sub_step == 0 and not said:  # the first block only
        said.add(2)
        print("fusing", flush=True)
    if info.cur_step == 3:
        print("meshing", flush=True)
try:
    tessaline.reconstruct([(points, normals)], resolution=1.0, step_callback=step)
    print("finished")
except KeyboardInterrupt:
    print("interrupted")
"""
    child = _python(script, stdout=subprocess.PIPE)
    assert child.stdout.readline().strip() == "fusing"
    child.send_signal(signal.SIGINT)
    out, _ = child.communicate(timeout=120)
    assert out.split() == ["interrupted"]


def test_standard_output_stays_the_process_own_whatever_the_runs_and_threads_do():
    # A step callback that prints is seen; two runs on two threads at once leave standard output working
    # (the library's lines go to a sink, nothing redirects the process's stream); none of them leak.
    script = SPHERE + """
points, normals = sphere(20000)
tessaline.reconstruct([(points, normals)], step_callback=lambda s: print("step", s.cur_step, flush=True))
runs = [threading.Thread(target=tessaline.reconstruct, args=([(points, normals)],)) for _ in range(2)]
for r in runs: r.start()
for r in runs: r.join()
print("after both")
"""
    child = _python(script, stdout=subprocess.PIPE)
    out, _ = child.communicate(timeout=120)
    lines = out.splitlines()
    assert lines[0] == "step 1" and lines[-2] == "step 3" and lines[-1] == "after both"
    assert not any("elapsed time" in line or "filter frame" in line for line in lines)


def test_the_gil_is_released_while_the_library_fuses():
    # A thread counts while the run goes on; between the callback of the first block and that of the mesh
    # step the library runs without the GIL, so the count moves on.
    counter, seen, done = [0], [], threading.Event()

    def count():
        while not done.is_set():
            counter[0] += 1

    def step(info):
        if info.cur_step in (2, 3):
            seen.append((info.cur_step, counter[0]))

    worker = threading.Thread(target=count)
    worker.start()
    try:
        points, normals = sphere(n=40000)
        tessaline.reconstruct([(points, normals)], step_callback=step)
    finally:
        done.set()
        worker.join()
    assert seen[-1][0] == 3 and seen[-2][0] == 2
    assert seen[-1][1] > seen[-2][1]


@pytest.mark.parametrize("word, low, flags", [(16, 16, 0), (0x110, 16, 0x01), (8, 8, 0), (np.uint32(0x0408), 8, 0x04)])
def test_words_reach_the_mesh(word, low, flags):
    points, normals = sphere(n=20000)
    words = np.full(len(points), word, dtype=np.uint32)
    mesh = tessaline.reconstruct([(points, normals, words)], resolution=2.0)
    assert len(mesh.words) > 0
    assert set(np.unique(mesh.words & 0xFF)) == {low}  # every cell of a vertex asks for the same code
    assert set(np.unique((mesh.words >> 8) & 0xFF)) == {flags}


def test_small_pieces_and_holes_are_finished():
    cut, cut_normals = sphere(n=20000, cap=28.0)
    bit, bit_normals = sphere(n=560, radius=5.0, centre=(200.0, 100.0, 100.0))
    frames = [(cut, cut_normals), {"points": bit, "normals": bit_normals}]
    plain = tessaline.reconstruct(frames)
    assert boundary_edges(plain.triangles) > 20
    finished = tessaline.reconstruct(frames, min_piece=2000, fill_holes=1000)
    assert boundary_edges(finished.triangles) == 0
    assert np.linalg.norm(finished.vertices - (100.0, 100.0, 100.0), axis=1).max() < 31.0  # the bit is gone


def test_too_few_points_for_the_resolution_warn():
    points, normals = sphere(n=300)
    with pytest.warns(RuntimeWarning, match="the mesh is empty.*resolution='auto' would take"):
        mesh = tessaline.reconstruct([(points, normals)], resolution=0.5)
    assert mesh.vertices.shape == (0, 3) and mesh.triangles.shape == (0, 3)


def test_a_point_cloud_object_is_a_frame_and_spacing_is_measured():
    points, normals = sphere(n=4000)
    median, even = tessaline.point_spacing([_Cloud(points, normals)])
    assert even == pytest.approx(np.sqrt(4 * np.pi * 900 / 4000), rel=0.05)
    assert 0 < median <= even * 1.1
    assert len(tessaline.reconstruct([_Cloud(points, normals)]).triangles) > 0


def test_the_example_runs():
    result = subprocess.run([sys.executable, str(HERE.parent / "example.py")], capture_output=True, text=True,
                            env=dict(os.environ), check=False)
    assert result.returncode == 0, result.stderr
    assert "triangles" in result.stdout and "steps reported: [1, 2, 3]" in result.stdout


def _o3d_cloud(o3d, points, normals, colours=None):
    """An Open3D point cloud of the points, normals and (0-1) colours."""
    cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(points))
    cloud.normals = o3d.utility.Vector3dVector(normals)
    if colours is not None:
        cloud.colors = o3d.utility.Vector3dVector(colours)
    return cloud


def _cli(*args):
    if not CLI:
        pytest.skip("the tessaline program was not built")
    return subprocess.run([CLI, *map(str, args)], capture_output=True, text=True, check=False)


def test_open3d_and_meshio_read_the_words_and_normals_of_the_program_s_files(tmp_path):
    o3d = pytest.importorskip("open3d")
    points, normals = sphere(n=8000)
    source = tmp_path / "cloud.ply"
    assert o3d.io.write_point_cloud(str(source), _o3d_cloud(o3d, points, normals))
    words = tmp_path / "words.ply"
    result = _cli("reconstruct", source, "-o", words, "--resolution", "1.5")
    assert result.returncode == 0, result.stderr
    read = o3d.t.io.read_point_cloud(str(words))
    word = read.point["word"].numpy().ravel().view(np.uint32)
    assert (word & 0xFF == 8).all()
    np.testing.assert_array_equal(read.point["scale_code"].numpy().ravel(), word & 0xFF)
    np.testing.assert_array_equal(read.point["flags"].numpy().ravel(), (word >> 8) & 0xFF)
    np.testing.assert_array_equal(read.point["quality"].numpy().ravel(), (word >> 16) & 0xFF)
    legacy = o3d.io.read_triangle_mesh(str(words))
    assert legacy.has_vertex_normals() and len(legacy.triangles) > 1000
    obj = tmp_path / "normals.obj"
    assert _cli("reconstruct", source, "-o", obj, "--resolution", "1.5").returncode == 0
    assert o3d.io.read_triangle_mesh(str(obj)).has_vertex_normals()
    meshio = pytest.importorskip("meshio")
    m = meshio.read(str(words))
    assert len(m.points) == len(word)
    np.testing.assert_array_equal(np.asarray(m.point_data["word"]).view(np.uint32), word)


@pytest.mark.parametrize("ascii", [True, False])
def test_the_program_reads_a_pcd_that_open3d_writes(tmp_path, ascii):
    o3d = pytest.importorskip("open3d")
    points, normals = sphere(n=8000)
    source = tmp_path / "cloud.pcd"
    assert o3d.io.write_point_cloud(str(source), _o3d_cloud(o3d, points, normals, np.abs(normals)), write_ascii=ascii)
    out = tmp_path / "mesh.ply"
    result = _cli("reconstruct", source, "-o", out, "--resolution", "1.5", "--json")
    assert result.returncode == 0, result.stderr
    summary = json.loads(result.stdout)
    assert summary["points"] == 8000 and summary["boundary_edges"] == 0
    mesh = o3d.io.read_triangle_mesh(str(out))
    radii = np.linalg.norm(np.asarray(mesh.vertices) - 100.0, axis=1)
    assert np.abs(radii - 30.0).max() < 0.1 * 1.5


def test_an_open3d_cloud_of_the_bunny_at_1_mm_gives_a_full_mesh(tmp_path):
    o3d = pytest.importorskip("open3d")
    reference = DATA / "stanford-bunny" / "reference" / "bun_zipper.ply"
    if not reference.is_file():
        pytest.skip(f"no {reference}")
    surface = o3d.io.read_triangle_mesh(str(reference))
    surface.compute_vertex_normals()
    o3d.utility.random.seed(1)
    cloud = surface.sample_points_poisson_disk(35000)  # about 1.0 mm apart
    source = tmp_path / "bunny.ply"
    assert o3d.io.write_point_cloud(str(source), cloud)
    out = tmp_path / "bunny_mesh.ply"
    result = _cli("reconstruct", source, "--units", "m", "-o", out, "--json", "--reference", reference)
    assert result.returncode == 0, result.stderr
    summary = json.loads(result.stdout)
    assert summary["point_spacing_mm"] == pytest.approx(1.0, abs=0.1)
    assert summary["resolution_auto"] and summary["warnings"] == []
    assert summary["comparison"]["coverage"] > 0.995
    assert summary["comparison"]["to_reference"]["median_mm"] < 0.1
    assert summary["pieces"] < 10


@pytest.mark.parametrize(
    "frame, facing",
    [
        (lambda p: (p,), 1),  # no scanner known: oriented from the outside in
        (lambda p: {"points": p, "normals": None}, 1),
        (lambda p: _Cloud(p, np.zeros((0, 3))), 1),  # an Open3D cloud without normals
        (lambda p: {"points": p, "sensor": (100.0, 100.0, 100.0)}, -1),  # seen from the centre: inward
    ],
)
def test_a_frame_without_normals_gets_them_and_gives_a_mesh(frame, facing):
    points, _ = sphere()
    mesh = tessaline.reconstruct([frame(points)])
    counts = mesh.normals_estimate
    assert counts["points"] == 20000 and counts["left_out"] == 0
    assert counts["toward_sensor" if facing < 0 else "propagated"] == 20000
    assert boundary_edges(mesh.triangles) == 0
    v = mesh.vertices[mesh.triangles]
    outward = np.einsum("ij,ij->i", np.cross(v[:, 1] - v[:, 0], v[:, 2] - v[:, 0]), v.mean(axis=1) - 100.0)
    assert (facing * outward > 0).all()
    assert np.abs(np.linalg.norm(mesh.vertices - 100.0, axis=1) - 30.0).max() < 0.05 * mesh.resolution


def test_estimate_normals_finds_the_sphere_s_normals():
    points, normals = sphere(n=5000, radius=10.0, centre=(0.0, 0.0, 0.0))
    estimated = tessaline.estimate_normals(points)
    assert estimated.dtype == np.float32 and estimated.shape == (5000, 3)
    assert np.einsum("ij,ij->i", estimated, normals).min() > 0.99  # 17-point planes on a radius of 10 spacings
    inward = tessaline.estimate_normals(points, sensor=(0.0, 0.0, 0.0), neighbours=8)
    assert np.einsum("ij,ij->i", inward, normals).max() < -0.98
    far = tessaline.estimate_normals(points + np.array([1e7, 0.0, 0.0]))  # float64 far out: the same normals
    np.testing.assert_allclose(far, estimated, atol=1e-3)
    alone = tessaline.estimate_normals(np.vstack([points, [[1e3, 0.0, 0.0]]]))
    assert (alone[-1] == 0).all()  # an isolated point has no plane
    with pytest.raises(ValueError, match="neighbours must be from 5 to 64"):
        tessaline.estimate_normals(points, neighbours=4)


def _check_halves(vertices, colours, resolution):
    """Red above the sphere's equator, blue below: pure beyond two cell edges of it, a mix of both on it."""
    height = vertices[:, 2] - 100.0
    np.testing.assert_array_equal(colours[height > 2 * resolution], [[255, 0, 0]] * (height > 2 * resolution).sum())
    np.testing.assert_array_equal(colours[height < -2 * resolution], [[0, 0, 255]] * (height < -2 * resolution).sum())
    border = colours[np.abs(height) < 0.25 * resolution].astype(int)
    assert len(border) > 10 and (border[:, 0] > 100).all() and (border[:, 2] > 100).all() and (border[:, 1] == 0).all()


@pytest.mark.parametrize("as_floats", [False, True])
def test_colors_of_the_frames_colour_the_mesh(as_floats):
    points, normals = sphere()
    colours = np.where(normals[:, 2:] > 0, [255, 0, 0], [0, 0, 255]).astype(np.uint8)
    given = colours / 255.0 if as_floats else colours
    mesh = tessaline.reconstruct([{"points": points, "normals": normals, "colors": given}])
    assert mesh.colors.dtype == np.uint8 and mesh.colors.shape == mesh.vertices.shape
    _check_halves(mesh.vertices, mesh.colors, mesh.resolution)
    assert tessaline.reconstruct([(points, normals)]).colors is None
    with pytest.raises(ValueError, match="frame 0 colors must have the shape"):
        tessaline.reconstruct([{"points": points, "normals": normals, "colors": colours[:10]}])


def test_open3d_reads_the_colours_of_the_program_s_files(tmp_path):
    o3d = pytest.importorskip("open3d")
    points, normals = sphere()
    source = tmp_path / "cloud.ply"
    red_above = np.where(normals[:, 2:] > 0, [1.0, 0, 0], [0, 0, 1.0])
    assert o3d.io.write_point_cloud(str(source), _o3d_cloud(o3d, points, normals, red_above))
    for name in ["mesh.ply", "mesh.obj"]:
        result = _cli("reconstruct", source, "-o", tmp_path / name, "--json")
        assert result.returncode == 0, result.stderr
        summary = json.loads(result.stdout)
        assert summary["colours"]["points"] == len(points)
        mesh = o3d.io.read_triangle_mesh(str(tmp_path / name))
        assert mesh.has_vertex_colors(), name
        colours = np.rint(np.asarray(mesh.vertex_colors) * 255).astype(np.uint8)
        _check_halves(np.asarray(mesh.vertices), colours, summary["resolution_mm"])


def test_a_session_fed_frame_by_frame_is_the_batch_run():
    """Eight frames, each a band of a sphere, added one by one: at the midpoint and at the end the
    session's mesh is the batch run's over the same frames on the same grid, array for array."""
    points, normals = sphere(n=20000, radius=20.0, centre=(40.0, -10.0, 30.0))
    order = np.argsort(points[:, 2], kind="stable")
    frames = [(points[i].astype(np.float32), normals[i].astype(np.float32)) for i in np.array_split(order, 8)]
    session = tessaline.Session(resolution=0.6, block_size=32)
    seen = []
    for count, frame in enumerate(frames, 1):
        session.add([frame])
        keys, parts = session.update()
        assert set(parts) <= set(keys)
        seen.append(len(keys))
        if count in (4, 8):
            batch = tessaline.reconstruct(frames[:count], resolution=0.6, origin=session.origin, block_size=32)
            live = session.mesh()
            assert len(live.triangles) > 1000
            for name in ("vertices", "triangles", "words", "normals"):
                np.testing.assert_array_equal(getattr(live, name), getattr(batch, name), err_msg=name)
    assert session.block_size == 32
    assert min(seen[1:]) < max(seen)  # a band re-meshes its own blocks and their seams, not the sphere


@pytest.mark.parametrize(
    "kwargs, error",
    [({"resolution": 0.5, "block_size": 48}, ValueError), ({"resolution": 0.5, "origin": (1, 2)}, ValueError),
     ({"resolution": "auto"}, TypeError)])
def test_session_settings_it_cannot_use_are_refused(kwargs, error):
    with pytest.raises(error):
        tessaline.Session(**kwargs)
