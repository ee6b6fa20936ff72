"""Tessaline: registered laser-scan frames in, one triangle mesh out.

    mesh = tessaline.reconstruct([(points, normals)], resolution='auto')

The compiled module (tessaline._core) does the work; everything it offers is re-exported here.
tessaline.distributed meshes a scan too large for one machine, tile by tile, on a Dask cluster.
"""
from . import _core
from ._core import *  # noqa: F401,F403  (reconstruct, Session, Mesh, Error, ...)
from ._core import __version__, backend  # noqa: F401

__all__ = [name for name in dir(_core) if not name.startswith("_") and name != "tools"]
