// The command line, and the wait for SIGINT. The signal is blocked before any thread exists, so every thread inherits
// the block, and taken only while the main thread waits: one that comes during the start is not lost.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "logger.h"
#include "movra_fleet/agent_core/agent_core.h"
#include "movra_fleet/common/request_number.h"

namespace
{

void print_usage()
{
	puts("options:");
	puts("\t-h : This message");
	puts("\t-k <CerPath>: Movra Agent Ceritificate Path"); // kept as it is
	puts("\t-u <Broker IP>: default: localhost");
	puts("\t-b <broker Port>: default: 9133");
	puts("\t-v : increase verbosity");
}

// Only ends the wait.
void on_sigint(int)
{
}

void parse_options(int argc, char **argv, agent_settings *settings)
{
	for (int option; (option = getopt(argc, argv, "k:u:b:t:vl:")) != -1;) {
		switch (option) {
		case 'k':
			settings->cert_dir = optarg;
			break;
		case 'u':
			settings->broker_host = optarg;
			break;
		case 'b':
			settings->broker_port = request_number(optarg, 10); // not a number: 0
			break;
		case 't':
			settings->data_dir = optarg;
			break;
		case 'v':
			settings->verbosity += 1;
			break;
		case 'l':
			settings->extra_arg = optarg;
			break;
		default:
			print_usage();
			exit(0);
		}
	}
}

// Blocks SIGINT; the result is the mask to wait with.
sigset_t block_sigint()
{
	sigset_t sigint = {};
	sigset_t waiting = {};
	(void)sigemptyset(&sigint); // these fail only for a signal that does not exist
	(void)sigaddset(&sigint, SIGINT);
	(void)sigprocmask(SIG_BLOCK, &sigint, &waiting);
	(void)sigdelset(&waiting, SIGINT);
	return waiting;
}

}

int main(int argc, char **argv)
{
	int result = -1; // also after an orderly end, kept as it is
	agent_settings settings = {
			.broker_host = "localhost",
			.broker_port = 9133,
			.data_dir = "/EDATA/UDS",
			.cert_dir = nullptr,
			.config_limit = 1000,
			.verbosity = LOG_INFO,
			.extra_arg = nullptr,
	};
	sigset_t waiting = block_sigint();
	(void)signal(SIGINT, on_sigint); // fails only for a signal that cannot be caught

	parse_options(argc, argv, &settings);
	if (settings.cert_dir == nullptr) {
		puts("Invalid Certificate Path");
		return result;
	}

	agent_ctx *ctx = agent_init(&settings, "No config");
	(void)sigsuspend(&waiting); // returns after SIGINT alone, always with EINTR
	(void)agent_deinit(ctx);    // 0 in every case
	return result;
}
