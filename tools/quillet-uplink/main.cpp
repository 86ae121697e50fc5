// quillet-uplink: the way of a bridge that a broker on this machine opens to another broker, by mutual TLS.
//
// mosquitto 2.0 opens its bridges without asking for a session at the far broker, so that what arrives there for the
// units while the link is down is lost. This program stands between: it takes the broker's connection on a port of the
// loopback, adds the session's expiry to the first packet, and passes everything else on byte for byte. What is
// acknowledged is acknowledged by the brokers; this program keeps nothing and loses nothing.
//
// One connection at a time, as a bridge has: the next one waits until the one before has ended.

#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "connect_packet.h"
#include "fleet_link.h"
#include "host_port.h"
#include "local_side.h"
#include "relay.h"

namespace
{

constexpr int open_timeout_ms = 10000;

struct uplink {
	std::string identity;
	std::string to;
	std::string host;
	uint16_t far_port = 0;
	uint16_t port = 9134;
	uint32_t expiry_s = 3600;
	std::string user;
	uid_t user_id = 0;
	std::string last_said;
};

// A cause that stays is said once, however often the broker tries.
void say(uplink &state, const std::string &text)
{
	if (text == state.last_said)
		return;
	state.last_said = text;
	fprintf(stderr, "quillet-uplink: %s\n", text.c_str());
}

bool take_connect(int local, std::string &bytes, size_t *length)
{
	for (;;) {
		switch (connect_look(bytes, length)) {
		case connect_state::complete:
			return true;
		case connect_state::refused:
			return false;
		case connect_state::incomplete:
			break;
		}
		char part[4096];
		pollfd waited = {local, POLLIN, 0};
		ssize_t count = poll(&waited, 1, open_timeout_ms) == 1 ? recv(local, part, sizeof(part), 0) : 0;
		if (count <= 0)
			return false;
		bytes.append(part, static_cast<size_t>(count));
	}
}

void serve(uplink &state, SSL_CTX *context, int local)
{
	if (!local_peer_is(local, state.user_id)) {
		say(state, "refused a connection that is not by the user " + state.user);
		return;
	}
	std::string bytes;
	size_t length = 0;
	std::string first;
	if (take_connect(local, bytes, &length))
		first = connect_with_expiry(std::string_view(bytes).substr(0, length), state.expiry_s);
	if (first.empty()) {
		say(state, "refused a connection that is no bridge of MQTT 5 (bridge_protocol_version mqttv50)");
		return;
	}
	fleet_link link;
	std::string error;
	if (!fleet_open(context, state.host, state.far_port, open_timeout_ms, link, error)) {
		say(state, state.to + ": " + error);
		return;
	}
	say(state, state.to + ": connected");
	say(state, state.to + ": " + relay_run(local, link, first + bytes.substr(length)));
}

bool resolve_user(uplink &state, std::string &error)
{
	const passwd *entry = state.user.empty() ? getpwuid(geteuid()) : getpwnam(state.user.c_str());
	if (entry == nullptr && !state.user.empty()) {
		error = "there is no user \"" + state.user + "\" on this machine";
		return false;
	}
	state.user_id = entry != nullptr ? entry->pw_uid : geteuid();
	state.user = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
	return true;
}

bool split_address(uplink &state, std::string &error)
{
	if (parse_host_port(state.to, state.host, state.far_port))
		return true;
	error = "--to \"" + state.to + "\" is not HOST:PORT, as in bus.example:8883 or [2001:db8::7]:8883";
	return false;
}

bool run(uplink &state, std::string &error)
{
	if (!split_address(state, error) || !resolve_user(state, error))
		return false;
	const fleet_context context = fleet_load(state.identity, error);
	if (!context)
		return false;
	int listener = local_inherit(error);
	const bool inherited = listener >= 0;
	if (!inherited && error.empty())
		listener = local_listen(state.port, error);
	if (listener < 0)
		return false;
	const std::string where = inherited ? "the socket handed over" : "127.0.0.1:" + std::to_string(state.port);
	fprintf(stderr, "quillet-uplink: waiting for the user %s on %s\n", state.user.c_str(), where.c_str());
	for (;;) {
		const int local = local_accept(listener);
		if (local < 0)
			continue; // the one that knocked has gone
		serve(state, context.get(), local);
		close(local);
	}
}

} // namespace

int main(int argc, char **argv)
{
	CLI::App app("Carries a broker's bridge to another broker by mutual TLS, with a session there.", "quillet-uplink");
	uplink state;
	app.add_option("--identity", state.identity, "Folder with private.pem, cert.pem and the other broker's ca.pem")
			->required();
	app.add_option("--to", state.to, "HOST:PORT of the other broker, an IPv6 address in brackets")->required();
	app.add_option("--port", state.port, "Port of 127.0.0.1 that the broker here connects to")->capture_default_str();
	app.add_option("--user", state.user, "Whose processes may connect (default: whoever runs this)");
	app.add_option("--session-expiry", state.expiry_s, "Seconds that the other broker keeps messages for a cut bridge")
			->check(CLI::Range(1u, 0xFFFFFFFFu))
			->capture_default_str();
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &problem) {
		return app.exit(problem) == 0 ? 0 : 2;
	}
	signal(SIGPIPE, SIG_IGN);
	std::string error;
	if (!run(state, error))
		fprintf(stderr, "quillet-uplink: %s\n", error.c_str());
	return 1;
}
