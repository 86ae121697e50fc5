// quillet-query: sends one request to an agent over the bus, waits, and prints the replies on standard output, one JSON
// text each, or decoded for people. What it does besides goes to standard error.

#include <chrono>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <tervbus.h>
#include <unistd.h>

#include "arguments.h"
#include "boot_clock.h"
#include "bus_names.h"
#include "bus_session.h"
#include "decode_reply.h"
#include "identity_lock.h"
#include "reply_wait.h"
#include "text_file.h"

namespace
{

enum exit_status { status_reply = 0, status_error_reply = 1, status_no_reply = 2, status_usage = 3, status_bus = 4 };

// How long the broker may take to let us in.
constexpr int64_t connect_timeout_ms = 10000;
// The longest wait for one event, so that the progress line moves.
constexpr std::chrono::milliseconds slice(200);

struct condition_row {
	int condition;
	const char *says;
};

// Conditions that end a run before the request is out.
constexpr condition_row refusals[] = {
		{TERVBUS_CONDITION_RESOLUTION_FAILED, "the broker's name does not resolve; is --broker right?"},
		{TERVBUS_CONDITION_CONNECTION_FAILED,
				"no connection to the broker: is it running there, and is its certificate of the same CA, in date and "
				"for this host name? --verbose tells which"},
		{TERVBUS_CONDITION_REGISTRATION_FAILED,
				"the broker refuses this identity: its certificate has to be in date, of the broker's CA and not "
				"revoked"},
		{TERVBUS_CONDITION_CONNECTION_BROKE,
				"the broker closed the connection before the request was sent; does another node use this identity?"},
		{TERVBUS_CONDITION_CONNECTION_ABORTED, "another node with this identity took the connection over"},
		{TERVBUS_CONDITION_STOPPED, "the bus client stopped"},
};
static_assert(sizeof(refusals) / sizeof(refusals[0]) == 6, "every condition but running and start");

// Stands still while the machine sleeps: the broker cannot let us in meanwhile.
int64_t awake_now_ms()
{
	return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
			.count();
}

int fail(int status, const std::string &text)
{
	std::cerr << "quillet-query: " + text + "\n"; // at once: the bus library's thread may be telling something as well
	return status;
}

void show_progress(const std::string &what, int64_t waited_ms)
{
	if (isatty(STDERR_FILENO))
		fprintf(stderr, "\r%s %.1f s ", what.c_str(), static_cast<double>(waited_ms) / 1000.0);
}

void clear_progress()
{
	if (isatty(STDERR_FILENO))
		fputs("\r\033[K", stderr);
}

// A request on its way: its text, and what decoding the replies needs.
struct outgoing {
	std::string text;
	std::string reply_id;
	ecu_names names;
};

void print_reply(const query_options &options, const outgoing &request, const std::string &text)
{
	if (options.decode) {
		std::cout << decode_reply(request.text, text, request.names) << std::flush;
		return;
	}
	json_object *document = options.pretty ? json_tokener_parse(text.c_str()) : nullptr;
	if (document == nullptr) {
		std::cout << text << std::endl;
		return;
	}
	const int layout = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
	std::cout << json_object_to_json_string_ext(document, layout) << std::endl;
	json_object_put(document);
}

bool read_request(const query_options &options, outgoing &request, std::string &error)
{
	std::string text;
	if (!read_text_file(options.file, text)) {
		error = options.file + " cannot be read: " + strerror(errno);
		return false;
	}
	if (adopt_request(text, options.reply_id, request.text, request.reply_id, error))
		return true;
	error = options.file + ": " + error;
	return false;
}

bool make_request(const query_options &options, outgoing &request, std::string &error)
{
	if (options.kind == request_kind::file)
		return read_request(options, request, error);
	request.reply_id = options.reply_id.empty() ? fresh_reply_id() : options.reply_id;
	if (options.kind == request_kind::dtc)
		return build_dtc_request(options.dtc, request.reply_id, request.text, request.names, error);
	if (options.kind == request_kind::version)
		return build_version_request(options.version, request.reply_id, request.text, error);
	return build_routine_request(options.routine, request.reply_id, request.text, error);
}

// Waits until the broker has let us in: 0, or the exit status.
int wait_for_broker(bus_session &session, const query_options &options)
{
	const int64_t begin = awake_now_ms();
	while (awake_now_ms() - begin < connect_timeout_ms) {
		bus_event event = bus_session_wait(session, slice);
		if (event.what != bus_event::kind::condition) {
			show_progress("connecting to " + options.broker, awake_now_ms() - begin);
			continue;
		}
		if (event.number == TERVBUS_CONDITION_RUNNING)
			return 0;
		for (const condition_row &row : refusals) {
			if (row.condition == event.number)
				return fail(status_bus, options.broker + ": " + row.says);
		}
	}
	return fail(status_bus, options.broker + ": the broker does not answer");
}

int undelivered(const query_options &options)
{
	return fail(status_bus,
			"the broker did not pass the request on: no node is connected as \"" + options.agent +
					"\", or the broker's rules do not let this identity reach it");
}

int no_reply(const query_options &options)
{
	return fail(status_no_reply,
			"no reply from \"" + options.agent +
					"\" in time. A request that fails validation gets no reply: the agent's log tells why "
					"(a line of level ERR after \"Received msg\"). A long job needs a longer --timeout.");
}

int wait_for_replies(bus_session &session, const query_options &options, const outgoing &request)
{
	const int64_t begin = boot_now_ms();
	reply_wait wait = reply_wait_begin(
			options.agent, request.reply_id, begin, static_cast<int64_t>(std::llround(options.timeout_s * 1000)));
	while (!reply_wait_is_over(wait, boot_now_ms())) {
		int64_t left = wait.deadline_ms - boot_now_ms();
		bus_event event =
				bus_session_wait(session, std::min(slice, std::chrono::milliseconds(std::max<int64_t>(left, 0))));
		if (event.what == bus_event::kind::message && reply_wait_take(wait, event.sender, event.text, boot_now_ms())) {
			clear_progress();
			print_reply(options, request, event.text);
		} else if (event.what == bus_event::kind::delivered && event.number == 0 && !wait.answered) {
			clear_progress();
			return undelivered(options);
		} else {
			show_progress("waiting for " + options.agent, boot_now_ms() - begin);
		}
	}
	clear_progress();
	if (!wait.answered)
		return no_reply(options);
	return wait.failed ? status_error_reply : status_reply;
}

int run(const query_options &options)
{
	outgoing request;
	std::string error;
	if (!check_unit_name(options.agent, error) || !check_broker_name(options.broker, error) ||
			!make_request(options, request, error))
		return fail(status_usage, error);
	const bool locked = lock_identity(
			options.certificates,
			[](std::chrono::milliseconds waited) { show_progress("waiting for the other run", waited.count()); },
			error);
	clear_progress();
	if (!locked)
		return fail(status_bus, error);
	bus_session_pointer session = bus_session_open(options.certificates, options.broker, options.verbose, error);
	if (session == nullptr)
		return fail(status_bus, error);
	int status = wait_for_broker(*session, options);
	clear_progress();
	if (status != 0)
		return status;
	if (options.show_request)
		std::cerr << request.text << std::endl;
	if (!bus_session_send(*session, options.agent, request.text))
		return fail(status_bus,
				"the request cannot be sent to \"" + options.agent +
						"\": a unit address has at most 128 bytes of UTF-8, a message at most 16 MiB");
	return wait_for_replies(*session, options, request);
}

} // namespace

int main(int argc, char **argv)
{
	query_options options;
	CLI::App app("Sends a diagnostic request to an agent and prints the reply.", "quillet-query");
	add_arguments(app, options);
	try {
		app.parse(argc, argv);
		if (options.file.empty() == (options.kind == request_kind::file))
			throw CLI::ValidationError("give either --file or the subcommand routine, dtc or version");
	} catch (const CLI::ParseError &problem) {
		return app.exit(problem) == 0 ? 0 : status_usage;
	}
	return run(options);
}
