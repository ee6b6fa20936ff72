"""Tessaline from Python: three frames of a sphere scanned from three sides, one mesh out.

Run with the module on the path, e.g. PYTHONPATH=build/python/package python3 python/example.py [out.ply]
(the mesh is written when Open3D is installed).
"""
import sys

import numpy as np

import tessaline


def scan_from(direction, radius=40.0, points=15000, seed=0):
    """The half of a sphere (millimetres, centred at 100, 100, 100) that faces `direction`."""
    rng = np.random.default_rng(seed)
    normals = rng.normal(size=(points * 2, 3))
    normals /= np.linalg.norm(normals, axis=1, keepdims=True)
    normals = normals[normals @ np.asarray(direction, float) > 0][:points]
    return {"points": 100.0 + radius * normals, "normals": normals}


def main():
    frames = [scan_from(d, seed=i) for i, d in enumerate([(1, 0, 0), (-1, 1, 0), (0, -1, 1)])]
    steps = []
    mesh = tessaline.reconstruct(frames, resolution="auto", fill_holes=50,
                                 step_callback=lambda step: steps.append(step.cur_step))
    spacing, even = mesh.point_spacing
    print(f"points {spacing:.3f} mm apart (as dense as an even {even:.3f} mm): resolution {mesh.resolution:.3f} mm")
    print(f"{len(mesh.triangles)} triangles, {len(mesh.vertices)} vertices; steps reported: {sorted(set(steps))}")
    if len(sys.argv) > 1:
        try:
            import open3d as o3d
        except ImportError:
            print("Open3D is not installed: nothing written")
            return
        out = o3d.geometry.TriangleMesh(o3d.utility.Vector3dVector(mesh.vertices.astype(np.float64)),
                                        o3d.utility.Vector3iVector(mesh.triangles))
        out.vertex_normals = o3d.utility.Vector3dVector(mesh.normals.astype(np.float64))
        o3d.io.write_triangle_mesh(sys.argv[1], out)
        print(f"wrote {sys.argv[1]}")


if __name__ == "__main__":
    main()
