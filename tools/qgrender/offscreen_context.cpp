#include "qgrender/offscreen_context.h"

#include <GL/osmesa.h>

namespace qgrender {

OffscreenContext::~OffscreenContext() {
    if (_context) OSMesaDestroyContext(static_cast<OSMesaContext>(_context));
}

bool OffscreenContext::create(int width, int height, std::string* error) {
    auto fail = [&](const char* why) {
        if (error) *error = why;
        return false;
    };
    if (_context) return fail("the context exists already");
    if (width <= 0 || height <= 0) return fail("empty image size");
    OSMesaContext ctx = OSMesaCreateContextExt(OSMESA_RGBA, 24, 0, 0, nullptr);
    if (!ctx) return fail("OSMesaCreateContextExt failed");
    _context = ctx;
    _width = width;
    _height = height;
    _buffer.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 4, 0);
    if (!makeCurrent()) {
        OSMesaDestroyContext(ctx);
        _context = nullptr;
        return fail("OSMesaMakeCurrent failed (image too large?)");
    }
    return true;
}

bool OffscreenContext::makeCurrent() {
    return _context && OSMesaMakeCurrent(static_cast<OSMesaContext>(_context), _buffer.data(), GL_UNSIGNED_BYTE,
                                         _width, _height);
}

std::vector<std::uint8_t> OffscreenContext::readPixels() const {
    std::vector<std::uint8_t> rgba(static_cast<size_t>(_width) * static_cast<size_t>(_height) * 4);
    if (!_context) return rgba;
    glFinish();
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, _width, _height, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    return rgba;
}

}  // namespace qgrender
