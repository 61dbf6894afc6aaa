#pragma once

#include <cstdint>
#include <string>
#include <vector>

// An OpenGL context that renders into memory (OSMesa), for pictures and tests without a display.
//
// libOSMesa carries its own GL entry points. A program that links it directly (as every user of
// this helper does) binds the library's own GL calls, such as glVertex3f in drawTree, to them
// rather than to libGL's, so they reach this context once it is current.
namespace qgrender {

class OffscreenContext {
public:
    OffscreenContext() = default;
    ~OffscreenContext();
    OffscreenContext(const OffscreenContext&) = delete;
    OffscreenContext& operator=(const OffscreenContext&) = delete;

    // RGBA colour and a 24-bit depth buffer of width x height pixels, made current on the calling
    // thread. False with a reason in *error when no context can be created.
    bool create(int width, int height, std::string* error = nullptr);
    bool valid() const { return _context != nullptr; }
    bool makeCurrent();

    int width() const { return _width; }
    int height() const { return _height; }

    // The colour buffer read back with glReadPixels: RGBA, rows bottom to top (OpenGL's order).
    std::vector<std::uint8_t> readPixels() const;

private:
    void* _context = nullptr;
    std::vector<std::uint8_t> _buffer;
    int _width = 0, _height = 0;
};

}  // namespace qgrender
