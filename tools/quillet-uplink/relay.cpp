#include "relay.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace
{

constexpr size_t buffer_max = 65536; // in each direction; a side that does not read holds up the other

struct relay {
	int local;
	fleet_link *link;
	std::string up;   // to the far broker
	std::string down; // to the local one
	bool ssl_wants_out = false;
	bool moved = false; // in this round
	std::string ended;  // why, once it is over
};

void take_local(relay &state)
{
	char part[16384];
	if (state.up.size() >= buffer_max)
		return;
	const ssize_t count = recv(state.local, part, sizeof(part), MSG_DONTWAIT);
	if (count > 0) {
		state.up.append(part, static_cast<size_t>(count));
		state.moved = true;
	} else if (count == 0) {
		state.ended = "the local broker has closed the bridge";
	} else if (errno != EAGAIN && errno != EINTR) {
		state.ended = std::string("the local broker's connection broke: ") + strerror(errno);
	}
}

void give_local(relay &state)
{
	if (state.down.empty())
		return;
	const ssize_t count = send(state.local, state.down.data(), state.down.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
	if (count > 0) {
		state.down.erase(0, static_cast<size_t>(count));
		state.moved = true;
	} else if (errno != EAGAIN && errno != EINTR) {
		state.ended = std::string("the local broker's connection broke: ") + strerror(errno);
	}
}

void note_ssl(relay &state, int result)
{
	const int wants = SSL_get_error(state.link->ssl, result);
	if (wants == SSL_ERROR_WANT_WRITE)
		state.ssl_wants_out = true;
	else if (wants == SSL_ERROR_ZERO_RETURN)
		state.ended = "the far broker has closed the connection";
	else if (wants != SSL_ERROR_WANT_READ)
		state.ended = "the far broker's connection broke";
	ERR_clear_error();
}

void take_far(relay &state)
{
	char part[16384];
	if (state.down.size() >= buffer_max)
		return;
	const int count = SSL_read(state.link->ssl, part, sizeof(part));
	if (count > 0) {
		state.down.append(part, static_cast<size_t>(count));
		state.moved = true;
	} else {
		note_ssl(state, count);
	}
}

void give_far(relay &state)
{
	if (state.up.empty())
		return;
	const int count = SSL_write(state.link->ssl, state.up.data(), static_cast<int>(state.up.size()));
	if (count > 0) {
		state.up.erase(0, static_cast<size_t>(count));
		state.moved = true;
	} else {
		note_ssl(state, count);
	}
}

// A side that has gone while nothing more can be taken from it would be told again and again.
bool gone_unread(const pollfd &waited)
{
	return (waited.revents & (POLLHUP | POLLERR)) != 0 && (waited.events & POLLIN) == 0;
}

void wait(relay &state)
{
	pollfd waited[2] = {{state.local, 0, 0}, {state.link->descriptor, 0, 0}};
	if (state.up.size() < buffer_max)
		waited[0].events |= POLLIN;
	if (!state.down.empty())
		waited[0].events |= POLLOUT;
	if (state.down.size() < buffer_max)
		waited[1].events |= POLLIN;
	if (state.ssl_wants_out)
		waited[1].events |= POLLOUT;
	(void)poll(waited, 2, -1); // an interrupted wait is one more round
	if (gone_unread(waited[0]) || gone_unread(waited[1]))
		state.ended = "a side has gone while the other did not read";
}

} // namespace

std::string relay_run(int local, fleet_link &link, std::string first)
{
	relay state = {.local = local, .link = &link, .up = std::move(first), .down = {}, .ended = {}};
	while (state.ended.empty()) {
		state.moved = false;
		state.ssl_wants_out = false;
		take_local(state);
		give_far(state);
		if (state.ended.empty())
			take_far(state);
		give_local(state);
		if (!state.moved && state.ended.empty())
			wait(state);
	}
	return state.ended;
}
