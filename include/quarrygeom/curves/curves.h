#pragma once

// Public headers of the curves subsystem.
