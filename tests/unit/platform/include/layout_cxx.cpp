#include "layout.h"
#include "tervbus.h"
#include "udsutils.h"

#define SIZE(record, on_32_bits, on_64_bits) {#record, sizeof(record), on_32_bits, on_64_bits},
#define FIELD(record, member, on_32_bits, on_64_bits) \
	{#record "." #member, offsetof(record, member), on_32_bits, on_64_bits},

const struct layout_row layout_in_cxx[] = {
#include "layout.def"
};
const size_t layout_rows_in_cxx = sizeof layout_in_cxx / sizeof *layout_in_cxx;
