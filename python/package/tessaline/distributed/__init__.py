"""Meshing a scan too large for one machine, tile by tile, on a Dask distributed cluster.

    tessaline.distributed.reconstruct(["frames/"], client, resolution=0.5, output="mesh.ply")
    python3 -m tessaline.distributed frames/ -o mesh.ply --resolution 0.5 --local-workers 2

The mesh is the one `tessaline reconstruct` writes for the same inputs and options, byte for byte. The
plan's passes give each task a batch of units of the inputs (a point file, or a .conf scan list), consecutive
in the run's order: up to BATCH_UNITS of them, BATCH_POINTS points (BATCH_BYTES of files before the points
are counted). The run goes in four steps:

1. measure: a task a batch of units reads each with the program's
   readers and returns each frame's point count, the box of its points, whether it came with normals and
   colours, its pose and its markers;
2. plan (on the client): every choice the program or the engine makes over the whole scan, made once as
   they make it: the units and their order, the geo-referenced origin (the first LAS file's), the frames
   the optimized markers leave out (the engine's own filter, run on the frames' markers alone), the run
   origin (the engine's median of an even sample of all points, from a second pass where the scan lies
   farther from the origin than that choice can matter), the block size; then the blocks that may get
   triangles, cut into tiles of `tile_blocks` blocks in key order;
3. tiles: a task a tile reads only the units whose frames reach its blocks, keeps the points that reach
   them and their margin, runs the engine on its blocks alone (setRunOrigin, setBlockSize,
   setOwnedBlocks, processParts) and writes one file a block with triangles into a folder the workers
   share;
4. merge: one task puts the parts together in key order, welds them, removes small pieces, fills small
   holes, colours the vertices from the coloured points and writes the mesh, as the program does.

With `resolution='auto'` (the default, as in the program) the plan measures the point spacing as the
program does (the density grid from every n-th point of the run, every m-th usable point's 64 nearest
among all points: first among those of its own batch, then from the batches whose frames lie within the
bound that first answer sets, the smallest kept as the answers come in) and each tile gives its points their codes from
the points around them, reading CODE_MARGIN_EDGES cells of that grid beyond its reach.

Frames without normals get them as the program makes them (estimateNormals), before anything else, where
their scanner's position is known (a pose, a scanner in the file, or `sensor`): the plan measures the
estimate's grid and reach over the whole scan, a task a unit makes its normals from its points and those
within the reach, into a folder the later passes read. Where no scanner position is known (the program
orients those over the neighbour graph of the whole scan) the run is refused before any tile runs.
"""
import argparse
import os
import shutil
import sys
import tempfile
import uuid
from dataclasses import dataclass, field

import numpy as np

from .. import _core

_tools = _core.tools

# The margin of a block is 12 resolutions; a point that reaches a block within this many is kept for it.
REACH_RESOLUTIONS = 16.0
# The engine measures from the origin itself while the points' median lies within this many resolutions.
RUN_ORIGIN_NEAR_RESOLUTIONS = 16384.0
# The points of the engine's sample for its run origin.
RUN_ORIGIN_SAMPLES = 4096
# Resolution auto: a point's scale code comes from the usable points within 7 edges of the density grid of it
# (its cell and the 26 around it, and the balls of up to 4 edges around their first points); a tile keeps
# the points within this many edges beyond its reach, one to spare.
CODE_MARGIN_EDGES = 8.0
# ... and refuses a margin beyond this many resolutions: each tile would then hold most of the scan.
CODE_MARGIN_LIMIT_RESOLUTIONS = 256.0
# The neighbours measured for the point spacing: 64 and the point itself.
SPACING_NEIGHBOURS = 65


class RefusedError(ValueError):
    """A run whose mesh a distributed run cannot yet make the same as the program's."""


class TileError(RuntimeError):
    """A tile that failed: its message names the tile, its blocks and its files."""


@dataclass
class Settings:
    """How every unit of a run is read (the program's --units, --scale-code and geo-referenced origin)."""

    to_mm: float
    scale_code: int
    explicit_code: bool
    origin: tuple
    normals_dir: str = ""  # the folder of the normals estimated for frames without them ("": none)

    def read_args(self):
        return (self.to_mm, self.scale_code, self.explicit_code, self.origin, self.normals_dir)

    def raw_args(self):
        """As read_args, without the estimated normals (for the passes that measure for them)."""
        return (self.to_mm, self.scale_code, self.explicit_code, self.origin)


@dataclass
class Tile:
    index: int
    blocks: np.ndarray  # (K, 3) int32, in key order
    units: list  # places in Plan.units of the units that reach them


@dataclass
class Plan:
    units: list  # (input, path, range_set) in the program's reading order
    settings: Settings
    resolution: float
    block_size: int
    run_origin: tuple
    frame_counts: list  # frames of each unit
    left_out: list  # per unit, the places of its frames that the markers leave out
    coloured: list  # places of the units with coloured frames
    tiles: list = field(default_factory=list)
    markers_file: str = ""
    min_piece: int = 0
    fill_holes: int = 0
    points: int = 0
    codes: tuple = None  # resolution auto: (grid origin, 1 / grid edge, c_max, margin in mm); None otherwise
    spacing: dict = None  # resolution auto: the figures it was chosen from
    normals_dir: str = ""  # the folder of the normals made for frames without them; "" when none were
    normals: dict = None  # what making them measured (grid, points estimated); None when none were

    def files_of(self, tile):
        return [self.units[u][1] for u in tile.units]


