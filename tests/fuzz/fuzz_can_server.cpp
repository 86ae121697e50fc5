// A client of quillet-can that says whatever comes: all that the server answers are messages of the protocol, beginning
// with its greeting, and it goes on to serve.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "can_server.h"
#include "canserver_lines.h"
#include "support/loopback.h"

static void require(bool holds)
{
	if (!holds)
		abort();
}

// Runs as long as the process; its port.
static uint16_t start_server()
{
	can_server_options options;
	options.buses = {"can0", "vcan0"};
	options.port = 0;
	std::string error;
	can_server *server = can_server_new(options, error);
	require(server != nullptr);
	std::thread(can_server_run, server, -1).detach();
	return can_server_port(server);
}

static int connect_to(uint16_t port)
{
	const int descriptor = loopback_connect(port);
	const timeval patience = {20, 0};
	require(setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0);
	return descriptor;
}

static std::vector<canserver_kind> hear_all(int descriptor)
{
	std::vector<canserver_kind> kinds;
	canserver_splitter splitter{};
	char bytes[4096];
	ssize_t count = 0;
	while ((count = recv(descriptor, bytes, sizeof(bytes), 0)) > 0)
		for (ssize_t i = 0; i < count; i++) {
			if (!canserver_split(&splitter, bytes[i]))
				continue;
			canserver_message message;
			canserver_parse(splitter.text, splitter.length, &message);
			kinds.push_back(message.kind);
		}
	require(count == 0 || errno != EAGAIN); // it ends the connection, and does not keep its client waiting
	return kinds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const uint16_t port = start_server();
	const int descriptor = connect_to(port);
	char first = 0;
	require(recv(descriptor, &first, 1, MSG_PEEK) == 1 && first == '<'); // what it says later cannot run ahead of this
	(void)!send(descriptor, data, size, MSG_NOSIGNAL);                   // it may have ended the connection meanwhile
	(void)shutdown(descriptor, SHUT_WR);
	const std::vector<canserver_kind> kinds = hear_all(descriptor);
	close(descriptor);
	require(!kinds.empty() && kinds[0] == CANSERVER_HI);
	for (size_t i = 1; i < kinds.size(); i++)
		require(kinds[i] == CANSERVER_OK || kinds[i] == CANSERVER_ERROR || kinds[i] == CANSERVER_ECHO);
	return 0;
}
