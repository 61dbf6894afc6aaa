"""QuarryGeom from Python: triangle meshes, face hierarchies and their queries over NumPy arrays.

    import numpy as np, quarrygeom as qg
    mesh = qg.Mesh(vertices, faces)          # (V, 3) float64, (F, 3) integers
    tree = qg.Tree(mesh)                     # or Tree.swept(mesh, end) / Tree.thickened(mesh, h)
    d = tree.signed_distance(points).distance

    curves = qg.Curves([12, 12, 12])         # three strands of 12 segments (13 vertices each)
    ctree = qg.CurveTree(curves, positions, radii=r)   # (39, 3) float64, (39,) radii
    touching = ctree.self_proximity(adjacency=3)        # structured, curve_contact_dtype
    crossings = ctree.mesh_crossings(tree)   # segments through the mesh's faces

Batched queries run in the library's worker threads with the GIL released. Point and ray arrays
are read in place when they are C-contiguous float64 of shape (n, 3), and converted otherwise;
meshes, positions given to set_positions / refit and the end positions of a swept tree are copied
into the library's own storage, as are curve positions and radii; every result is a new array.
"""

from ._quarrygeom import (  # noqa: F401
    ALL_TESTS,
    CurveTree,
    Curves,
    EDGE_EDGE_TESTS,
    FACE_VERTEX_TESTS,
    VERTEX_FACE_TESTS,
    DisabledMask,
    FrozenMask,
    Mesh,
    Metrics,
    Tree,
    continuous_dtype,
    curve_contact_dtype,
    intersection_pair_dtype,
    multithreading,
    orient2d,
    orient3d,
    proximity_dtype,
    set_multithreading,
    worker_count,
)

# Contact kinds in the "type" field of the contact records.
VERTEX_FACE = 1
FACE_VERTEX = 2
EDGE_EDGE = 3

__all__ = [name for name in dir() if not name.startswith("_")]
