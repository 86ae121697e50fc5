// quillet-can: virtual CAN buses for machines without SocketCAN, served over TCP in socketcand's protocol.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <unistd.h>

#include "can_server.h"
#include "stop_signals.h"

static void say_ready(const can_server_options &options, uint16_t port)
{
	const bool is_v6 = options.listen.find(':') != std::string::npos;
	std::string line = "listening on " + (is_v6 ? "[" + options.listen + "]" : options.listen) + ":" +
			std::to_string(port) + " buses";
	for (const std::string &bus : options.buses)
		line += " " + bus;
	puts(line.c_str());
	fflush(stdout);
}

int main(int argc, char **argv)
{
	CLI::App app(
			"Virtual CAN buses over TCP, in socketcand's protocol: for machines without SocketCAN.", "quillet-can");
	app.footer("Use them with QUILLET_CAN_SERVER=host:port, or from python-can with interface=\"socketcand\".");
	can_server_options options;
	double drop_percent = 0;
	double duplicate_percent = 0;
	int64_t delay_ms = 0;
	app.add_option("bus", options.buses, "names of the buses, for example vcan0");
	app.add_option("--port", options.port, "TCP port; 0 = any free one, see the first line printed")
			->check(CLI::Range(0, 65535))
			->capture_default_str();
	app.add_option("--listen", options.listen, "numeric address to listen on; anyone who reaches it reaches the buses")
			->capture_default_str();
	app.add_option(
			   "--bitrate", options.line.bitrate, "pace each bus like a real one of so many bits a second; 0 = do not")
			->check(CLI::Range(0u, 8000000u))
			->capture_default_str();
	app.add_option("--drop", drop_percent, "percent of the frames that get lost")->check(CLI::Range(0.0, 100.0));
	app.add_option("--duplicate", duplicate_percent, "percent of the frames that come twice")
			->check(CLI::Range(0.0, 100.0));
	app.add_option("--delay", delay_ms, "milliseconds between a frame's sending and its reception")
			->check(CLI::Range(0, 60000));
	app.add_option("--seed", options.line.seed, "seed of the faults: the same one, the same faults")
			->capture_default_str();
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &problem) {
		return app.exit(problem) == 0 ? 0 : 2;
	}
	options.line.drop = drop_percent / 100;
	options.line.duplicate = duplicate_percent / 100;
	options.line.delay_us = delay_ms * 1000;

	const int stop_descriptor = stop_signals_descriptor();
	if (stop_descriptor < 0) {
		fprintf(stderr, "quillet-can: no descriptor is left to wait for signals with; raise the limit (ulimit -n)\n");
		return 1;
	}
	std::string error;
	const std::unique_ptr<can_server, void (*)(can_server *)> server(can_server_new(options, error), can_server_free);
	if (!server) {
		fprintf(stderr, "quillet-can: %s\n", error.c_str());
		return 1;
	}
	say_ready(options, can_server_port(server.get()));
	can_server_run(server.get(), stop_descriptor);
	close(stop_descriptor);
	return 0;
}
