#include "canserver_link.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>

#include "canserver_lines.h"
#include "guards.h"
#include "uds_log.h"

static constexpr int64_t connect_timeout_us = 2000000; // connection and handshake together
static constexpr int reads_per_call = 16;
static constexpr int receive_queue = 65536; // bytes: a channel that nobody reads must not pile up minutes of traffic

// A connection in raw mode with what has been read from it and not been used yet.
struct canserver_stream {
	int descriptor;
	can_link_filter filter;
	uint32_t id;
	bool is_dead;
	bool echoes;    // the server has answered an echo
	unsigned marks; // echoes asked for by mark and not answered yet: what comes before them is dropped
	canserver_splitter splitter;
	size_t input_at;
	size_t input_length;
	size_t output_at; // a message that the socket took only a part of
	size_t output_length;
	char output[canserver_text_max];
	char input[4096];
};
static_assert(std::is_trivially_copyable_v<canserver_stream>);

static int say_dead(canserver_stream *stream, const char *why)
{
	if (!stream->is_dead)
		uds_log(UDS_LOG_ERR, "the connection to the CAN server is lost: %s", why);
	stream->is_dead = true;
	return -1;
}

static bool would_block(void)
{
	return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// Input

// 1 = bytes, 0 = none now, -1 = dead.
static int fill_input(canserver_stream *stream)
{
	if (stream->is_dead)
		return -1;
	const ssize_t count = recv(stream->descriptor, stream->input, sizeof(stream->input), MSG_DONTWAIT);
	if (count < 0)
		return would_block() ? 0 : say_dead(stream, strerror(errno));
	if (count == 0)
		return say_dead(stream, "closed by the server");
	stream->input_at = 0;
	stream->input_length = static_cast<size_t>(count);
	return 1;
}

// The next message among the bytes read; false when they hold no further one.
static bool next_message(canserver_stream *stream, canserver_message *message)
{
	while (stream->input_at < stream->input_length) {
		if (!canserver_split(&stream->splitter, stream->input[stream->input_at++]))
			continue;
		canserver_parse(stream->splitter.text, stream->splitter.length, message);
		return true;
	}
	return false;
}

static void take_echo(canserver_stream *stream)
{
	stream->echoes = true;
	if (stream->marks > 0)
		stream->marks--;
}

static bool is_wanted(const canserver_stream *stream, const canserver_message *message)
{
	if (message->kind != CANSERVER_FRAME || stream->filter == CAN_LINK_TAKES_NONE || stream->marks > 0)
		return false;
	if (stream->filter == CAN_LINK_TAKES_ALL)
		return true;
	return message->frame.id == stream->id && message->frame.is_extended == bus_id_is_extended(stream->id);
}

// Error messages in raw mode are the bus's error frames and no concern of ours.
static int receive(void *state, bus_frame *frame)
{
	auto *stream = static_cast<canserver_stream *>(state);
	canserver_message message;
	for (int i = 0; i <= reads_per_call; i++) {
		while (next_message(stream, &message)) {
			if (message.kind == CANSERVER_ECHO)
				take_echo(stream);
			if (!is_wanted(stream, &message))
				continue;
			*frame = message.frame;
			return 1;
		}
		const int filled = i < reads_per_call ? fill_input(stream) : 0;
		if (filled <= 0)
			return filled;
	}
	return 0;
}

// Output

// 0 = all of it is with the socket, 1 = not yet, -1 = dead.
static int flush_output(canserver_stream *stream)
{
	while (stream->output_at < stream->output_length) {
		const ssize_t count = send(stream->descriptor, stream->output + stream->output_at,
				stream->output_length - stream->output_at, MSG_DONTWAIT | MSG_NOSIGNAL);
		if (count < 0)
			return would_block() ? 1 : say_dead(stream, strerror(errno));
		stream->output_at += static_cast<size_t>(count);
	}
	stream->output_at = 0;
	stream->output_length = 0;
	return 0;
}

// Results of flush_output. A message of which the socket has taken a part stays in `output`, one of which it has taken
// nothing does not.
static int say(canserver_stream *stream, const char *text, size_t length)
{
	memcpy(stream->output, text, length);
	stream->output_at = 0;
	stream->output_length = length;
	const int result = flush_output(stream);
	if (stream->output_at == 0)
		stream->output_length = 0;
	return result;
}

// A frame is taken when the socket has all of it. One of which it has a part must be finished before any other, which
// the caller does by asking again.
static int send_frame(void *state, const bus_frame *frame)
{
	auto *stream = static_cast<canserver_stream *>(state);
	if (stream->is_dead)
		return -1;
	char text[canserver_text_max];
	const size_t length = canserver_write_send(text, frame);
	if (stream->output_length != 0) {
		const bool is_the_same = length == stream->output_length && memcmp(text, stream->output, length) == 0;
		const int pending = flush_output(stream);
		if (pending != 0 || is_the_same)
			return pending;
	}
	return say(stream, text, length);
}

static constexpr char echo[] = "< echo >";

// A server that has much to send to us answers an echo behind it. One that does not know the word, which shows when the
// link is opened, is not asked.
static void mark(void *state)
{
	auto *stream = static_cast<canserver_stream *>(state);
	if (stream->filter == CAN_LINK_TAKES_NONE || !stream->echoes || stream->is_dead || flush_output(stream) != 0)
		return;
	if (say(stream, echo, strlen(echo)) == 0 || stream->output_length != 0) // the next frame sends the rest of it
		stream->marks++;
}

// Connection

struct server_address {
	char host[256];
	char port[16];
};

// "host:port" or "[host]:port".
static int split_server(const char *server, server_address *address)
{
	const char *colon = strrchr(server, ':');
	if (colon == nullptr || colon[1] == '\0' || strlen(colon + 1) >= sizeof(address->port))
		return -1;
	const char *host = server;
	size_t length = static_cast<size_t>(colon - server);
	if (length >= 2 && host[0] == '[' && host[length - 1] == ']') {
		host++;
		length -= 2;
	}
	if (length == 0 || length >= sizeof(address->host))
		return -1;
	memcpy(address->host, host, length);
	address->host[length] = '\0';
	(void)snprintf(address->port, sizeof(address->port), "%s", colon + 1); // its length has been checked
	return 0;
}

static int wait_connected(int descriptor, int64_t deadline_us)
{
	for (;;) {
		const int64_t left_ms = (deadline_us - can_link_monotonic_us() + 999) / 1000;
		pollfd polled = {descriptor, POLLOUT, 0};
		const int ready = poll(&polled, 1, left_ms > 0 ? static_cast<int>(left_ms) : 0);
		if (ready < 0 && errno == EINTR)
			continue;
		int error = ETIMEDOUT;
		socklen_t size = sizeof(error);
		if (ready > 0 && getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0)
			return 0;
		errno = error;
		return -1;
	}
}

// A socket whose descriptor is above 0, also in a process without standard input: a raw port's is handed out.
static int new_socket(int family)
{
	const int descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (descriptor != 0)
		return descriptor;
	const int above = fcntl(descriptor, F_DUPFD_CLOEXEC, 1);
	const int error = errno;
	close(descriptor);
	errno = error;
	return above;
}

// A connected socket, or -1 with errno.
static int connect_to(const addrinfo *address, int64_t deadline_us)
{
	const int descriptor = new_socket(address->ai_family);
	if (descriptor < 0)
		return -1;
	const int on = 1;
	const bool began = setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0 &&
			setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receive_queue, sizeof(receive_queue)) == 0 &&
			(connect(descriptor, address->ai_addr, address->ai_addrlen) == 0 || errno == EINPROGRESS);
	if (began && wait_connected(descriptor, deadline_us) == 0)
		return descriptor;
	const int error = errno;
	close(descriptor);
	errno = error;
	return -1;
}

