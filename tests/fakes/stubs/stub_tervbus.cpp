// A bus library that takes every call. STUB_SIGINT_IN_START: sends SIGINT to the process from inside the start.
#include <csignal>
#include <cstdlib>

#include <unistd.h>

#include "fakes/stubs/tell.h"
#include "tervbus.h"

int tervbus_init_ll(tervbus_setup *)
{
	return 0;
}

int tervbus_fini_ll(void)
{
	tell("tervbus_fini_ll");
	return 0;
}

int tervbus_init_client(tervbus_client *, const char *broker_url)
{
	tell("tervbus_init_client %s", broker_url);
	if (getenv("STUB_SIGINT_IN_START") != nullptr)
		kill(getpid(), SIGINT);
	return 0;
}

int tervbus_stop_client(tervbus_client *client)
{
	tell("tervbus_stop_client");
	client->on_release(client);
	return 0;
}

int tervbus_get_identity_data(tervbus_identity *, address_entry **, int, int)
{
	return -1;
}

int tervbus_chain_address(address_entry **, int, const void *)
{
	return -1;
}

int tervbus_free_address(address_entry *, int)
{
	return 0;
}

int tervbus_send_message(tervbus_client *, tervbus_message *, int)
{
	return -1;
}
