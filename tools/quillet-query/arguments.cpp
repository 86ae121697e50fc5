#include "arguments.h"

#include "dtc_names.h"

namespace
{

void add_common(CLI::App &app, query_options &options)
{
	app.add_option("--to", options.agent, "The agent's unit address")->required();
	app.add_option("--certs", options.certificates,
			   "Folder of this requester's identity: private.pem, cert.pem, and beside it ca/ca.pem")
			->required();
	app.add_option("--broker", options.broker, "HOST:PORT of the broker, an IPv6 address in brackets")
			->capture_default_str();
	app.add_option("--file", options.file, "Send the one request in this file, JSON; - is standard input");
	app.add_option("--reply-id", options.reply_id, "Instead of the file's own or of a fresh one");
	app.add_option("--timeout", options.timeout_s, "Seconds to wait for the first reply")
			->check(CLI::Range(0.0, 86400.0))
			->capture_default_str();
	CLI::Option *pretty = app.add_flag("--pretty", options.pretty, "Print replies over several lines");
	app.add_flag("--decode", options.decode, "Print replies for people instead of as JSON")->excludes(pretty);
	app.add_flag("--show-request", options.show_request, "Print the request on standard error before it is sent");
	app.add_flag("--verbose", options.verbose, "Print the bus library's news on standard error");
	app.footer("A request is made by a subcommand, each with a --help of its own, or comes from --file.\n"
			   "Exit status: 0 reply, 1 error reply, 2 no reply in time, 3 wrong use, 4 trouble with bus or identity.");
	app.require_subcommand(0, 1);
	app.fallthrough();
}

constexpr const char *ecu_help = "REQUEST-ID:RESPONSE-ID of the ECU, as in 7E0:7E8";

void add_transport(CLI::App &command, transport_options &options)
{
	command.add_option("--st-min", options.st_min, "ISO-TP separation time, hexadecimal")->capture_default_str();
	command.add_option("--bsize", options.bsize, "ISO-TP block size, hexadecimal")->capture_default_str();
}

void add_routine(CLI::App &app, query_options &options)
{
	routine_options &routine = options.routine;
	CLI::App *command = app.add_subcommand("routine", "Have the agent run raw UDS commands");
	command->callback([&options] { options.kind = request_kind::routine; });
	command->add_option("--ecu", routine.transport.ecu, ecu_help)->required();
	command->add_option("--interface", routine.transport.interface_name, "CAN interface on the agent's machine")
			->required();
	command->add_option("--command", routine.commands,
				   "SID[:SUBFUNCTION][:DATA][;timer=SECONDS] in hexadecimal; may be repeated")
			->required();
	add_transport(*command, routine.transport);
	command->add_option("--security-location", routine.security_location,
			"Folder of the key plug-in libecusecalgo.so on the agent's machine");
	command->add_option("--security-level", routine.security_level, "For the plug-in, hexadecimal")
			->capture_default_str();
	command->add_option("--security-script", routine.security_script, "For the plug-in");
}

void add_dtc(CLI::App &app, query_options &options)
{
	dtc_options &dtc = options.dtc;
	CLI::App *command = app.add_subcommand("dtc", "Read trouble codes");
	command->callback([&options] { options.kind = request_kind::dtc; });
	command->add_option("--report", dtc.report, "What to read, see below")->required();
	command->add_option("--status-mask", dtc.status_mask,
			"Names of status bits with commas between them, all, or a byte in hexadecimal");
	command->add_option(
			"--severity", dtc.severity, "Names of severities with commas between them, all, or a byte in hexadecimal");
	command->add_option("--dtc", dtc.dtc, "A DTC as in P0123-45, or in hexadecimal as in 012345");
	command->add_option("--record", dtc.record, "Record number in hexadecimal, or all");
	command->add_option("--memory", dtc.memory, "Number of a user-defined memory, hexadecimal");
	command->add_option("--ecu", dtc.transport.ecu, ecu_help);
	command->add_option("--bench", dtc.transport.bench, "Ask all ECUs of this bench description instead");
	command->add_option("--interface", dtc.transport.interface_name,
			"CAN interface on the agent's machine; a bench description names its own");
	add_transport(*command, dtc.transport);
	command->footer(dtc_report_help());
}

void add_version(CLI::App &app, query_options &options)
{
	version_options &version = options.version;
	CLI::App *command = app.add_subcommand("version", "Read a version");
	command->callback([&options] { options.kind = request_kind::version; });
	command->add_option("--uds", version.uds, "A whole UDS request in hexadecimal, as in 22F195; may be repeated");
	command->add_option("--j1939", version.j1939, "Identifier of a broadcast frame, hexadecimal, as in 18FEDA00");
	command->add_option("--signal", version.signals,
			"NAME:START:LENGTH[:FACTOR[:OFFSET]] of a signal in the frame, decimal; may be repeated");
	command->add_option("--frame-timeout", version.frame_timeout,
				   "Milliseconds, sent along; how long the agent waits is its transport library's affair")
			->capture_default_str();
	command->add_option("--ecu", version.transport.ecu, std::string(ecu_help) + "; not needed with --j1939");
	command->add_option("--interface", version.transport.interface_name, "CAN interface on the agent's machine")
			->required();
	add_transport(*command, version.transport);
}

} // namespace

void add_arguments(CLI::App &app, query_options &options)
{
	add_common(app, options);
	add_routine(app, options);
	add_dtc(app, options);
	add_version(app, options);
}