# A task handles a batch of units, consecutive in the run's order: at most BATCH_UNITS of them and, beyond the
# first, at most BATCH_POINTS points (BATCH_BYTES of files for the first pass, before the points are counted).
BATCH_UNITS = 256
BATCH_POINTS = 2_000_000
BATCH_BYTES = 64 << 20
# A query's neighbours are searched in the files whose box lies within this share beyond the bound on its
# k-th distance (and EPSILON_MM more): a float's rounding of the squared distance cannot bring such a point
# below the bound.
BOUND_SPARE = 1.001
BOUND_EPSILON_MM = 1e-6
# The reach's search looks at the cells within 16 rings of a query's own (REACH_RINGS of the normals); one
# ring to spare.
NORMAL_REACH_RINGS = 17


def _batches(weights, limit):
    """The batches (ranges of places) of units of these weights, in order."""
    out, start, total = [], 0, 0
    for i, w in enumerate(weights):
        if i > start and (i - start >= BATCH_UNITS or total + w > limit):
            out.append(range(start, i))
            start, total = i, 0
        total += int(w)
    if start < len(weights):
        out.append(range(start, len(weights)))
    return out


def _file_bytes(unit):
    try:
        return os.path.getsize(unit[1])
    except OSError:
        return 0  # the reader names the file and why it cannot be read


def _measure(units, settings):
    return _tools.measure_units(units, *settings.read_args())


def _per_unit(batch):
    """A batch's measure as one record a unit: views of the batch's arrays over the unit's frames."""
    out, first = [], 0
    marker_starts = np.concatenate([[0], np.cumsum(batch["marker_counts"])])
    for frames in batch["frames"]:
        f = slice(first, first + int(frames))
        out.append({"counts": batch["counts"][f], "finite": batch["finite"][f], "lo": batch["lo"][f],
                    "hi": batch["hi"][f], "seen": batch["seen"][f], "codes": batch["codes"][f],
                    "normals": batch["normals"][f], "colours": batch["colours"][f], "sensors": batch["sensors"][f],
                    "frames": (batch, first, marker_starts)})
        first += int(frames)
    return out


def _markers_of(measured):
    """Each frame's markers and pose (None for a frame without markers), as the markers' filter takes them."""
    batch, first, starts = measured["frames"]
    out = []
    for f in range(first, first + len(measured["counts"])):
        a, b = int(starts[f]), int(starts[f + 1])
        out.append(None if a == b else {"ids": batch["marker_ids"][a:b], "xyz": batch["marker_xyz"][a:b],
                                        "nor": batch["marker_nor"][a:b], "rotation": batch["rotation"][f],
                                        "translation": batch["translation"][f]})
    return out


def _measure_all(client, scan_units, settings, name, token):
    batches = _batches([_file_bytes(u) for u in scan_units], BATCH_BYTES)
    futures = [client.submit(_measure, [scan_units[u] for u in b], settings, key=f"{name}-{i}-{token}")
               for i, b in enumerate(batches)]
    return [m for batch in client.gather(futures) for m in _per_unit(batch)]


def _sample(units, settings, firsts, stride):
    return np.concatenate([np.asarray(_tools.sample_unit(unit, *settings.read_args(), int(first), stride))
                           .reshape(-1, 3) for unit, first in zip(units, firsts)])


def _spacing_samples(units, settings, seen_first, usable_first, grid_step, stride, k):
    return _tools.spacing_samples_units(units, *settings.read_args(), seen_first, usable_first, grid_step, stride, k)


def _nearest(units, settings, queries, k):
    return _tools.nearest_units(units, *settings.read_args(), queries, k)


def _frame_boxes(measured, batches):
    """Every frame's box (lo, hi: (F, 3)) with a finite point, and the batch of its unit."""
    lo = np.concatenate([np.asarray(m["lo"]).reshape(-1, 3) for m in measured])
    hi = np.concatenate([np.asarray(m["hi"]).reshape(-1, 3) for m in measured])
    unit_batch = np.zeros(len(measured), dtype=np.int64)
    for i, b in enumerate(batches):
        unit_batch[b.start:b.stop] = i
    batch = np.repeat(unit_batch, [len(m["counts"]) for m in measured])
    boxed = (lo <= hi).all(axis=1)
    return lo[boxed], hi[boxed], batch[boxed]


def _within_boxes(points, radius, lo, hi, box_batch, batches):
    """For each batch, the places (ascending) of the points within `radius` (each its own, +inf: any
    distance) of the box of one of its frames."""
    found = [[] for _ in range(batches)]
    if len(points) == 0:
        return [np.zeros(0, dtype=np.int64) for _ in range(batches)]
    radius = np.asarray(radius, dtype=np.float64)
    # Most points search near by: sorted on x, a box's candidates are those within the largest such radius
    # on x; the few with a far bound are tried against every box.
    bounded = radius[np.isfinite(radius)]
    near_limit = 2.0 * float(np.quantile(bounded, 0.99)) if len(bounded) else 0.0
    far = np.nonzero(~(radius <= near_limit))[0]
    close = np.nonzero(radius <= near_limit)[0]
    order = close[np.argsort(points[close, 0], kind="stable")]
    xs = points[order, 0]
    firsts = np.searchsorted(xs, lo[:, 0] - near_limit, side="left")
    lasts = np.searchsorted(xs, hi[:, 0] + near_limit, side="right")

    def inside(p, r, f):
        d = np.maximum(np.maximum(lo[f] - p, p - hi[f]), 0.0)
        return (d * d).sum(axis=1) <= r * r

    for f in range(len(lo)):
        if lasts[f] > firsts[f]:
            candidates = order[firsts[f]:lasts[f]]
            hit = candidates[inside(points[candidates], radius[candidates], f)]
            if len(hit):
                found[box_batch[f]].append(hit)
    for q in far:  # each against all boxes at once
        d = np.maximum(np.maximum(lo - points[q], points[q] - hi), 0.0)
        for b in np.unique(box_batch[(d * d).sum(axis=1) <= radius[q] * radius[q]]):
            found[b].append(np.array([q]))
    return [np.unique(np.concatenate(h)) if h else np.zeros(0, dtype=np.int64) for h in found]


