// The reference key plug-in: the one that the virtual ECUs check keys with, and the file that an ECU maker starts
// from.
//
// A plug-in is a shared library with the file name libecusecalgo.so, one per ECU family, in a directory of its own.
// Whoever needs a key loads it by that path, calls esr_calculate_key once and unloads it again, so a plug-in
//   - exports esr_calculate_key and nothing else (ecusecalgo.map sees to that),
//   - keeps no state between calls, starts no threads and registers nothing that would outlive the unloading,
//   - returns at once: the ECU waits for the key, and its patience (P2 of the client, S3 of the server) is short,
//   - may be called from several threads at a time,
//   - throws nothing: its callers are compiled without exceptions.
//
// To make your own: copy this directory, keep the name, the signature and the export map, and replace what stands
// below "the algorithm". Script and level mean whatever your ECU family needs them to mean. The requester gives
// both, so they may select a variant, name a vehicle line or carry a parameter; a secret does not belong there,
// because it would travel in every request. Keep secrets inside the plug-in.
//
// This algorithm is published and protects nothing. It is made for tests: every bit of the seed, each character of
// the script and the level change the key.
#include "ecusecalgo.h"

namespace
{

// FNV-1a, 32 bits: a small hash with a published reference, enough to fold the script into one number.
constexpr uint32_t fnv_offset_basis = 0x811C9DC5u;
constexpr uint32_t fnv_prime = 0x01000193u;

uint32_t fold(uint32_t hash, uint8_t byte)
{
	return (hash ^ byte) * fnv_prime;
}

// The level goes in first, so that the same script gives unrelated keys on different levels. A missing script
// counts as an empty one: a plug-in must not fall over what a request left out.
uint32_t variant_of(const char *script, uint8_t level)
{
	uint32_t hash = fold(fnv_offset_basis, level);
	for (const char *text = script != nullptr ? script : ""; *text != '\0'; text++)
		hash = fold(hash, static_cast<uint8_t>(*text));
	return hash;
}

// The finalizer of MurmurHash3: a bijection in which each input bit flips about half of the output bits.
uint32_t scramble(uint32_t value)
{
	value ^= value >> 16;
	value *= 0x85EBCA6Bu;
	value ^= value >> 13;
	value *= 0xC2B2AE35u;
	value ^= value >> 16;
	return value;
}

} // namespace

// The algorithm. For one script and level it is a bijection of the seed, so no two seeds share a key.
uint32_t esr_calculate_key(uint32_t seed, const char *script, uint8_t level)
{
	const uint32_t variant = variant_of(script, level);
	return scramble(scramble(seed ^ variant) + variant);
}
