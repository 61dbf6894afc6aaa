#pragma once

#include <string>

namespace qgtools {
// Folder of the shared test and benchmark data (ccd-queries/, meshes/).
// QUARRYGEOM_DATA_DIR in the environment overrides the configured location.
std::string dataDir();
}  // namespace qgtools
