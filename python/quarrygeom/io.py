"""Reading meshes into arrays for quarrygeom.Mesh."""

import numpy as np


def read_obj(path):
    """Vertices ((V, 3) float64) and triangles ((F, 3) int32) of a Wavefront OBJ file.

    Reads the "v" and "f" lines only; polygons are split into fans from their first corner,
    "v/vt/vn" corners keep their vertex index, negative indices count from the end.
    """
    vertices, faces = [], []
    with open(path) as f:
        for line in f:
            parts = line.split()
            if not parts:
                continue
            if parts[0] == "v":
                vertices.append([float(x) for x in parts[1:4]])
            elif parts[0] == "f":
                corners = []
                for c in parts[1:]:
                    i = int(c.split("/")[0])
                    corners.append(i - 1 if i > 0 else len(vertices) + i)
                faces.extend([corners[0], corners[k], corners[k + 1]] for k in range(1, len(corners) - 1))
    return np.array(vertices, dtype=np.float64).reshape(-1, 3), np.array(faces, dtype=np.int32).reshape(-1, 3)
