#include "qgtools/data_dir.h"

#include <cstdlib>

namespace qgtools {
std::string dataDir() {
    if (const char* env = std::getenv("QUARRYGEOM_DATA_DIR")) return env;
    return QG_DATA_DIR;
}
}  // namespace qgtools
