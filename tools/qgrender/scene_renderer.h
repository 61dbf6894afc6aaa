#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/curves/GmGenericBoundingTree.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>

#include "qgrender/camera.h"
#include "qgrender/offscreen_context.h"

// Pictures of the examples' scenes, rendered offscreen: shaded meshes, strands as lines and the
// boxes of one level of a hierarchy, drawn by the library's drawTree.
namespace qgrender {

struct Rgb {
    float r, g, b;
};

class SceneRenderer {
public:
    // A width x height picture, rendered at `supersample` times that size in each direction and
    // averaged down (smooth edges). False with a reason when no offscreen context is available.
    bool create(int width, int height, int supersample = 2, std::string* error = nullptr);
    bool valid() const { return _context.valid(); }

    // Clears to the background and sets the camera and two lights fixed to it.
    void begin(const Camera& camera, Rgb background);
    // Smooth-shaded triangles, lit on both sides; per-vertex colours when given (one a vertex).
    void drawMesh(const GmTriangleMesh& mesh, Rgb colour, const std::vector<Rgb>* vertexColours = nullptr);
    // Strands as polylines: counts[k] points of strand k, the strands' points one after another.
    void drawPolylines(const std::vector<GmTVector<double>>& points, const std::vector<int>& counts, Rgb colour,
                       float width = 1.0f);
    // The boxes of one level of the tree (every leaf at or below its depth) as their edges, through
    // drawTree between glBegin(GL_LINES) and glEnd(); edges hidden by the meshes drawn paler.
    void drawTreeLevel(const GmBoundingTree& tree, int level, Rgb colour, float width = 1.0f);
    // The same for a curve tree.
    void drawTreeLevel(const GmCurveBoundingTree& tree, int level, Rgb colour, float width = 1.0f);

    // The picture so far: RGB, rows top to bottom, width x height.
    std::vector<std::uint8_t> image();
    bool savePng(const std::string& path, std::string* error = nullptr);

    int width() const { return _width; }
    int height() const { return _height; }

private:
    // Line segments emitted by `draw` inside glBegin(GL_LINES), hidden parts paler.
    void drawLines(const std::function<void()>& draw, Rgb colour, float width);

    OffscreenContext _context;
    int _width = 0, _height = 0, _supersample = 1;
    Rgb _background{1, 1, 1};
    std::vector<float> _positions, _normals, _colours;
};

}  // namespace qgrender