def _merge_smallest(best, places, found):
    """Keeps in `best` (per row, ascending) the smallest of it and `found` for the rows `places`: the k smallest
    of a multiset, whatever order the answers come in."""
    k = best.shape[1]
    best[places] = np.sort(np.concatenate([best[places], found], axis=1), axis=1)[:, :k]


def _nearest_beyond(client, scan_units, settings, measured, batches, queries, asked_of, best, token):
    """Completes `best` (per query, its k smallest squared distances among the usable points of the batch
    `asked_of` names) to the k smallest among all points: each other batch is asked for the queries within
    the bound of that first answer (its k-th, +inf where fewer were found) of one of its frames' boxes, and the
    answers merged as they come in. Returns how many (query, batch) pairs were asked."""
    k = best.shape[1]
    bound = np.sqrt(best[:, k - 1].astype(np.float64)) * BOUND_SPARE + BOUND_EPSILON_MM
    lo, hi, box_batch = _frame_boxes(measured, batches)
    near = _within_boxes(queries.astype(np.float64), bound, lo, hi, box_batch, len(batches))
    import distributed

    futures = {}
    for i, b in enumerate(batches):
        places = near[i][asked_of[near[i]] != i]  # a batch's own points it has answered already
        if len(places):
            futures[client.submit(_nearest, [scan_units[u] for u in b], settings, queries[places], k,
                                  key=f"nearest-{i}-{token}")] = places
    for future in distributed.as_completed(list(futures)):
        _merge_smallest(best, futures[future], np.asarray(future.result(), dtype=np.float32).reshape(-1, k))
        future.release()
    return sum(len(p) for p in futures.values())


def _choose_auto(client, scan_units, settings, measured, token):
    """Resolution auto as the program chooses it (chooseScaleCodes): the grid of the density from every n-th
    point of the run, the spacing from every m-th usable point's 64 nearest among all points, c_max from the
    codes of all usable points. The nearest: the pass that takes the samples answers them among the points
    of each task's own units; the k-th of that answer bounds how far a measured point's nearest can lie, and a
    second pass asks each other task only for the points within that bound of one of its frames' boxes (its
    other points are all at least that far, and cannot change the k smallest). Returns (resolution, codes
    for the tiles, the figures)."""
    seen = [np.asarray(m["seen"], dtype=np.int64) for m in measured]
    codes = [np.asarray(m["codes"], dtype=np.int64).reshape(-1, 7) for m in measured]
    seen_total = int(sum(int(s.sum()) for s in seen))
    code_counts = [int(c) for c in sum(c.sum(axis=0) for c in codes)]
    usable = sum(code_counts)
    if usable < 2:
        return 0.5, None, {"median": 0.0, "density": 0.0}  # the program's resolution when it cannot measure
    grid_step = _tools.spacing_grid_step(seen_total)
    stride = _tools.spacing_measure_stride(usable)
    k = min(SPACING_NEIGHBOURS, usable)
    seen_first = np.cumsum([0] + [int(s.sum()) for s in seen])[:-1]
    usable_first = np.cumsum([0] + [int(c.sum()) for c in codes])[:-1]
    batches = _batches([int(c.sum()) for c in codes], BATCH_POINTS)
    futures = [client.submit(_spacing_samples, [scan_units[u] for u in b], settings, int(seen_first[b.start]),
                             int(usable_first[b.start]), grid_step, stride, k, key=f"spacing-{i}-{token}")
               for i, b in enumerate(batches)]
    samples = client.gather(futures)
    grid_sample = np.concatenate([np.asarray(g, dtype=np.float32).reshape(-1, 3) for g, _, _ in samples])
    queries = np.concatenate([np.asarray(q, dtype=np.float32).reshape(-1, 3) for _, q, _ in samples])
    best = np.concatenate([np.asarray(s, dtype=np.float32).reshape(-1, k) for _, _, s in samples])
    asked_of = np.repeat(np.arange(len(batches)), [len(q) for _, q, _ in samples])
    del samples
    origin, per_edge = _tools.spacing_grid(grid_sample, seen_total)
    del grid_sample

    asked = _nearest_beyond(client, scan_units, settings, measured, batches, queries, asked_of, best, token)
    figures = dict(_tools.scale_code_choice(best, k, code_counts), tasks=len(batches), asked=asked,
                   measured=len(queries))
    resolution = float(figures["resolution"])
    if not resolution > 0.0:
        return 0.5, None, figures
    margin = CODE_MARGIN_EDGES / per_edge
    if margin > CODE_MARGIN_LIMIT_RESOLUTIONS * resolution:
        raise RefusedError(
            f"resolution 'auto' ({resolution:.4g} mm): the density grid's cells are {1.0 / per_edge:.4g} mm wide, "
            f"and each tile would have to read {margin:.4g} mm beyond its blocks (more than "
            f"{CODE_MARGIN_LIMIT_RESOLUTIONS:g} resolutions; the points are spread very unevenly): give the "
            "resolution in millimetres")
    return resolution, (tuple(origin), float(per_edge), int(figures["scale_code"]), float(margin)), figures


def _normal_guess_sample(units, settings, firsts, step):
    return np.concatenate([np.asarray(_tools.normal_guess_sample_unit(unit, *settings.raw_args(), int(first), step),
                                      dtype=np.float32).reshape(-1, 3) for unit, first in zip(units, firsts)])


