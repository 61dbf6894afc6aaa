#include "qgrender/scene_renderer.h"

#include <GL/gl.h>

#include <algorithm>

#include "qgrender/png_file.h"

namespace qgrender {

bool SceneRenderer::create(int width, int height, int supersample, std::string* error) {
    _supersample = std::max(1, supersample);
    _width = width;
    _height = height;
    return _context.create(width * _supersample, height * _supersample, error);
}

void SceneRenderer::begin(const Camera& camera, Rgb background) {
    _context.makeCurrent();
    _background = background;
    glViewport(0, 0, _context.width(), _context.height());
    glClearColor(background.r, background.g, background.b, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LEQUAL);

    // Lights in eye space: a key light from the upper left, a weaker fill from the right.
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
    const GLfloat key[4] = {-0.4f, 0.6f, 0.7f, 0.0f}, fill[4] = {0.6f, -0.2f, 0.4f, 0.0f};
    const GLfloat keyColour[4] = {0.85f, 0.84f, 0.8f, 1}, fillColour[4] = {0.3f, 0.31f, 0.36f, 1};
    const GLfloat ambient[4] = {0.12f, 0.12f, 0.14f, 1}, specular[4] = {0.2f, 0.2f, 0.2f, 1};
    glLightfv(GL_LIGHT0, GL_POSITION, key);
    glLightfv(GL_LIGHT0, GL_DIFFUSE, keyColour);
    glLightfv(GL_LIGHT0, GL_SPECULAR, specular);
    glLightfv(GL_LIGHT1, GL_POSITION, fill);
    glLightfv(GL_LIGHT1, GL_DIFFUSE, fillColour);
    glLightModelfv(GL_LIGHT_MODEL_AMBIENT, ambient);
    glLightModeli(GL_LIGHT_MODEL_TWO_SIDE, GL_TRUE);
    glEnable(GL_LIGHT0);
    glEnable(GL_LIGHT1);
    glEnable(GL_NORMALIZE);
    glShadeModel(GL_SMOOTH);
    glColorMaterial(GL_FRONT_AND_BACK, GL_AMBIENT_AND_DIFFUSE);
    const GLfloat shine[4] = {0.2f, 0.2f, 0.2f, 1};
    glMaterialfv(GL_FRONT_AND_BACK, GL_SPECULAR, shine);
    glMaterialf(GL_FRONT_AND_BACK, GL_SHININESS, 24.0f);

    camera.load(double(_context.width()) / double(_context.height()));
}

void SceneRenderer::drawMesh(const GmTriangleMesh& mesh, Rgb colour, const std::vector<Rgb>* vertexColours) {
    const std::vector<GmTVector<double>>& x = mesh.getVertices();
    const size_t n = x.size();
    // Area-weighted vertex normals of the current positions.
    std::vector<GmTVector<double>> normal(n);
    std::vector<GLuint> indices;
    indices.reserve(mesh.getFaces().size() * 3);
    for (const GmTriangleFace& f : mesh.getFaces()) {
        const int a = f.vertices[0], b = f.vertices[1], c = f.vertices[2];
        const GmTVector<double> area = (x[b] - x[a]).cross(x[c] - x[a]);
        for (int v : f.vertices) {
            normal[static_cast<size_t>(v)] += area;
            indices.push_back(static_cast<GLuint>(v));
        }
    }
    _positions.resize(3 * n);
    _normals.resize(3 * n);
    _colours.resize(3 * n);
    const bool perVertex = vertexColours && vertexColours->size() == n;
    for (size_t i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            _positions[3 * i + k] = static_cast<float>(x[i][k]);
            _normals[3 * i + k] = static_cast<float>(normal[i][k]);
            const Rgb& c = perVertex ? (*vertexColours)[i] : colour;
            _colours[3 * i + k] = k == 0 ? c.r : k == 1 ? c.g : c.b;
        }

    glEnable(GL_LIGHTING);
    glEnable(GL_COLOR_MATERIAL);
    glEnable(GL_POLYGON_OFFSET_FILL);  // lines on the surface stay in front of it
    glPolygonOffset(1.0f, 1.0f);
    glEnableClientState(GL_VERTEX_ARRAY);
    glEnableClientState(GL_NORMAL_ARRAY);
    glEnableClientState(GL_COLOR_ARRAY);
    glVertexPointer(3, GL_FLOAT, 0, _positions.data());
    glNormalPointer(GL_FLOAT, 0, _normals.data());
    glColorPointer(3, GL_FLOAT, 0, _colours.data());
    glDrawElements(GL_TRIANGLES, static_cast<GLsizei>(indices.size()), GL_UNSIGNED_INT, indices.data());
    glDisableClientState(GL_COLOR_ARRAY);
    glDisableClientState(GL_NORMAL_ARRAY);
    glDisableClientState(GL_VERTEX_ARRAY);
    glDisable(GL_POLYGON_OFFSET_FILL);
    glDisable(GL_COLOR_MATERIAL);
    glDisable(GL_LIGHTING);
}

void SceneRenderer::drawPolylines(const std::vector<GmTVector<double>>& points, const std::vector<int>& counts,
                                  Rgb colour, float width) {
    glDisable(GL_LIGHTING);
    glLineWidth(width * static_cast<float>(_supersample));
    glColor3f(colour.r, colour.g, colour.b);
    size_t first = 0;
    for (int count : counts) {
        const size_t last = std::min(points.size(), first + static_cast<size_t>(std::max(count, 0)));
        glBegin(GL_LINE_STRIP);
        for (size_t i = first; i < last; ++i)
            glVertex3d(points[i].x, points[i].y, points[i].z);
        glEnd();
        first = last;
    }
}

void SceneRenderer::drawTreeLevel(const GmBoundingTree& tree, int level, Rgb colour, float width) {
    drawLines([&] { tree.drawTree(level); }, colour, width);
}

void SceneRenderer::drawTreeLevel(const GmCurveBoundingTree& tree, int level, Rgb colour, float width) {
    drawLines([&] { tree.drawTree(level); }, colour, width);
}

void SceneRenderer::drawLines(const std::function<void()>& draw, Rgb colour, float width) {
    glDisable(GL_LIGHTING);
    glLineWidth(width * static_cast<float>(_supersample));
    auto pass = [&](GLenum depthFunc, Rgb c) {
        glDepthFunc(depthFunc);
        glColor3f(c.r, c.g, c.b);
        glBegin(GL_LINES);
        draw();
        glEnd();
    };
    const float pale = 0.7f;
    pass(GL_GREATER, {colour.r + (_background.r - colour.r) * pale, colour.g + (_background.g - colour.g) * pale,
                      colour.b + (_background.b - colour.b) * pale});
    pass(GL_LEQUAL, colour);
}

std::vector<std::uint8_t> SceneRenderer::image() {
    const std::vector<std::uint8_t> rgba = _context.readPixels();
    const int s = _supersample, big = _context.width();
    std::vector<std::uint8_t> rgb(static_cast<size_t>(_width) * static_cast<size_t>(_height) * 3);
    for (int y = 0; y < _height; ++y)
        for (int x = 0; x < _width; ++x)
            for (int k = 0; k < 3; ++k) {
                int sum = 0;
                for (int j = 0; j < s; ++j)
                    for (int i = 0; i < s; ++i)
                        sum += rgba[(static_cast<size_t>(y * s + j) * static_cast<size_t>(big) +
                                     static_cast<size_t>(x * s + i)) * 4 + static_cast<size_t>(k)];
                // OpenGL's rows run bottom to top; the picture's top to bottom.
                rgb[(static_cast<size_t>(_height - 1 - y) * static_cast<size_t>(_width) + static_cast<size_t>(x)) * 3 +
                    static_cast<size_t>(k)] = static_cast<std::uint8_t>((sum + s * s / 2) / (s * s));
            }
    return rgb;
}

bool SceneRenderer::savePng(const std::string& path, std::string* error) {
    if (!valid()) {
        if (error) *error = "no offscreen context";
        return false;
    }
    return writePng(path, _width, _height, image(), error);
}

}  // namespace qgrender
