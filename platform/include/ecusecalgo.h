/* ecusecalgo.h: what a key plug-in exports. A plug-in is a shared library named libecusecalgo.so, one per ECU
 * family. */
#ifndef ECUSECALGO_H
#define ECUSECALGO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the key for a SecurityAccess seed (ISO 14229-1, service 0x27). seed is the number that the four
 * seed bytes make, most significant first; the key is sent the same way. script and level are the text and
 * the level that the request gave for its ECU; what they mean is the plug-in's. */
uint32_t esr_calculate_key(uint32_t seed, const char *script, uint8_t level);

#ifdef __cplusplus
}
#endif

#endif