def _normal_cells(units, settings, origin, edge):
    return [_tools.normal_cell_counts_unit(unit, *settings.raw_args(), origin, edge) for unit in units]


def _normal_pick(units, settings, origin, edge, codes, ordinals):
    return [_tools.normal_pick_unit(unit, *settings.raw_args(), origin, edge, c, o)
            for unit, c, o in zip(units, codes, ordinals)]


def _normal_reach(units, settings, queries, origin, edge, count):
    return _tools.normal_reach_units(units, *settings.raw_args(), queries, origin, edge, count)


def _make_normals(targets, settings, grid, sensor, folder):
    return [_tools.make_normals_unit(units, target, *settings.raw_args(), grid, lo, hi, sensor is not None,
                                     sensor if sensor is not None else (0.0, 0.0, 0.0), folder)
            for units, target, lo, hi in targets]


def _normal_cell(points, origin, edge):
    """The cells of points as the normals' search puts them (floor of (p - origin) / edge, clamped)."""
    cells = np.floor((np.asarray(points, dtype=np.float64) - np.asarray(origin)) / edge)
    return np.clip(cells, 0.0, float((1 << 21) - 2))


def _normal_grid(client, scan_units, settings, measured, token):
    """The grid and reach that estimateNormals measures over all finite points of the scan: the origin and
    extent from the frames' boxes; the guess from every n-th finite point (a pass); the first sort's cells
    from it; the reach from every m-th point in that sort's order (by cell, then the run's order): a pass
    counts each unit's points by cell, the plan finds which unit holds each measured point and a pass
    fetches them; a last pass gives each measured point's k + 1 nearest within the cells the program's search
    looks at, each task asked only for the points whose cells reach a box of its frames, and the plan keeps
    the k + 1 smallest. Returns (origin, first edge, edge, reach) in millimetres."""
    finite = [np.asarray(m["finite"], dtype=np.int64) for m in measured]
    n = int(sum(int(f.sum()) for f in finite))
    lo = np.concatenate([m["lo"] for m in measured])
    hi = np.concatenate([m["hi"] for m in measured])
    boxed = lo[:, 0] <= hi[:, 0]
    origin = tuple(float(v) for v in lo[boxed].min(axis=0))
    extent = float((hi[boxed].max(axis=0) - lo[boxed].min(axis=0)).max())
    k = int(_tools.normal_neighbours())
    firsts = np.cumsum([0] + [int(f.sum()) for f in finite])[:-1]
    step = int(_tools.normal_guess_step(n))
    batches = _batches([int(f.sum()) for f in finite], BATCH_POINTS)
    units_of = [[scan_units[u] for u in b] for b in batches]
    futures = [client.submit(_normal_guess_sample, units_of[i], settings, firsts[b.start:b.stop].tolist(), step,
                             key=f"nguess-{i}-{token}") for i, b in enumerate(batches)]
    sample = np.concatenate(client.gather(futures))
    first_edge = float(_tools.normal_first_edge(sample, n, extent))

    futures = [client.submit(_normal_cells, units_of[i], settings, origin, first_edge, key=f"ncells-{i}-{token}")
               for i in range(len(batches))]
    cells = [c for batch in client.gather(futures) for c in batch]
    codes = np.concatenate([np.asarray(c, dtype=np.uint64) for c, _ in cells])
    counts = np.concatenate([np.asarray(c, dtype=np.int64) for _, c in cells])
    owner = np.repeat(np.arange(len(scan_units)), [len(c) for c, _ in cells])
    del cells
    order = np.lexsort((owner, codes))  # the first sort's order: by cell, then the run's (the unit's) order
    codes, counts, owner = codes[order], counts[order], owner[order]
    ends = np.cumsum(counts)
    ranks = np.arange(0, n, int(_tools.normal_reach_step(n)), dtype=np.int64)
    row = np.searchsorted(ends, ranks, side="right")
    q_codes, q_ordinals, q_owner = codes[row], ranks - (ends[row] - counts[row]), owner[row]
    del codes, counts, owner, ends
    futures = []
    for i, b in enumerate(batches):
        mine = (q_owner >= b.start) & (q_owner < b.stop)
        if not mine.any():
            continue
        units = sorted(set(q_owner[mine].tolist()))
        asked = [np.nonzero(q_owner == u)[0] for u in units]
        futures.append((asked, client.submit(
            _normal_pick, [scan_units[u] for u in units], settings, origin, first_edge,
            [q_codes[a].tolist() for a in asked], [q_ordinals[a].tolist() for a in asked], key=f"npick-{i}-{token}")))
    queries = np.zeros((len(ranks), 3), dtype=np.float32)
    for asked, future in futures:
        for places, picked in zip(asked, future.result()):
            queries[places] = np.asarray(picked, dtype=np.float32).reshape(-1, 3)
        future.release()

    # A frame can hold a point in the cells a query's search looks at only where its box's cells come within
    # the search's rings of the query's cell on every axis.
    f_lo, f_hi, box_batch = _frame_boxes(measured, batches)
    cell_lo = _normal_cell(f_lo, origin, first_edge) - NORMAL_REACH_RINGS
    cell_hi = _normal_cell(f_hi, origin, first_edge) + NORMAL_REACH_RINGS
    q_cells = _normal_cell(queries, origin, first_edge)
    near = _within_boxes(q_cells, np.zeros(len(queries)), cell_lo, cell_hi, box_batch, len(batches))
    import distributed

    futures = {client.submit(_normal_reach, units_of[i], settings, queries[places], origin, first_edge, k + 1,
                             key=f"nreach-{i}-{token}"): places for i, places in enumerate(near) if len(places)}
    best = np.full((len(queries), k + 1), np.inf, dtype=np.float32)
    for future in distributed.as_completed(list(futures)):
        _merge_smallest(best, futures[future], np.asarray(future.result(), dtype=np.float32).reshape(-1, k + 1))
        future.release()
    kth = np.where(np.isfinite(best[:, k]), np.sqrt(best[:, k].astype(np.float64)), -1.0)
    edge, reach = _tools.normal_grid(kth.tolist(), extent, origin, first_edge)
    if not np.isfinite(reach):
        raise RefusedError("points without normals: their spacing cannot be measured (fewer than "
                           f"{k + 1} points around every point measured); give files with normals")
    return origin, first_edge, float(edge), float(reach)


