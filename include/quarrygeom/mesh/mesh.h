#pragma once

// Public headers of the mesh subsystem.
