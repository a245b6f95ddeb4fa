#pragma once

// Marks what the library exports to the system layer; everything else is hidden.
#define AOV_EXPORT __attribute__((visibility("default")))