def _estimate_normals(client, scan_units, settings, measured, sensor, folder, token):
    """Makes the normals of the frames without them, in batches of units, into `folder` (see _normal_grid):
    each unit from its points and the points of the units around it within the reach, in the run's order."""
    grid = _normal_grid(client, scan_units, settings, measured, token)
    margin = grid[3] * 1.01 + 1e-3
    frame_lo = np.concatenate([np.asarray(m["lo"]).reshape(-1, 3) for m in measured])
    frame_hi = np.concatenate([np.asarray(m["hi"]).reshape(-1, 3) for m in measured])
    frame_unit = np.repeat(np.arange(len(measured)), [len(m["counts"]) for m in measured])
    boxed = (frame_lo <= frame_hi).all(axis=1)
    frame_lo, frame_hi, frame_unit = frame_lo[boxed], frame_hi[boxed], frame_unit[boxed]
    # The frames by their lowest x: those that can meet a box lie within the widest frame of it on x.
    by_x = np.argsort(frame_lo[:, 0], kind="stable")
    xs = frame_lo[by_x, 0]
    widest = float((frame_hi[:, 0] - frame_lo[:, 0]).max()) if len(frame_lo) else 0.0
    unit_points = [int(np.asarray(m["counts"]).sum()) for m in measured]
    targets, reads = [], []
    for u, m in enumerate(measured):
        if all(m["normals"]):
            continue
        mine = frame_unit == u
        if mine.any():
            unit_lo, unit_hi = frame_lo[mine].min(axis=0) - margin, frame_hi[mine].max(axis=0) + margin
            candidates = by_x[np.searchsorted(xs, unit_lo[0] - widest, side="left"):
                              np.searchsorted(xs, unit_hi[0], side="right")]
            meets = ((frame_lo[candidates] <= unit_hi) & (frame_hi[candidates] >= unit_lo)).all(axis=1)
            near = sorted(set(frame_unit[candidates[meets]].tolist()) | {u})
        else:
            unit_lo, unit_hi, near = np.full(3, np.inf), np.full(3, -np.inf), [u]
        targets.append(([scan_units[v] for v in near], near.index(u), tuple(unit_lo), tuple(unit_hi)))
        reads.append(int(sum(unit_points[v] for v in near)))
    batches = _batches(reads, BATCH_POINTS)  # by the points the targets' tasks read
    futures = [client.submit(_make_normals, targets[b.start:b.stop], settings, grid, sensor, folder,
                             key=f"normals-{i}-{token}") for i, b in enumerate(batches)]
    made = [m for batch in client.gather(futures) for m in batch]
    return {"grid": grid, "estimated": sum(int(e) for e, _ in made), "toward_sensor": sum(int(t) for _, t in made)}


def _describe_blocks(blocks):
    first, last = tuple(int(v) for v in blocks[0]), tuple(int(v) for v in blocks[-1])
    return f"{len(blocks)} block{'s' if len(blocks) != 1 else ''} {first}" + (f" to {last}" if len(blocks) > 1 else "")


@dataclass
class TileJob:
    """What a tile's task needs of the plan (the plan itself holds every unit: megabytes a task)."""

    tile: Tile
    units: list
    skip: list
    read_args: tuple
    resolution: float
    run_origin: tuple
    block_size: int
    codes: tuple


def _tile_job(plan, tile):
    return TileJob(tile=tile, units=[plan.units[u] for u in tile.units], skip=[plan.left_out[u] for u in tile.units],
                   read_args=plan.settings.read_args(), resolution=plan.resolution, run_origin=plan.run_origin,
                   block_size=plan.block_size, codes=plan.codes)


def _run_tile(job, folder):
    tile = job.tile
    try:
        return _tools.run_tile(job.units, job.skip, *job.read_args, job.resolution, job.run_origin, job.block_size,
                               tile.blocks, REACH_RESOLUTIONS * job.resolution, folder, job.codes)
    except Exception as failure:
        files = ", ".join(u[1] for u in job.units) or "none"
        raise TileError(f"tile {tile.index} ({_describe_blocks(tile.blocks)}) failed: {failure}; its files: {files}") \
            from None


def _merge(coloured, read_args, resolution, min_piece, fill_holes, parts, output):
    return _tools.merge_parts(parts, resolution, min_piece, fill_holes, coloured, *read_args, output)


def _parse_resolution(resolution):
    if isinstance(resolution, str):
        if resolution == "auto":
            return resolution
        try:
            resolution = float(resolution)
        except ValueError:
            raise ValueError(f"resolution must be a number of millimetres, not '{resolution}'") from None
    resolution = float(resolution)
    if not 0.001 <= resolution <= 100000.0:
        raise ValueError(f"resolution must be a number of millimetres from 0.001 to 100000, not {resolution}")
    return resolution


