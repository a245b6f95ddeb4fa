#pragma once

// zstd where the build has it: AOV_REC_HAVE_ZSTD is 1 with the library, 0
// (or unset) without, and session files are then written uncompressed.

#ifndef AOV_REC_HAVE_ZSTD
#define AOV_REC_HAVE_ZSTD 0
#endif
#if AOV_REC_HAVE_ZSTD
#include <zstd.h>
#endif
