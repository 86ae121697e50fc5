// quillet-ecu: virtual ECUs on a CAN bus, from a JSON description.
#include <cstdio>
#include <map>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "description.h"
#include "key_plugin.h"
#include "runner.h"
#include "stop_signals.h"

namespace
{

struct options {
	std::string description;
	std::string bus;
	std::string key_plugin_dir;
	std::string request_log;
	bool trace = false;
};

void describe_options(CLI::App *app, options *chosen)
{
	app->add_option("description", chosen->description, "JSON file that describes the ECUs")->required();
	app->add_option("--bus", chosen->bus, "Bus to serve them on, instead of the description's");
	app->add_option(
			"--key-plugin-dir", chosen->key_plugin_dir, "Directory of libecusecalgo.so, instead of the description's");
	app->add_option("--request-log", chosen->request_log,
			"File to append one line to for each request received: time, ECU, bytes");
	app->add_flag("--trace", chosen->trace, "Print each request and each answer");
	app->footer(
			"The bus is a SocketCAN interface of this machine; with QUILLET_CAN_SERVER=host:port in the environment it "
			"is one of that CAN server.");
}

int fail(const std::string &text)
{
	(void)fprintf(stderr, "quillet-ecu: %s\n", text.c_str()); // nothing to do about a lost message
	return EXIT_FAILURE;
}

// Which directory an ECU's plug-in comes from: the command line goes before the ECU, the ECU before the bench.
std::string plugin_directory(const options &chosen, const bench_description &bench, const ecu_description &ecu)
{
	for (const std::string *directory : {&chosen.key_plugin_dir, &ecu.key_plugin_dir, &bench.key_plugin_dir})
		if (!directory->empty())
			return *directory;
	return key_plugin_default_directory();
}

// One key function per ECU; NULL for one without security levels.
bool load_plugins(const options &chosen, const bench_description &bench, std::vector<uds_key_function> *functions,
		std::string *error)
{
	std::map<std::string, uds_key_function> loaded;
	for (const ecu_description &ecu : bench.ecus) {
		uds_key_function function = nullptr;
		if (!ecu.security.empty()) {
			uds_key_function &known = loaded[plugin_directory(chosen, bench, ecu)];
			if (known == nullptr)
				known = key_plugin_load(plugin_directory(chosen, bench, ecu), error);
			if (known == nullptr) {
				*error = "key plug-in of \"" + ecu.name + "\": " + *error;
				return false;
			}
			function = known;
		}
		functions->push_back(function);
	}
	return true;
}

int run(const options &chosen)
{
	const int stop_descriptor = stop_signals_descriptor();
	if (stop_descriptor < 0)
		return fail("no descriptor is left to wait for signals with; raise the limit (ulimit -n)");

	std::string error;
	bench_description bench;
	if (!description_load(chosen.description, &bench, &error))
		return fail(error);
	if (!chosen.bus.empty())
		bench.bus = chosen.bus;
	runner_settings settings = {
			.bench = &bench, .key_functions = {}, .bus = bench.bus, .record = {}, .stop_descriptor = stop_descriptor};
	settings.record.trace = chosen.trace;
	if (!load_plugins(chosen, bench, &settings.key_functions, &error))
		return fail(error);
	if (!chosen.request_log.empty() && !request_record_open(&settings.record, chosen.request_log, &error))
		return fail(error);

	const bool ended = runner_run(settings);
	request_record_close(&settings.record);
	(void)close(stop_descriptor); // the process ends
	return ended ? EXIT_SUCCESS : fail("out of memory");
}

} // namespace

int main(int argc, char **argv)
{
	options chosen;
	CLI::App app("Virtual ECUs on a CAN bus, from a JSON description.", "quillet-ecu");
	describe_options(&app, &chosen);
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &problem) {
		return app.exit(problem) == 0 ? EXIT_SUCCESS : 2;
	}
	return run(chosen);
}