static int connect_to_server(const char *server, int64_t deadline_us)
{
	server_address address;
	if (split_server(server, &address) != 0) {
		uds_log(UDS_LOG_ERR, "QUILLET_CAN_SERVER is \"%s\"; it must be host:port", server);
		return -1;
	}
	addrinfo hints{};
	hints.ai_socktype = SOCK_STREAM;
	addrinfo *found = nullptr;
	if (const int result = getaddrinfo(address.host, address.port, &hints, &found); result != 0) {
		uds_log(UDS_LOG_ERR, "CAN server %s: %s", server, gai_strerror(result));
		return -1;
	}
	int descriptor = -1;
	for (const addrinfo *one = found; one != nullptr && descriptor < 0; one = one->ai_next)
		descriptor = connect_to(one, deadline_us);
	if (descriptor < 0)
		uds_log(UDS_LOG_ERR, "CAN server %s cannot be reached: %s; is it running?", server, strerror(errno));
	freeaddrinfo(found);
	return descriptor;
}

// Handshake

static int say_unusable(const char *server, const char *ifname, const char *why)
{
	uds_log(UDS_LOG_ERR, "CAN server %s, bus %s: %s", server, ifname, why);
	return -1;
}

// Waits for the answer of this kind: 0, or -1 with *why set.
static int await_answer(canserver_stream *stream, canserver_kind kind, int64_t deadline_us, canserver_message *answer)
{
	for (;;) {
		if (next_message(stream, answer))
			return answer->kind == kind ? 0 : -1;
		*answer = {};
		if (fill_input(stream) < 0 || can_link_monotonic_us() >= deadline_us)
			return -1;
		if (stream->input_at == stream->input_length)
			can_link_poll(stream->descriptor, -1, deadline_us);
	}
}

