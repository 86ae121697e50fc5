// A CAN server that says whatever comes, with a proper greeting before it or without: the link is opened or not, gives
// only frames that it is to give, and ends when the server does.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "canserver_link.h"
#include "support/loopback.h"
#include "uds_log.h"

static void require(bool holds)
{
	if (!holds)
		abort();
}

// A server that listens for the whole run, and a library that is quiet.
struct listener {
	const loopback_port port;
	const std::string address = port.address();

	listener()
	{
		uds_log_set_verbosity(-1);
		port.listen(8);
	}
};

// Says its text, and listens to the end, so that nothing of it gets lost.
static void play(const listener *server, const std::string &text)
{
	const int descriptor = server->port.accept();
	(void)!send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
	(void)shutdown(descriptor, SHUT_WR);
	char bytes[4096];
	while (recv(descriptor, bytes, sizeof(bytes), 0) > 0)
		;
	close(descriptor);
}

static void use(can_link *link, can_link_filter filter)
{
	bus_frame frame{};
	int got = 0;
	for (unsigned turn = 0; got >= 0; turn++) {
		got = link->receive(link->state, &frame);
		require(got <= 0 || (filter != CAN_LINK_TAKES_NONE && frame.length <= 8 && frame.id <= bus_id_max));
		require(got <= 0 || filter != CAN_LINK_TAKES_ONE || (frame.id == 0x7E8 && !frame.is_extended));
		if (got == 0 && turn < 4)
			link->mark(link->state);
		if (got == 0)
			link->wait(link->state, -1, can_link_monotonic_us() + 20000000);
	}
	require(link->receive(link->state, &frame) == -1 && link->send(link->state, &frame) == -1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const listener server;
	if (size == 0)
		return 0;
	std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
	if ((data[0] & 1) != 0)
		text = "< hi >< ok >< ok >" + text;
	const auto filter = static_cast<can_link_filter>(data[0] / 2 % 3);
	std::thread playing(play, &server, text);
	can_link link{};
	if (canserver_link_open(&link, server.address.c_str(), "vcan0", filter, 0x7E8) == 0)
		use(&link, filter);
	can_link_close(&link);
	playing.join();
	return 0;
}
