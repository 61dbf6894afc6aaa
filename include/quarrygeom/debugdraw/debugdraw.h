#pragma once

// Public headers of the debugdraw subsystem.
