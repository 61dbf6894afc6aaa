#pragma once

// Public headers of the primitives subsystem.
