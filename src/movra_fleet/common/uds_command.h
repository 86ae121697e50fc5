// Release of a command, for whoever holds it: the intake that builds it, the reply that reports it, the job.
#pragma once

#include "movra_fleet/common/records.h"

// Frees one command, already taken out of its list, with its request and its outcome text. NULL is accepted.
void free_uds_command(uds_command *command);
