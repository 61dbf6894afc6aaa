#pragma once

// Public headers of the bvh subsystem.
