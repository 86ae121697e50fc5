// The C entry points that concern clients; those of address lists are in address.cpp.
#include "tervbus.h"

#include "address.h"
#include "identity.h"
#include "runtime.h"

extern "C" int tervbus_init_ll(tervbus_setup *setup)
{
	return runtime_begin(setup != nullptr ? setup->debug : nullptr);
}

extern "C" int tervbus_fini_ll(void)
{
	return runtime_end();
}

extern "C" int tervbus_init_client(tervbus_client *client, const char *broker_url)
{
	if (client == nullptr || broker_url == nullptr)
		return -1;
	return runtime_start_client(client, broker_url);
}

extern "C" int tervbus_stop_client(tervbus_client *client)
{
	return client != nullptr ? runtime_stop_client(client) : -1;
}

extern "C" int tervbus_get_identity_data(tervbus_identity *identity, address_entry **addresses, int, int)
{
	bus_names names;
	const char *why = nullptr;
	if (addresses == nullptr || !identity_names(identity, &names, &why))
		return -1;

	address_list list = address_list_of(names);
	if (!list)
		return -1;
	*addresses = list.release();
	return 0;
}

extern "C" int tervbus_send_message(tervbus_client *client, tervbus_message *message, int)
{
	return client != nullptr ? runtime_send(client, message) : -1;
}
