#include "can_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "can_client.h"
#include "can_link.h"
#include "canserver_lines.h"

static constexpr size_t clients_max = 384;         // an agent has a channel for each of up to 256 ECUs
static constexpr int send_queue = 65536;           // bytes of a client's socket
static constexpr int64_t quiet_us = 20000;         // see enter_raw_mode
static constexpr int64_t accept_pause_us = 100000; // after a failed accept

struct named_bus {
	std::string name;
	bus_line line;
};

struct can_server {
	std::vector<named_bus> buses;
	std::vector<std::unique_ptr<can_client>> clients;
	int listener = -1;
	uint16_t port = 0;
	uint64_t last_client = 0;
	int64_t accept_after_us = 0;
};

static int64_t wall_clock_us(void)
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// Buses

static void deliver(can_server &server, int bus, const bus_line_entry &entry, int64_t now_us)
{
	char text[canserver_text_max];
	const size_t length = canserver_write_frame(text, &entry.frame, wall_clock_us());
	for (const auto &client : server.clients) {
		if (!client->is_raw || client->bus != bus || client->id == entry.sender || client->is_closing)
			continue;
		for (int i = 0; i < entry.copies; i++)
			can_client_give_frame(*client, text, length);
		can_client_flush(*client, now_us);
	}
}

static void leave_wire(can_server &server, uint64_t sender)
{
	for (const auto &client : server.clients)
		if (client->id == sender && client->on_wire > 0)
			client->on_wire--;
}

static void run_buses(can_server &server, int64_t now_us)
{
	for (size_t i = 0; i < server.buses.size(); i++) {
		bus_line &line = server.buses[i].line;
		uint64_t sender = 0;
		while (bus_line_end_transmission(line, now_us, &sender))
			leave_wire(server, sender);
		bus_line_entry entry{};
		while (bus_line_take(line, now_us, &entry))
			deliver(server, static_cast<int>(i), entry, now_us);
	}
}

// Messages of a client

static void open_bus(can_server &server, can_client &client, const canserver_message &message, int64_t)
{
	const auto found = std::find_if(
			server.buses.begin(), server.buses.end(), [&](const named_bus &bus) { return bus.name == message.text; });
	if (client.bus >= 0) {
		can_client_say(client, "< error a bus is open already >");
	} else if (found == server.buses.end()) {
		can_client_say(client, "< error could not open bus >");
		client.is_closing = true;
	} else {
		client.bus = static_cast<int>(found - server.buses.begin());
		can_client_say(client, "< ok >");
	}
}

// python-can takes the answer for wrong when a frame comes in the same read: frames wait for a moment, or until the
// client says something.
static void enter_raw_mode(can_server &, can_client &client, const canserver_message &, int64_t now_us)
{
	if (client.bus < 0) {
		can_client_say(client, "< error no bus is open >");
		return;
	}
	can_client_say(client, "< ok >");
	client.is_raw = true;
	client.quiet_until_us = now_us + quiet_us;
}

static void echo(can_server &, can_client &client, const canserver_message &, int64_t)
{
	can_client_say(client, "< echo >");
}

static void put_on_bus(can_server &server, can_client &client, const canserver_message &message, int64_t now_us)
{
	if (client.bus < 0) {
		can_client_say(client, "< error no bus is open >");
		return;
	}
	client.on_wire++;
	bus_line_put(server.buses[static_cast<size_t>(client.bus)].line, client.id, message.frame, now_us);
}

static void refuse_remote(can_server &, can_client &client, const canserver_message &, int64_t)
{
	can_client_say(client, "< error remote frames are not supported >");
}

static void take_message(can_server &server, can_client &client, int64_t now_us)
{
	static constexpr struct {
		canserver_kind kind;
		void (*act)(can_server &, can_client &, const canserver_message &, int64_t now_us);
	} rows[] = {
			{CANSERVER_OPEN, open_bus},
			{CANSERVER_RAWMODE, enter_raw_mode},
			{CANSERVER_ECHO, echo},
			{CANSERVER_SEND, put_on_bus},
			{CANSERVER_REMOTE, refuse_remote},
	};
	static_assert(std::size(rows) == 5, "what a client may say");
	canserver_message message;
	canserver_parse(client.splitter.text, client.splitter.length, &message);
	client.quiet_until_us = 0;
	for (const auto &row : rows) {
		if (row.kind != message.kind)
			continue;
		row.act(server, client, message, now_us);
		return;
	}
	can_client_say(client, "< error unknown command >");
}

// Reads little at a time, so that a full transmit queue stops a fast sender soon.
static void read_client(can_server &server, can_client &client, int64_t now_us)
{
	char bytes[1024];
	const ssize_t count = recv(client.descriptor, bytes, sizeof(bytes), MSG_DONTWAIT);
	if (count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
		client.is_gone = true;
	for (ssize_t i = 0; i < count && !client.is_closing && !client.is_gone; i++)
		if (canserver_split(&client.splitter, bytes[i]))
			take_message(server, client, now_us);
}

// Connections

static void accept_client(can_server &server, int64_t now_us)
{
	const int descriptor = accept4(server.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	if (descriptor < 0) {
		if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
			server.accept_after_us = now_us + accept_pause_us;
		return;
	}
	const int on = 1;
	(void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)); // else it is only slower
	(void)setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &send_queue, sizeof(send_queue));
	auto client = std::make_unique<can_client>();
	client->descriptor = descriptor;
	client->id = ++server.last_client;
	client->is_closing = server.clients.size() >= clients_max;
	can_client_say(*client, client->is_closing ? "< error too many clients >" : "< hi >");
	can_client_flush(*client, now_us);
	server.clients.push_back(std::move(client));
}