static const char *reason_in(const canserver_message *answer, const char *otherwise)
{
	return answer->kind == CANSERVER_ERROR && answer->text[0] != '\0' ? answer->text : otherwise;
}

static int shake_hands(canserver_stream *stream, const char *server, const char *ifname, int64_t deadline_us)
{
	static constexpr char raw_mode[] = "< rawmode >";
	canserver_message answer;
	if (await_answer(stream, CANSERVER_HI, deadline_us, &answer) != 0)
		return say_unusable(server, ifname, reason_in(&answer, "does not greet as a CAN server does"));

	char open_bus[canserver_text_max];
	const size_t length = canserver_write_open(open_bus, ifname);
	// A new connection has room for what is said here.
	if (say(stream, open_bus, length) != 0 || await_answer(stream, CANSERVER_OK, deadline_us, &answer) != 0)
		return say_unusable(server, ifname, reason_in(&answer, "no answer to open"));

	if (say(stream, raw_mode, strlen(raw_mode)) != 0 || await_answer(stream, CANSERVER_OK, deadline_us, &answer) != 0)
		return say_unusable(server, ifname, reason_in(&answer, "no answer to rawmode"));
	return say(stream, echo, strlen(echo)); // the answer tells what the server can do; nobody waits for it
}

static void close_stream(canserver_stream *stream)
{
	if (stream->descriptor >= 0)
		close(stream->descriptor);
	free(stream);
}

static void close_link(void *state)
{
	close_stream(static_cast<canserver_stream *>(state));
}

static canserver_stream *new_stream(can_link_filter filter, uint32_t id)
{
	auto *stream = static_cast<canserver_stream *>(calloc(1, sizeof(canserver_stream)));
	if (stream == nullptr) {
		uds_log(UDS_LOG_ERR, "no memory for a connection to the CAN server");
		return nullptr;
	}
	stream->descriptor = -1;
	stream->filter = filter;
	stream->id = id;
	return stream;
}

static canserver_stream *open_stream(const char *server, const char *ifname, can_link_filter filter, uint32_t id)
{
	if (!canserver_name_is_valid(ifname)) { // also keeps its brackets out of the protocol
		uds_log(UDS_LOG_ERR, "not the name of a CAN bus");
		return nullptr;
	}
	scoped<canserver_stream, close_stream> stream(new_stream(filter, id));
	if (!stream)
		return nullptr;

	const int64_t deadline_us = can_link_monotonic_us() + connect_timeout_us;
	stream->descriptor = connect_to_server(server, deadline_us);
	if (stream->descriptor < 0)
		return nullptr;

	if (shake_hands(stream.get(), server, ifname, deadline_us) != 0)
		return nullptr;

	return stream.release();
}

static void wait_for_frame(void *state, int wake_descriptor, int64_t deadline_us)
{
	can_link_poll(static_cast<canserver_stream *>(state)->descriptor, wake_descriptor, deadline_us);
}

static int64_t monotonic_us(void *)
{
	return can_link_monotonic_us();
}

int canserver_link_open(can_link *link, const char *server, const char *ifname, can_link_filter filter, uint32_t id)
{
	canserver_stream *stream = open_stream(server, ifname, filter, id);
	if (stream == nullptr)
		return -1;
	*link = {.state = stream,
			.send = send_frame,
			.receive = receive,
			.mark = mark,
			.wait = wait_for_frame,
			.now_us = monotonic_us,
			.descriptor = stream->descriptor,
			.close = close_link,
			.detach = free};
	return 0;
}

int canserver_bus_exists(const char *server, const char *ifname)
{
	canserver_stream *stream = open_stream(server, ifname, CAN_LINK_TAKES_NONE, 0);
	if (stream == nullptr)
		return 0;
	close_stream(stream);
	return 1;
}
