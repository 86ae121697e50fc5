// The node's X.509 identity, loaded from the files of a certificate directory.
#pragma once

#include "tervbus.h"

// Loads private.pem and cert.pem of the directory and ca/ca.pem beside it. 0, or 1 with nothing left in the record;
// each failure is logged.
int mobus_load_identity(tervbus_identity *identity, const char *directory);

// Frees what a loaded identity holds; one that is not loaded is left alone.
void release_identity(tervbus_identity *identity);

// The first name of the wanted type (TERVBUS_ADDRESS_UNIT or _GROUP) among the identity's own addresses, in new memory
// that the caller frees, or NULL.
char *mobus_identity_lookup(tervbus_identity *identity, uint32_t wanted_type);
