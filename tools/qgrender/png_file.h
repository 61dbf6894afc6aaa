#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qgrender {

// Writes an 8-bit RGB image (rows top to bottom, 3 bytes a pixel) as a PNG file.
// False with a reason in *error when the file cannot be written.
bool writePng(const std::string& path, int width, int height, const std::vector<std::uint8_t>& rgb,
              std::string* error = nullptr);

}  // namespace qgrender
