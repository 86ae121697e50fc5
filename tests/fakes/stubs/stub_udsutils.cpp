// A transport library without interfaces.
#include "fakes/stubs/tell.h"
#include "udsutils.h"

int transport_interface_availibility(const char *, int)
{
	return 0;
}

int transport_interface_status(const char *, int)
{
	return 0;
}

int transport_init(int, const uds_transport_params *)
{
	return -1;
}

int transport_deinit(int, int)
{
	return -1;
}

int send_diag_command(int, const uint8_t *, uint32_t, int)
{
	return -1;
}

int recv_diag_command(int, uint8_t *, uint32_t *, int, int)
{
	return -1;
}

int open_can_port(const char *, uint32_t)
{
	return -1;
}

int receive_can_frame(int, uint8_t *, uint8_t *)
{
	return -1;
}

void movra_uds_util_debug_init(int verbosity)
{
	tell("movra_uds_util_debug_init %d", verbosity);
}