static void drop_gone_clients(can_server &server)
{
	std::erase_if(server.clients, [](const auto &client) {
		if (client->is_gone)
			close(client->descriptor);
		return client->is_gone;
	});
}

static int64_t next_moment(const can_server &server, int64_t now_us)
{
	int64_t next = now_us + 1000000;
	for (const named_bus &bus : server.buses)
		next = std::min(next, bus_line_deadline(bus.line));
	for (const auto &client : server.clients)
		if (!client->output.empty() && client->quiet_until_us > now_us)
			next = std::min(next, client->quiet_until_us);
	return std::max(next, now_us);
}

static std::vector<pollfd> poll_set(const can_server &server, int stop_descriptor, int64_t now_us)
{
	const short accepts = now_us >= server.accept_after_us ? POLLIN : 0;
	std::vector<pollfd> polled = {{stop_descriptor, POLLIN, 0}, {server.listener, accepts, 0}};
	for (const auto &client : server.clients) {
		const int events = (can_client_wants_to_read(*client) ? POLLIN : 0) |
				(can_client_wants_to_write(*client, now_us) ? POLLOUT : 0);
		polled.push_back({client->descriptor, static_cast<short>(events), 0});
	}
	return polled;
}

static void serve(can_server &server, const std::vector<pollfd> &polled, int64_t now_us)
{
	const size_t count = polled.size() - 2; // clients accepted below come next time
	for (size_t i = 0; i < count; i++) {
		can_client &client = *server.clients[i];
		const int events = polled[i + 2].revents;
		if (events & POLLIN)
			read_client(server, client, now_us);
		else if (events & (POLLERR | POLLHUP | POLLNVAL))
			client.is_gone = true;
		can_client_flush(client, now_us);
	}
	if (polled[1].revents != 0)
		accept_client(server, now_us);
}

void can_server_run(can_server *server, int stop_descriptor)
{
	(void)prctl(PR_SET_TIMERSLACK, 1UL); // ns; else each wait for a frame's end on the wire lasts 50 us longer
	for (;;) {
		int64_t now_us = can_link_monotonic_us();
		std::vector<pollfd> polled = poll_set(*server, stop_descriptor, now_us);
		const int64_t left_us = next_moment(*server, now_us) - now_us;
		const timespec left = {static_cast<time_t>(left_us / 1000000), static_cast<long>(left_us % 1000000 * 1000)};
		if (ppoll(polled.data(), polled.size(), &left, nullptr) < 0)
			for (pollfd &one : polled)
				one.revents = 0;
		if (polled[0].revents != 0)
			return;
		now_us = can_link_monotonic_us();
		serve(*server, polled, now_us);
		run_buses(*server, now_us);
		drop_gone_clients(*server);
	}
}

// Start and end

static std::string check_names(const std::vector<std::string> &names)
{
	if (names.empty())
		return "no bus is named; name at least one, for example: quillet-can vcan0";
	std::set<std::string> seen;
	for (const std::string &name : names) {
		if (!canserver_name_is_valid(name.c_str()))
			return "\"" + name + "\" cannot be the name of a bus: printable characters without blanks and < >";
		if (!seen.insert(name).second)
			return "the bus " + name + " is named twice";
	}
	return "";
}

static std::string why_not_listening(const can_server_options &options)
{
	const std::string place = options.listen + ":" + std::to_string(options.port);
	if (errno == EADDRINUSE)
		return place + " is taken; give another port with --port, or --port 0 for any free one";
	return "cannot listen on " + place + ": " + strerror(errno);
}

static bool listen_on(can_server &server, const addrinfo &address)
{
	server.listener = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	const int on = 1;
	if (server.listener < 0 || setsockopt(server.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
			bind(server.listener, address.ai_addr, address.ai_addrlen) != 0 || listen(server.listener, 64) != 0)
		return false;
	sockaddr_storage bound{};
	socklen_t size = sizeof(bound);
	if (getsockname(server.listener, reinterpret_cast<sockaddr *>(&bound), &size) != 0)
		return false;
	server.port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
													: reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
	return true;
}

static std::string start_listening(can_server &server, const can_server_options &options)
{
	addrinfo hints{};
	hints.ai_socktype = SOCK_STREAM;
	hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
	addrinfo *found = nullptr;
	if (getaddrinfo(options.listen.c_str(), std::to_string(options.port).c_str(), &hints, &found) != 0)
		return "\"" + options.listen + "\" is not an address to listen on; give a numeric one such as 127.0.0.1";
	const bool listens = listen_on(server, *found);
	std::string error = listens ? "" : why_not_listening(options);
	freeaddrinfo(found);
	return error;
}

can_server *can_server_new(const can_server_options &options, std::string &error)
{
	error = check_names(options.buses);
	if (!error.empty())
		return nullptr;
	std::unique_ptr<can_server, void (*)(can_server *)> server(new can_server, can_server_free);
	for (const std::string &name : options.buses)
		server->buses.push_back({name, bus_line_new(options.line)});
	error = start_listening(*server, options);
	return error.empty() ? server.release() : nullptr;
}

uint16_t can_server_port(const can_server *server)
{
	return server->port;
}

void can_server_free(can_server *server)
{
	if (server == nullptr)
		return;
	for (const auto &client : server->clients)
		close(client->descriptor);
	if (server->listener >= 0)
		close(server->listener);
	delete server;
}
