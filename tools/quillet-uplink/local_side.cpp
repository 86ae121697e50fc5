#include "local_side.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

static constexpr int first_inherited = 3; // as sd_listen_fds(3) has it

static bool variable_is(const char *name, long value)
{
	const char *text = getenv(name);
	return text != nullptr && std::to_string(value) == text;
}

static bool listens_on_the_loopback(int descriptor)
{
	sockaddr_in address = {};
	socklen_t length = sizeof(address);
	int listens = 0;
	socklen_t size = sizeof(listens);
	return getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0 &&
			getsockname(descriptor, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
			address.sin_family == AF_INET && address.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

int local_inherit(std::string &error)
{
	if (!variable_is("LISTEN_PID", getpid()))
		return -1;
	if (variable_is("LISTEN_FDS", 1) && listens_on_the_loopback(first_inherited) &&
			fcntl(first_inherited, F_SETFD, FD_CLOEXEC) == 0)
		return first_inherited;
	error = "what the service manager hands over is not one listening socket on 127.0.0.1";
	return -1;
}

int local_listen(uint16_t port, std::string &error)
{
	const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	const int on = 1;
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	address.sin_port = htons(port);
	if (listener >= 0 && setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
			bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 && listen(listener, 4) == 0)
		return listener;
	error = "port " + std::to_string(port) + " of 127.0.0.1 cannot be listened on: " + strerror(errno);
	if (listener >= 0)
		close(listener);
	return -1;
}

int local_accept(int listener)
{
	const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
	const int on = 1;
	if (connection >= 0)
		(void)setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)); // only slower without
	return connection;
}

struct table_line {
	unsigned addresses[2]; // its own and its peer's
	unsigned ports[2];
	unsigned state;
	unsigned user;
};

// "  0: 0100007F:23AE 0100007F:C3F2 01 00000000:00000000 00:00000000 00000000  1000 ..." of /proc/net/tcp.
static bool parse_line(const char *text, table_line *line)
{
	return sscanf(text, " %*d: %8X:%4X %8X:%4X %2X %*8X:%*8X %*2X:%*8X %*8X %u", &line->addresses[0], &line->ports[0],
				   &line->addresses[1], &line->ports[1], &line->state, &line->user) == 6;
}

bool local_peer_is(int connection, uid_t user)
{
	sockaddr_in own = {};
	sockaddr_in peer = {};
	socklen_t own_length = sizeof(own);
	socklen_t peer_length = sizeof(peer);
	if (getsockname(connection, reinterpret_cast<sockaddr *>(&own), &own_length) != 0 ||
			getpeername(connection, reinterpret_cast<sockaddr *>(&peer), &peer_length) != 0)
		return false;

	std::unique_ptr<FILE, int (*)(FILE *)> table(fopen("/proc/net/tcp", "re"), fclose);
	char text[512];
	table_line line = {};
	while (table && fgets(text, sizeof(text), table.get()) != nullptr) {
		// A socket that its process has closed already shows as root's; only an open one tells whose it is.
		if (parse_line(text, &line) && line.ports[0] == ntohs(peer.sin_port) && line.ports[1] == ntohs(own.sin_port) &&
				line.addresses[0] == peer.sin_addr.s_addr && line.addresses[1] == own.sin_addr.s_addr)
			return line.state == TCP_ESTABLISHED && (line.user == user || line.user == 0);
	}
	return false;
}
