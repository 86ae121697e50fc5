/* The layouts of the public records as a C and as a C++ compiler see them. */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct layout_row {
	const char *name;
	size_t actual;
	size_t on_32_bits;
	size_t on_64_bits;
};

extern const struct layout_row layout_in_c[];
extern const size_t layout_rows_in_c;
extern const struct layout_row layout_in_cxx[];
extern const size_t layout_rows_in_cxx;

#ifdef __cplusplus
}
#endif