def _parse_sensor(sensor, to_mm, origin):
    """--sensor X,Y,Z in the input's unit, as the program takes it: millimetres, the geo-referenced origin off."""
    if sensor is None:
        return None
    if isinstance(sensor, str):
        parts = sensor.split(",")
        try:
            values = [float(v) for v in parts] if len(parts) == 3 else []
        except ValueError:
            values = []
    else:
        values = [float(v) for v in sensor]
    if len(values) != 3 or not all(np.isfinite(values)):
        raise ValueError(f"sensor must be X,Y,Z, where the scanner stood in the input's unit, not '{sensor}'")
    return tuple(v * to_mm - o for v, o in zip(values, origin))


def make_plan(client, inputs, resolution, tile_blocks=8, units="mm", scale_code=None, markers=None, output="",
              min_piece=0, fill_holes=0, sensor=None, work_dir=None):
    """The measuring pass on the cluster and the plan of the tiles (see the module's text). Normals made for
    frames without them go to a folder in `work_dir` (a temporary folder when None): the plan's
    `normals_dir`, for the caller to remove once the run is done."""
    resolution = _parse_resolution(resolution)
    if isinstance(inputs, (str, os.PathLike)):
        inputs = [inputs]
    inputs = [os.fspath(i) for i in inputs]
    if not inputs:
        raise ValueError("no input given")
    if int(tile_blocks) < 1:
        raise ValueError(f"tile_blocks must be 1 or more, not {tile_blocks}")
    if scale_code is not None and scale_code not in (1, 2, 4, 8, 16, 32, 64):
        raise ValueError("scale_code must be 1, 2, 4, 8, 16, 32 or 64")
    if fill_holes and fill_holes < 3:
        raise ValueError("fill_holes must be 0 or at least 3 (a hole has three edges or more)")
    to_mm = _tools.unit_to_millimetres(units)
    scan_units = [tuple(u) for u in _tools.scan_units(inputs, output)]
    settings = Settings(to_mm, 8 if scale_code is None else int(scale_code), scale_code is not None,
                        tuple(_tools.scan_origin(scan_units, to_mm)))
    if any(settings.origin) and output.lower().endswith(".stl"):
        raise ValueError(f"{output}: STL holds coordinates as floats, which cannot keep the geo-referenced "
                         "coordinates of the input to a millimetre; write .ply or .obj")
    markers_file = _tools.markers_file_for(inputs, "" if markers is None else os.fspath(markers))

    token = uuid.uuid4().hex[:12]
    measured = _measure_all(client, scan_units, settings, "measure", token)

    sensor = _parse_sensor(sensor, to_mm, settings.origin)
    counts = [np.asarray(m["counts"], dtype=np.int64) for m in measured]
    points = int(sum(int(c.sum()) for c in counts))
    if points == 0:
        raise ValueError(", ".join(inputs) + ": the input holds no points")
    # Frames without normals: estimated as the program does before anything else, where the scanner's position
    # is known; orienting them over the neighbour graph of the whole scan is not done tile by tile.
    unfaced = [u[1] for u, m in zip(scan_units, measured)
               if any(not n and not s for n, s in zip(m["normals"], m["sensors"]))]
    if unfaced and sensor is None:
        names = ", ".join(unfaced[:3]) + (f" and {len(unfaced) - 3} more" if len(unfaced) > 3 else "")
        raise RefusedError(f"{names}: points without normals and no scanner position (their normals would be "
                           "oriented over the neighbour graph of the whole scan, which a distributed run does "
                           "not do): give where the scanner stood (--sensor X,Y,Z, sensor=(x, y, z), in the "
                           "input's unit) or files with normals")
    normals_dir, normals = "", None
    if any(not all(m["normals"]) for m in measured):
        normals_dir = (tempfile.mkdtemp(prefix="tessaline-normals-") if work_dir is None else
                       os.path.join(os.fspath(work_dir), f"normals-{token}"))
        os.makedirs(normals_dir, exist_ok=True)
        try:
            normals = _estimate_normals(client, scan_units, settings, measured, sensor, normals_dir, token)
            settings.normals_dir = normals_dir
            if resolution == "auto":  # the usable points by code, with the normals made
                measured = _measure_all(client, scan_units, settings, "remeasure", token)
        except BaseException:
            shutil.rmtree(normals_dir, ignore_errors=True)
            raise
    codes, spacing = None, None
    if resolution == "auto":
        resolution, codes, spacing = _choose_auto(client, scan_units, settings, measured, token)

    # The frames the optimized markers leave out, by their place in the run (all frames, in order).
    left_out = [[] for _ in scan_units]
    if markers_file:
        frame_markers = [fm for m in measured for fm in _markers_of(m)]
        starts = np.cumsum([0] + [len(c) for c in counts])
        for f in _tools.frames_left_out_by_markers(markers_file, to_mm, frame_markers):
            u = int(np.searchsorted(starts, f, side="right") - 1)
            left_out[u].append(int(f - starts[u]))

    block_size = _tools.engine_block_size(resolution)
    lo = np.concatenate([m["lo"] for m in measured])
    hi = np.concatenate([m["hi"] for m in measured])
    run_origin = (0.0, 0.0, 0.0)
    near = RUN_ORIGIN_NEAR_RESOLUTIONS * np.float64(np.float32(resolution))
    finite = lo[:, 0] <= hi[:, 0]
    if finite.any() and (np.abs(lo[finite]).max() > near or np.abs(hi[finite]).max() > near):
        # The engine's own origin: the median of every stride-th point of the run, frame after frame.
        stride = max(1, points // RUN_ORIGIN_SAMPLES)
        firsts = np.cumsum([0] + [int(c.sum()) for c in counts])[:-1]
        batches = _batches([int(c.sum()) for c in counts], BATCH_POINTS)
        futures = [client.submit(_sample, [scan_units[u] for u in b], settings, firsts[b.start:b.stop].tolist(),
                                 stride, key=f"sample-{i}-{token}") for i, b in enumerate(batches)]
        sample = np.concatenate(client.gather(futures))
        run_origin = tuple(_tools.choose_run_origin(sample, resolution, block_size))

    # The blocks that may get triangles, from the boxes of the frames that take part.
    block_res = float(np.float32(block_size) * np.float32(resolution))
    reach = REACH_RESOLUTIONS * resolution
    taking_part = np.ones(len(lo), dtype=bool)
    starts = np.cumsum([0] + [len(c) for c in counts])
    for u, frames in enumerate(left_out):
        for f in frames:
            taking_part[starts[u] + f] = False
    # The frames a tile reads: with auto, also those the markers leave out (their points count for the density
    # around the others), each as far as the margin of the codes.
    ranges = np.asarray(_tools.frame_block_ranges(lo, hi, run_origin, block_res,
                                                  reach + (codes[3] if codes else 0.0)))
    if codes is None:
        ranges[~taking_part] = (1, 1, 1, 0, 0, 0)
    candidates = np.asarray(_tools.candidate_blocks(lo[taking_part], hi[taking_part], run_origin, block_res, reach))
    unit_of_frame = np.repeat(np.arange(len(scan_units)), [len(c) for c in counts])

    plan = Plan(units=scan_units, settings=settings, resolution=resolution, block_size=block_size,
                run_origin=run_origin, frame_counts=[len(c) for c in counts], left_out=left_out,
                coloured=[u for u, m in enumerate(measured) if any(m["colours"])], markers_file=markers_file,
                min_piece=int(min_piece), fill_holes=int(fill_holes), points=points, codes=codes,
                spacing=spacing, normals_dir=normals_dir, normals=normals)
    tile_blocks = int(tile_blocks)
    tiles = [candidates[start:start + tile_blocks].astype(np.int32) for start in range(0, len(candidates), tile_blocks)]
    units_of = _tile_units(tiles, ranges, unit_of_frame)
    for index, blocks in enumerate(tiles):
        plan.tiles.append(Tile(index=index, blocks=blocks, units=units_of[index]))
    return plan


def _tile_units(tiles, ranges, unit_of_frame):
    """For each tile (its blocks), the units (ascending) of the frames whose block range (`ranges`: lowest x,
    y, z then highest) holds a block its run computes: its own and their neighbours on the high side. The
    computed blocks of all tiles sorted on x, each frame looks only at those within its range on x."""
    steps = np.array([(d & 1, (d >> 1) & 1, (d >> 2) & 1) for d in range(8)], dtype=np.int32)
    computed = [np.unique((blocks[:, None, :] + steps[None, :, :]).reshape(-1, 3), axis=0) for blocks in tiles]
    if not computed:
        return []
    keys = np.concatenate(computed)
    tile_of = np.repeat(np.arange(len(tiles)), [len(c) for c in computed])
    order = np.argsort(keys[:, 0], kind="stable")
    keys, tile_of = keys[order], tile_of[order]
    firsts = np.searchsorted(keys[:, 0], ranges[:, 0], side="left")
    lasts = np.searchsorted(keys[:, 0], ranges[:, 3], side="right")
    base = int(unit_of_frame.max()) + 1 if len(unit_of_frame) else 1
    pairs = []
    for f in np.nonzero(lasts > firsts)[0]:
        k = keys[firsts[f]:lasts[f]]
        r = ranges[f]
        inside = (k[:, 1] >= r[1]) & (k[:, 1] <= r[4]) & (k[:, 2] >= r[2]) & (k[:, 2] <= r[5])
        if inside.any():
            pairs.append(np.unique(tile_of[firsts[f]:lasts[f]][inside]) * base + unit_of_frame[f])
    units = [[] for _ in tiles]
    if pairs:
        for pair in np.unique(np.concatenate(pairs)).tolist():  # by tile, then unit
            units[pair // base].append(pair % base)
    return units


def run_plan(client, plan, output, parts_dir=None, before_merge=None):
    """Runs the tiles of `plan` and the merge; writes `output`. Returns the mesh's figures (a dict).
    `before_merge`: called once the tiles are done (a benchmark reads the workers' memory there)."""
    output = os.fspath(output)
    own_dir = parts_dir is None
    folder = tempfile.mkdtemp(prefix="tessaline-parts-") if own_dir else os.fspath(parts_dir)
    os.makedirs(folder, exist_ok=True)
    # Names this run's tasks: a key that a former run's task still holds on the cluster would be taken as done.
    token = uuid.uuid4().hex[:12]
    try:
        futures = [client.submit(_run_tile, _tile_job(plan, tile), folder, key=f"tile-{tile.index}-{token}")
                   for tile in plan.tiles]
        try:
            written = client.gather(futures)
        except BaseException:
            client.cancel(futures)  # the other tiles stop writing into a folder about to go
            raise
        if before_merge is not None:
            before_merge()
        keys = sorted(tuple(key) for tile in written for key, _ in tile)
        parts = [os.path.join(folder, _tools.part_name(*key)) for key in keys]
        result = client.submit(_merge, [plan.units[u] for u in plan.coloured], plan.settings.read_args(),
                               plan.resolution, plan.min_piece, plan.fill_holes, parts, output,
                               key=f"merge-{token}").result()
        result = dict(result, tiles=len(plan.tiles), parts=len(parts), points=plan.points,
                      run_origin=plan.run_origin, block_size=plan.block_size, resolution=plan.resolution)
        if result["triangles"] == 0:
            raise RuntimeError(f"the mesh is empty: at a resolution of {plan.resolution:.3g} mm no cell held enough "
                               "points; nothing was written")
        return result
    finally:
        if own_dir:
            shutil.rmtree(folder, ignore_errors=True)


def reconstruct(inputs, client=None, resolution="auto", tile_blocks=8, units="mm", output=None, scale_code=None,
                markers=None, min_piece=0, fill_holes=0, parts_dir=None, sensor=None):
    """Meshes `inputs` (the program's formats: files or folders of frames, .conf scan lists) on the Dask
    cluster of `client` (the current client, or a local cluster for the call, when None) and writes
    `output` (.ply, .obj or .stl): the mesh of `tessaline reconstruct INPUTS --resolution MM -o OUTPUT`,
    byte for byte. `tile_blocks` blocks of the engine's grid make one task; `parts_dir` is the folder the
    workers share for the parts (a temporary folder by default, which suits a cluster on one machine).
    `markers`: a file of optimized markers, 'none', or None for optimized-markers.txt beside the inputs.
    `sensor`: where the scanner stood (x, y, z in the input's unit, or "X,Y,Z"), for points without normals
    whose files do not say. Returns the mesh's figures (triangles, vertices, tiles, ...). Raises RefusedError for what cannot be
    made the same as the program's yet, TileError naming the tile and its files when a tile fails."""
    if output is None:
        raise ValueError("no output given (output='mesh.ply')")
    output = os.fspath(output)
    if not output.lower().endswith((".ply", ".obj", ".stl")):
        raise ValueError(f"{output}: unknown mesh format (use .ply, .obj or .stl)")
    own = None
    if client is None:
        import distributed

        try:
            client = distributed.get_client()
        except ValueError:
            own = distributed.Client(distributed.LocalCluster(processes=True))
            client = own
    plan = None
    try:
        plan = make_plan(client, inputs, resolution, tile_blocks=tile_blocks, units=units, scale_code=scale_code,
                         markers=markers, output=output, min_piece=min_piece, fill_holes=fill_holes, sensor=sensor,
                         work_dir=parts_dir)
        result = run_plan(client, plan, output, parts_dir=parts_dir)
        if plan.normals:
            result = dict(result, normals_estimated=plan.normals["estimated"],
                          normals_toward_sensor=plan.normals["toward_sensor"])
        return result
    finally:
        if plan is not None and plan.normals_dir:
            shutil.rmtree(plan.normals_dir, ignore_errors=True)
        if own is not None:
            cluster = own.cluster
            own.close()
            cluster.close()


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="python3 -m tessaline.distributed",
        description="Scan frames in, one triangle mesh out, tile by tile on a Dask cluster: the mesh of "
        "`tessaline reconstruct` for the same inputs and options, byte for byte.")
    parser.add_argument("inputs", nargs="+", help="point files (.ply, .ptx, .pts, .xyz, .txt, .pcd, .las), folders "
                        "of them, or .conf scan lists")
    parser.add_argument("-o", "--output", required=True, help="mesh file: .ply, .obj or .stl")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", help="address of a running Dask scheduler (tcp://host:8786)")
    where.add_argument("--local-workers", type=int, default=2, help="workers of a local cluster (default 2)")
    parser.add_argument("--memory-limit", default="auto", help="memory of each local worker, e.g. 2GiB")
    parser.add_argument("--resolution", default="auto", help="edge of the finest cell in millimetres")
    parser.add_argument("--units", default="mm", help="length unit of the input: mm, cm, m or in")
    parser.add_argument("--scale-code", type=int, help="cell size wish of every point: 1, 2, 4, 8, 16, 32 or 64")
    parser.add_argument("--markers", help="the optimized markers file, or 'none' (default: beside the inputs)")
    parser.add_argument("--min-piece", type=int, default=0, help="remove pieces of fewer triangles (0: keep all)")
    parser.add_argument("--fill-holes", type=int, default=0, help="close holes of at most this many edges")
    parser.add_argument("--tile-blocks", type=int, default=8, help="blocks of the grid a task meshes (default 8)")
    parser.add_argument("--sensor", help="X,Y,Z: where the scanner stood, in the input's unit, for points without "
                        "normals whose files do not say")
    parser.add_argument("--parts-dir", help="a folder every worker shares for the mesh parts (default: temporary)")
    args = parser.parse_args(argv)

    import distributed

    cluster = None
    try:
        _parse_resolution(args.resolution)  # refused before any cluster starts
        if args.scheduler:
            client = distributed.Client(args.scheduler)
        else:
            cluster = distributed.LocalCluster(n_workers=args.local_workers, threads_per_worker=1, processes=True,
                                               memory_limit=args.memory_limit)
            client = distributed.Client(cluster)
        with client:
            result = reconstruct(args.inputs, client, resolution=args.resolution, tile_blocks=args.tile_blocks,
                                 units=args.units, output=args.output, scale_code=args.scale_code,
                                 markers=args.markers, min_piece=args.min_piece, fill_holes=args.fill_holes,
                                 parts_dir=args.parts_dir, sensor=args.sensor)
    except (RefusedError, TileError, ValueError, RuntimeError, OSError) as failure:
        print(f"tessaline.distributed: {failure}", file=sys.stderr)
        return 1
    finally:
        if cluster is not None:
            cluster.close()
    print(f"points {result['points']}, tiles {result['tiles']}, parts {result['parts']}, resolution "
          f"{result['resolution']:g} mm, triangles {result['triangles']}, vertices {result['vertices']}, "
          f"boundary edges {result['boundary_edges']}, pieces {result['pieces']}")
    print(f"wrote {args.output}")
    return 0
