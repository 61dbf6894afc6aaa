#include "qgrender/png_file.h"

#include <png.h>

#include <cstdio>

namespace qgrender {

bool writePng(const std::string& path, int width, int height, const std::vector<std::uint8_t>& rgb,
              std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (width <= 0 || height <= 0 || rgb.size() != static_cast<size_t>(width) * static_cast<size_t>(height) * 3)
        return fail("image size does not match its pixels");
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return fail("cannot open " + path + " for writing");

    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        std::fclose(file);
        return fail("libpng could not start");
    }
    // libpng reports errors by longjmp; nothing with a destructor lives in this frame past here.
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        return fail("libpng failed writing " + path);
    }
    png_init_io(png, file);
    png_set_compression_level(png, 9);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y)
        png_write_row(png, rgb.data() + static_cast<size_t>(y) * static_cast<size_t>(width) * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    const bool closed = std::fclose(file) == 0;
    return closed ? true : fail("cannot finish " + path);
}

}  // namespace qgrender
